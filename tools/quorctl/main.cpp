// quorctl: talk to quordaemon from the command line.
//
// Exit statuses: 0 success; 1 failure (no daemon, no reply, bad file);
// 2 usage error; 3 the daemon answered with a non-zero return code.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "ctl_decode.h"
#include "ctl_request.h"
#include "quortev.h"

namespace {

struct Options {
  std::string server = std::string(kServerName);
  int timeout_ms = 10000;
  bool json = false;
  bool help = false;
  std::string command;
  std::vector<std::string> args;  // command arguments, options removed
  std::vector<std::string> flags; // command options (--full, --wire, ...)
};

constexpr const char* kUsage =
    "usage: quorctl [--server NAME] [--timeout SECONDS] [--json] COMMAND [ARGS]\n"
    "\n"
    "commands:\n"
    "  status [--full]        brief (or full) status report of the daemon\n"
    "  refresh [PATH]         re-read the configuration (the default file, or PATH)\n"
    "  cleanup                sweep finished and overdue agents now\n"
    "  terminate              stop the daemon, leaving agents running\n"
    "  killall                stop every agent, then the daemon\n"
    "  decode FILE [--wire|--plain]   print the segments of a message buffer\n"
    "  raw [FILE|-] [--file BINARY] [--no-reply]   send a hand-made request\n"
    "\n"
    "The transport directory is TEV_DIR (default /tmp/tev). 'quorctl COMMAND --help'\n"
    "describes one command.\n";

const char* command_help(const std::string& c) {
  if (c == "status")
    return "usage: quorctl status [--full]\n"
           "Asks for the brief status report (the daemon, its configuration, counts of\n"
           "users and transactions) or, with --full, the report listing every user and\n"
           "agent. Long reports arrive in several buffers and are joined in order.\n";
  if (c == "refresh")
    return "usage: quorctl refresh [PATH]\n"
           "Makes the daemon re-read its configuration, object map and language map:\n"
           "the default configuration file, or PATH. Prints the return code and message;\n"
           "exits 3 when the daemon reports a failure (the old configuration stays).\n";
  if (c == "cleanup")
    return "usage: quorctl cleanup\nSends a clean-up request; the daemon sends no reply.\n";
  if (c == "terminate")
    return "usage: quorctl terminate\nStops the daemon in order; running agents are left alone.\n";
  if (c == "killall")
    return "usage: quorctl killall\nStops every running agent, then the daemon.\n";
  if (c == "decode")
    return "usage: quorctl decode FILE [--wire|--plain]\n"
           "Prints the segments and items of a message buffer read from FILE, with\n"
           "non-printing bytes escaped, and every framing problem with its offset. A\n"
           "buffer as sent on the wire is unscrambled first; --wire and --plain force\n"
           "the choice. Exits 1 when the buffer has problems.\n";
  if (c == "raw")
    return "usage: quorctl raw [FILE|-] [--file BINARY] [--no-reply]\n"
           "Sends a request written in the raw text form (from FILE or standard input)\n"
           "or, with --file, the plain buffer in BINARY (its length prefix is rewritten),\n"
           "and prints every reply buffer decoded. The text form, one directive a line:\n"
           "  header T | segment TAG | item NAME VALUE | string TEXT | end |\n"
           "  trailer Y|N | eod        ('#' comments; escapes \\n \\t \\r \\\\ \\0 \\xNN)\n";
  return nullptr;
}

int usage_error(const std::string& why) {
  std::fprintf(stderr, "quorctl: %s\n%s", why.c_str(), kUsage);
  return 2;
}

int failure(const std::string& why) {
  std::fprintf(stderr, "quorctl: %s\n", why.c_str());
  return 1;
}

std::optional<Options> parse(int argc, char** argv, std::string& error) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto value = [&](const char* name) -> std::optional<std::string> {
      if (i + 1 >= argc) {
        error = std::string(name) + " needs a value";
        return std::nullopt;
      }
      return std::string(argv[++i]);
    };
    if (a == "--help" || a == "-h") {
      o.help = true;
    } else if (a == "--json") {
      o.json = true;
    } else if (a == "--server") {
      auto v = value("--server");
      if (!v) return std::nullopt;
      o.server = *v;
    } else if (a == "--timeout") {
      auto v = value("--timeout");
      if (!v) return std::nullopt;
      char* end = nullptr;
      double secs = std::strtod(v->c_str(), &end);
      if (end == v->c_str() || *end != '\0' || secs < 0 || secs > 86400) {
        error = "--timeout takes a number of seconds";
        return std::nullopt;
      }
      o.timeout_ms = static_cast<int>(secs * 1000);
    } else if (a == "--file") {
      auto v = value("--file");
      if (!v) return std::nullopt;
      o.flags.push_back("--file=" + *v);
    } else if (a.size() > 2 && a.rfind("--", 0) == 0) {
      o.flags.push_back(a);
    } else if (o.command.empty()) {
      o.command = a;
    } else {
      o.args.push_back(a);
    }
  }
  return o;
}

bool has_flag(const Options& o, const std::string& f) {
  for (const auto& x : o.flags)
    if (x == f) return true;
  return false;
}

std::optional<std::string> flag_value(const Options& o, const std::string& prefix) {
  for (const auto& x : o.flags)
    if (x.rfind(prefix, 0) == 0) return x.substr(prefix.size());
  return std::nullopt;
}

bool only_flags(const Options& o, std::initializer_list<std::string> allowed, std::string& bad) {
  for (const auto& f : o.flags) {
    bool ok = false;
    for (const auto& a : allowed) ok = ok || f == a || (a.back() == '=' && f.rfind(a, 0) == 0);
    if (!ok) {
      bad = f;
      return false;
    }
  }
  return true;
}

std::optional<std::string> read_all(const std::string& path) {
  if (path == "-") {
    std::ostringstream s;
    s << std::cin.rdbuf();
    return s.str();
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// ---------------------------------------------------------------------------
// Commands

int cmd_status(const Options& o) {
  bool full = has_flag(o, "--full");
  CtlExchange ex = ctl_exchange(o.server, ctl_build_request(full ? "F" : "B"), o.timeout_ms, true);
  if (!ex.ok) return failure(ex.error);
  std::vector<std::string> lines;
  for (const auto& d : ex.replies)
    for (const auto& s : d.segments)
      if (s.tag == "ZZZSTS") lines.insert(lines.end(), s.strings.begin(), s.strings.end());
  if (o.json) {
    std::string out = "{\"type\":\"" + std::string(full ? "F" : "B") + "\",\"buffers\":" +
                      std::to_string(ex.replies.size()) + ",\"lines\":[";
    for (std::size_t i = 0; i < lines.size(); ++i) out += (i ? "," : "") + ctl_json_string(lines[i]);
    std::printf("%s]}\n", out.c_str());
  } else {
    for (const auto& l : lines) {
      std::fputs(l.c_str(), stdout);
      if (l.empty() || l.back() != '\n') std::fputc('\n', stdout);
    }
  }
  return 0;
}

int cmd_refresh(const Options& o) {
  if (o.args.size() > 1) return usage_error("refresh takes at most one PATH");
  std::optional<std::string_view> path;
  if (!o.args.empty()) path = o.args[0];
  CtlExchange ex = ctl_exchange(o.server, ctl_build_request("R", path), o.timeout_ms, true);
  if (!ex.ok) return failure(ex.error);
  const CtlSegment* ret = ex.replies.empty() ? nullptr : ctl_find(ex.replies.back(), "ZZZRET");
  if (ret == nullptr) return failure("reply without a return code");
  std::string rc = ctl_item(*ret, "RC"), rm = ctl_item(*ret, "RM");
  if (o.json)
    std::printf("{\"rc\":%s,\"message\":%s}\n", ctl_json_string(rc).c_str(),
                ctl_json_string(rm).c_str());
  else
    std::printf("RC %s: %s\n", rc.c_str(), rm.c_str());
  return rc == "0" ? 0 : 3;
}

int cmd_no_reply(const Options& o, const char* type, const char* what) {
  if (!o.args.empty()) return usage_error(std::string(o.command) + " takes no arguments");
  CtlExchange ex = ctl_exchange(o.server, ctl_build_request(type), o.timeout_ms, false);
  if (!ex.ok) return failure(ex.error);
  if (o.json)
    std::printf("{\"sent\":%s}\n", ctl_json_string(type).c_str());
  else
    std::printf("%s request delivered to %s\n", what, o.server.c_str());
  return 0;
}

void print_replies(const Options& o, const CtlExchange& ex) {
  if (o.json) {
    std::string out = "{\"ok\":" + std::string(ex.ok ? "true" : "false") + ",\"replies\":[";
    for (std::size_t i = 0; i < ex.replies.size(); ++i)
      out += (i ? "," : "") + std::string("{\"kind\":\"") + ex.kinds[i] + "\",\"sender\":" +
             ctl_json_string(ex.senders[i]) + ",\"buffer\":" + ctl_format_json(ex.replies[i]) + "}";
    out += "]";
    if (!ex.ok) out += ",\"error\":" + ctl_json_string(ex.error);
    std::printf("%s}\n", out.c_str());
    return;
  }
  for (std::size_t i = 0; i < ex.replies.size(); ++i)
    std::printf("-- reply %zu: %s from %s\n%s", i + 1, ex.kinds[i].c_str(), ex.senders[i].c_str(),
                ctl_format(ex.replies[i]).c_str());
}

int cmd_raw(const Options& o) {
  std::string bad;
  if (!only_flags(o, {"--no-reply", "--file="}, bad)) return usage_error("unknown option " + bad);
  CtlRequest request;
  if (auto binary = flag_value(o, "--file=")) {
    auto bytes = read_all(*binary);
    if (!bytes) return failure("cannot read " + *binary);
    request.bytes.assign(bytes->begin(), bytes->end());
  } else {
    std::string source = o.args.empty() ? "-" : o.args[0];
    auto text = read_all(source);
    if (!text) return failure("cannot read " + source);
    request = ctl_parse_text(*text);
    if (!request.error.empty()) return failure(source + ": " + request.error);
  }
  bool expect = !has_flag(o, "--no-reply");
  CtlExchange ex = ctl_exchange(o.server, std::move(request), o.timeout_ms, expect);
  print_replies(o, ex);
  if (!ex.ok) return failure(ex.error);
  if (!expect && !o.json) std::printf("request delivered to %s\n", o.server.c_str());
  return 0;
}

int cmd_decode(const Options& o) {
  std::string bad;
  if (!only_flags(o, {"--wire", "--plain"}, bad)) return usage_error("unknown option " + bad);
  if (o.args.size() != 1) return usage_error("decode takes one FILE");
  auto data = read_all(o.args[0]);
  if (!data) return failure("cannot read " + o.args[0]);
  std::vector<char> bytes(data->begin(), data->end());
  bool wire = has_flag(o, "--wire");
  if (wire) {
    if (!ctl_unwire(bytes)) return failure(o.args[0] + ": unusable length prefix for a wire buffer");
  } else if (!has_flag(o, "--plain")) {
    // A plain buffer starts its first segment with readable "ZZZ"; a
    // scrambled one almost never does.
    bool plain = bytes.size() >= 9 && std::string_view(bytes.data() + 6, 3) == "ZZZ";
    if (!plain) {
      std::vector<char> copy = bytes;
      if (ctl_unwire(copy)) bytes.swap(copy);
    }
  }
  CtlDecoded d = ctl_decode(bytes);
  std::fputs(o.json ? (ctl_format_json(d) + "\n").c_str() : ctl_format(d).c_str(), stdout);
  return d.problems.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::string error;
  auto parsed = parse(argc, argv, error);
  if (!parsed) return usage_error(error);
  Options& o = *parsed;
  if (o.command.empty()) {
    if (o.help) {
      std::fputs(kUsage, stdout);
      return 0;
    }
    return usage_error("no command given");
  }
  const char* help = command_help(o.command);
  if (help == nullptr) return usage_error("unknown command '" + o.command + "'");
  if (o.help) {
    std::fputs(help, stdout);
    return 0;
  }
  std::string bad;
  if (o.command == "status") {
    if (!only_flags(o, {"--full"}, bad)) return usage_error("unknown option " + bad);
    if (!o.args.empty()) return usage_error("status takes no arguments");
    return cmd_status(o);
  }
  if (o.command == "raw") return cmd_raw(o);
  if (o.command == "decode") return cmd_decode(o);
  if (!o.flags.empty()) return usage_error("unknown option " + o.flags[0]);
  if (o.command == "refresh") return cmd_refresh(o);
  if (o.command == "cleanup") return cmd_no_reply(o, "C", "clean-up");
  if (o.command == "terminate") return cmd_no_reply(o, "T", "terminate");
  return cmd_no_reply(o, "K", "kill-all");
}
