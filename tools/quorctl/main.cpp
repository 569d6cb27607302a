// quorctl: talk to quordaemon from the command line. This file reads the
// command line and files and prints; the commands live in ctl_commands.cpp.
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "ctl_commands.h"
#include "ctl_files.h"
#include "ctl_text.h"

namespace {

constexpr const char* kUsage =
    "usage: quorctl [--server NAME] [--timeout SECONDS] [--user NAME] [--json] COMMAND [ARGS]\n"
    "\n"
    "commands:\n"
    "  status [--full]                 the daemon's brief (or full) status report\n"
    "  hosts                           the daemons that answer, here and on the broker\n"
    "  refresh [PATH]                  re-read the configuration (the default file, or PATH)\n"
    "  check-config [PATH]             check a configuration and its maps as the daemon reads them\n"
    "  cleanup                         sweep finished and overdue agents now\n"
    "  terminate                       stop the daemon, leaving agents running\n"
    "  killall                         stop every agent, then the daemon\n"
    "  decode FILE [--wire|--plain] [--text]\n"
    "                                  print the segments of a message buffer\n"
    "  raw [FILE|-] [--file BUFFER] [--expect-reply|--no-reply] [--save OUT]\n"
    "                                  send a hand-made request, print the replies\n"
    "  login [--password-stdin]        log in (through the logon agent)\n"
    "  logoff                          log off\n"
    "  util COMMAND...                 run a command on the host (utility agent), print its output\n"
    "  run OBJECT COMMAND [OPTIONS]    send a service request to an object's agent, print its answer\n"
    "  table-to-csv TABLE              print a table file as CSV\n"
    "  csv-to-table CSV TABLE          write a table file from CSV ('-': standard input)\n"
    "  calendar FILE                   print a calendar file's header and lines\n"
    "  build [OPTIONS] --out PREFIX    build the buffers of a request carrying a table,\n"
    "                                  calendar, list or selection list\n"
    "\n"
    "options:\n"
    "  --server NAME      the daemon's transport name (default MO_QUORUNIX_SERVER)\n"
    "  --host NODE        the daemon on host NODE, through the broker (TEV_URL)\n"
    "  --timeout SECONDS  wait this long for each reply buffer (default 10)\n"
    "  --user NAME        the client user name of requests (default MOX_QUORUSER,\n"
    "                     else the caller's login name)\n"
    "  --json             machine-readable output\n"
    "\n"
    "The transport directory is TEV_DIR (default /tmp/tev). Exit status: 0 done,\n"
    "1 failed, 2 usage error, 3 the daemon answered with a non-zero return code,\n"
    "4 daemon not running, 5 no reply in time. 'quorctl COMMAND --help' describes\n"
    "one command.\n";

// How long "hosts" gathers answers.
constexpr int kHostsWindowMs = 1000;

struct CommandHelp {
  const char* name;
  const char* text;
};

constexpr CommandHelp kHelp[] = {
    {"status",
     "usage: quorctl status [--full]\n"
     "Asks for the brief status report or, with --full, the full one, and prints\n"
     "its lines. A long report arrives in several buffers; they are joined in\n"
     "order. JSON: {\"type\",\"buffers\",\"lines\"}. Exits 3 when the daemon answers\n"
     "with an error instead, 5 when no reply comes within the timeout.\n"},
    {"hosts",
     "usage: quorctl hosts\n"
     "Asks the daemon on this host and, with a broker (TEV_URL), the daemons on\n"
     "every host for their brief status, and prints one line per daemon that\n"
     "answers within a second (or the timeout, when shorter): node, name, pid\n"
     "and start time, sorted by node. JSON: [{\"node\",\"name\",\"pid\",\"started\"}].\n"
     "Exits 5 when none answers.\n"},
    {"refresh",
     "usage: quorctl refresh [PATH]\n"
     "Makes the daemon re-read its configuration: the default file, or PATH.\n"
     "Prints 'RC n: message' (JSON: {\"rc\",\"message\"}); exits 3 when the return\n"
     "code is not 0.\n"},
    {"check-config",
     "usage: quorctl check-config [PATH]\n"
     "Reads the configuration file (PATH, else $MOXGLBL0000/quor/etc/quor.config)\n"
     "and the object and language maps it names with the daemon's own code, as\n"
     "a start or a refresh would, without asking the daemon. Prints every\n"
     "message the daemon would log (each bad line with its file and line\n"
     "number), then whether the daemon would load it. Exits 3 when the daemon\n"
     "would refuse it, 2 when MOXGLBL0000 is not set. Run it as root: the\n"
     "daemon reads the files as root.\n"},
    {"cleanup",
     "usage: quorctl cleanup\n"
     "Asks the daemon to sweep finished and overdue agents. The daemon sends no\n"
     "reply; quorctl reports that the request was delivered.\n"},
    {"terminate",
     "usage: quorctl terminate\n"
     "Stops the daemon in order; running agents are left alone. No reply comes;\n"
     "quorctl reports that the request was delivered.\n"},
    {"killall",
     "usage: quorctl killall\n"
     "Stops every running agent, then the daemon. No reply comes; quorctl reports\n"
     "that the request was delivered.\n"},
    {"decode",
     "usage: quorctl decode FILE [--wire|--plain] [--text]\n"
     "Prints the segments of the message buffer in FILE ('-': standard input):\n"
     "tag, offset and declared length, items as NAME=value, bare strings quoted,\n"
     "non-printing bytes escaped, and every framing problem with its offset. A\n"
     "buffer in wire form is recognised and unscrambled; --wire and --plain force\n"
     "the form. --text prints the buffer in the raw text form instead, ready to\n"
     "edit and send with 'quorctl raw'. Exits 1 when the buffer has problems.\n"},
    {"raw",
     "usage: quorctl raw [FILE|-] [--expect-reply|--no-reply] [--save OUT]\n"
     "       quorctl raw --file BUFFER [--wire|--plain] [--expect-reply|--no-reply]\n"
     "Sends a request written in the raw text form (read from FILE, or standard\n"
     "input) or, with --file, the message buffer in BUFFER, its length prefix\n"
     "rewritten; prints every reply buffer decoded. Waits for a reply unless the\n"
     "request's type is C, T or K; --expect-reply and --no-reply decide instead.\n"
     "--save OUT writes the plain buffer to OUT instead of sending it.\n"
     "The text form, one directive a line ('#' starts a comment line):\n"
     "  header [TYPE [CONT]]   transaction header of this process\n"
     "  segment TAG [LENGTH]   open a segment (LENGTH: write this length instead)\n"
     "  item NAME [VALUE]      a name/value item\n"
     "  string [TEXT]          a bare string\n"
     "  end                    close the segment\n"
     "  trailer Y|N            trailer and ZZZEOD\n"
     "  eod                    ZZZEOD alone\n"
     "Escapes: \\n \\t \\r \\\\ \\0 \\xNN.\n"},
    {"login",
     "usage: quorctl login [--password-stdin]\n"
     "Logs the client user in: a login request for the object LOGON, whose agent\n"
     "accepts the user when the account exists (and, with --password-stdin, when\n"
     "the system accepts the password read from the first line of standard\n"
     "input). Waits for the agent's answer; exits 3 when the login is refused.\n"},
    {"logoff",
     "usage: quorctl logoff\n"
     "Logs the client user off: the daemon stops the user's login process.\n"},
    {"run",
     "usage: quorctl run OBJECT COMMAND [--table FILE.csv | --calendar FILE | --list FILE]\n"
     "                   [--select 'NAME OP VALUE']... [--format F] [--date-format F]\n"
     "                   [--language L]\n"
     "Sends a service request ('S') for OBJECT with COMMAND, carrying the data\n"
     "and selection list given, over as many buffers as it needs, and waits up\n"
     "to the timeout for the agent's answer: prints its list lines and exits 3\n"
     "when its return code (or the daemon's refusal) is not 0.\n"},
    {"util",
     "usage: quorctl util COMMAND...\n"
     "Sends a utility request whose command is COMMAND (the words joined by\n"
     "blanks, run by /bin/sh) and waits, up to the timeout, for the utility\n"
     "agent's answer: prints the command's output and exits 3 with the return\n"
     "code when the command failed or the daemon refused the request (for\n"
     "example, when a login is required). JSON: {\"rc\",\"message\",\"output\"}.\n"},
    {"table-to-csv",
     "usage: quorctl table-to-csv TABLE\n"
     "Prints the rows of the table file TABLE as CSV, one row a line; a value\n"
     "that is empty or holds a comma, a double quote, a line break or a leading\n"
     "or trailing blank is quoted. Exits 1 at a damaged record.\n"},
    {"csv-to-table",
     "usage: quorctl csv-to-table CSV TABLE\n"
     "Writes the rows of the CSV file ('-': standard input) as the table file\n"
     "TABLE. Every row needs the same number of values, each at most 259 bytes.\n"
     "The CSV is read a piece at a time; TABLE is replaced only once it is\n"
     "complete, so a conversion that fails leaves it as it was.\n"},
    {"calendar",
     "usage: quorctl calendar FILE\n"
     "Prints the header fields of the calendar file FILE (PI, CU, UU, DS, RL,\n"
     "YN, FX, UT, DO, the data offset) and its lines as they would be sent.\n"
     "JSON: the fields, \"data_offset\" and \"lines\".\n"},
    {"build",
     "usage: quorctl build [--type T] [--object OBJ] [--command CMD]\n"
     "                     [--select 'NAME OP VALUE']... [--table FILE.csv |\n"
     "                     --calendar FILE | --list FILE] --out PREFIX\n"
     "Builds the request buffers of a command request (type T, default S) for\n"
     "object OBJ: the selection list, and the table, calendar or list split\n"
     "over as many buffers as it needs. Writes them to PREFIX.1, PREFIX.2, ...;\n"
     "send them in order with 'quorctl raw --file PREFIX.N'.\n"},
};

const char* command_help(const std::string& name) {
  for (const auto& h : kHelp)
    if (name == h.name) return h.text;
  return nullptr;
}

struct Options {
  CtlTarget target;
  bool json = false;
  bool help = false;
  std::string command;
  std::string user;                                         // --user
  std::vector<std::string> args;                            // positional
  std::vector<std::pair<std::string, std::string>> flags;   // command options, with any value
};

// Options that take a value, besides the global ones.
bool takes_value(const std::string& name) {
  for (const char* n : {"--file", "--save", "--type", "--object", "--command", "--select", "--table", "--calendar",
                        "--list", "--out", "--format", "--date-format", "--language"})
    if (name == n) return true;
  return false;
}

std::optional<Options> parse(int argc, char** argv, std::string& error) {
  Options o;
  bool options_end = false;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (options_end || a.size() < 2 || a[0] != '-' || (a[1] != '-' && a != "-h")) {
      if (o.command.empty())
        o.command = a;
      else
        o.args.push_back(a);
      continue;
    }
    if (a == "--") {
      options_end = true;
      continue;
    }
    std::string name = a, value;
    bool has_value = false;
    if (std::size_t eq = a.find('='); eq != std::string::npos) {
      name = a.substr(0, eq);
      value = a.substr(eq + 1);
      has_value = true;
    }
    bool needs_value = name == "--server" || name == "--host" || name == "--timeout" || name == "--user" || takes_value(name);
    if (needs_value && !has_value) {
      if (i + 1 >= argc) {
        error = name + " needs a value";
        return std::nullopt;
      }
      value = argv[++i];
      has_value = true;
    } else if (!needs_value && has_value) {
      error = name + " takes no value";
      return std::nullopt;
    }
    if (name == "--help" || name == "-h") {
      o.help = true;
    } else if (name == "--json") {
      o.json = true;
    } else if (name == "--user") {
      if (value.empty()) {
        error = "--user needs a name";
        return std::nullopt;
      }
      o.user = value;
    } else if (name == "--server") {
      if (value.empty()) {
        error = "--server needs a name";
        return std::nullopt;
      }
      o.target.server = value;
    } else if (name == "--host") {
      if (value.empty() || value.size() > kTevMaxSystemId || value == kTevEveryNode) {
        error = "--host needs a node name of at most 64 characters";
        return std::nullopt;
      }
      o.target.node = value;
    } else if (name == "--timeout") {
      char* end = nullptr;
      double secs = std::strtod(value.c_str(), &end);
      if (end == value.c_str() || *end != '\0' || !std::isfinite(secs) || secs <= 0 ||
          secs > 86400) {
        error = "--timeout takes a number of seconds above 0 and at most 86400";
        return std::nullopt;
      }
      o.target.timeout_ms = static_cast<int>(std::ceil(secs * 1000));
    } else {
      o.flags.emplace_back(name, value);
    }
  }
  return o;
}

// Fails with the first command option not in `allowed`.
bool only_flags(const Options& o, std::initializer_list<const char*> allowed, std::string& error) {
  for (const auto& f : o.flags) {
    bool ok = false;
    for (const char* a : allowed) ok = ok || f.first == a;
    if (!ok) {
      error = "unknown option " + f.first + " for " + o.command;
      return false;
    }
  }
  return true;
}

bool has_flag(const Options& o, const char* name) {
  for (const auto& f : o.flags)
    if (f.first == name) return true;
  return false;
}

std::optional<std::string> flag_value(const Options& o, const char* name) {
  for (const auto& f : o.flags)
    if (f.first == name) return f.second;
  return std::nullopt;
}

std::optional<std::string> read_all(const std::string& path) {
  std::ostringstream s;
  if (path == "-") {
    s << std::cin.rdbuf();
    return s.str();
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  s << in.rdbuf();
  if (in.bad()) return std::nullopt;
  return s.str();
}

int usage_error(const std::string& why) {
  std::fprintf(stderr, "quorctl: %s (quorctl --help for usage)\n", why.c_str());
  return kCtlUsage;
}

int finish(const CtlOutcome& o) {
  std::fwrite(o.out.data(), 1, o.out.size(), stdout);
  std::fflush(stdout);
  if (o.status != kCtlOk) std::fprintf(stderr, "quorctl: %s\n", o.error.c_str());
  return o.status;
}

std::optional<CtlForm> form_of(const Options& o, std::string& error) {
  bool wire = has_flag(o, "--wire"), plain = has_flag(o, "--plain");
  if (wire && plain) {
    error = "--wire and --plain exclude each other";
    return std::nullopt;
  }
  return wire ? CtlForm::Wire : plain ? CtlForm::Plain : CtlForm::Auto;
}

int run_decode(const Options& o) {
  std::string error;
  if (!only_flags(o, {"--wire", "--plain", "--text"}, error)) return usage_error(error);
  auto form = form_of(o, error);
  if (!form) return usage_error(error);
  if (o.args.size() != 1) return usage_error("decode takes one FILE");
  if (o.json && has_flag(o, "--text")) return usage_error("--json and --text exclude each other");
  auto data = read_all(o.args[0]);
  if (!data) return finish({kCtlFailed, "", "cannot read " + o.args[0]});
  CtlRender render = o.json ? CtlRender::Json : has_flag(o, "--text") ? CtlRender::Text : CtlRender::Human;
  return finish(ctl_decode_bytes(*data, *form, render));
}

int run_raw(const Options& o) {
  std::string error;
  if (!only_flags(o, {"--file", "--wire", "--plain", "--expect-reply", "--no-reply", "--save"},
                  error))
    return usage_error(error);
  if (has_flag(o, "--expect-reply") && has_flag(o, "--no-reply"))
    return usage_error("--expect-reply and --no-reply exclude each other");
  auto form = form_of(o, error);
  if (!form) return usage_error(error);
  std::optional<bool> expect;
  if (has_flag(o, "--expect-reply")) expect = true;
  if (has_flag(o, "--no-reply")) expect = false;

  std::vector<char> plain;
  if (auto binary = flag_value(o, "--file")) {
    if (!o.args.empty()) return usage_error("raw takes either a text FILE or --file BUFFER");
    auto bytes = read_all(*binary);
    if (!bytes) return finish({kCtlFailed, "", "cannot read " + *binary});
    plain = ctl_load(*bytes, *form).plain;
  } else {
    if (*form != CtlForm::Auto) return usage_error("--wire and --plain go with --file");
    if (o.args.size() > 1) return usage_error("raw takes at most one FILE");
    std::string source = o.args.empty() ? "-" : o.args[0];
    auto text = read_all(source);
    if (!text) return finish({kCtlFailed, "", "cannot read " + source});
    CtlRequest request = ctl_parse_text(*text);
    if (!request.error.empty())
      return finish({kCtlUsage, "", (source == "-" ? "standard input" : source) + ": " + request.error});
    plain = std::move(request.bytes);
  }
  if (auto save = flag_value(o, "--save")) {
    std::ofstream out(*save, std::ios::binary | std::ios::trunc);
    out.write(plain.data(), static_cast<std::streamsize>(plain.size()));
    out.close();
    if (!out) return finish({kCtlFailed, "", "cannot write " + *save});
    return finish({kCtlOk, o.json ? "{\"saved\":" + std::to_string(plain.size()) + "}\n"
                                  : "wrote " + std::to_string(plain.size()) + " bytes to " + *save + "\n",
                   ""});
  }
  return finish(ctl_raw(o.target, std::move(plain), expect, o.json));
}

// The data and selection options shared by build and run; a usage error
// in `error`.
bool request_options(const Options& o, CtlBuild& spec, std::string& error) {
  int sources = 0;
  for (auto [flag, kind] : {std::pair{"--table", CtlBuild::Data::Table}, {"--calendar", CtlBuild::Data::Calendar},
                            {"--list", CtlBuild::Data::List}})
    if (auto file = flag_value(o, flag)) {
      spec.data = kind;
      spec.source = *file;
      ++sources;
    }
  if (sources > 1) {
    error = "--table, --calendar and --list exclude each other";
    return false;
  }
  for (const auto& [name, value] : o.flags) {
    if (name != "--select") continue;
    std::istringstream words(value);
    std::array<std::string, 3> s;
    words >> s[0] >> s[1];
    std::getline(words >> std::ws, s[2]);
    if (s[0].empty() || s[1].empty()) {
      error = "--select takes 'NAME OP VALUE'";
      return false;
    }
    spec.selections.push_back(std::move(s));
  }
  spec.format = flag_value(o, "--format").value_or("");
  spec.date_format = flag_value(o, "--date-format").value_or("");
  spec.language = flag_value(o, "--language").value_or("");
  return true;
}

int run_build(const Options& o) {
  std::string error;
  if (!only_flags(o, {"--type", "--object", "--command", "--select", "--table", "--calendar", "--list", "--out",
                      "--format", "--date-format", "--language"},
                  error))
    return usage_error(error);
  if (!o.args.empty()) return usage_error("build takes options only");
  auto out = flag_value(o, "--out");
  if (!out || out->empty()) return usage_error("build needs --out PREFIX");
  CtlBuild spec;
  spec.type = flag_value(o, "--type").value_or("S");
  if (spec.type.size() != 1) return usage_error("--type takes one letter");
  spec.object = flag_value(o, "--object").value_or("");
  spec.command = flag_value(o, "--command").value_or("");
  if (!request_options(o, spec, error)) return usage_error(error);
  return finish(ctl_build_files(spec, *out, o.json));
}

int run_run(const Options& o, const std::function<void()>& waiting) {
  std::string error;
  if (!only_flags(o, {"--select", "--table", "--calendar", "--list", "--format", "--date-format", "--language"},
                  error))
    return usage_error(error);
  if (o.args.size() != 2) return usage_error("run takes OBJECT and COMMAND");
  CtlBuild spec;
  spec.object = o.args[0];
  spec.command = o.args[1];
  if (!request_options(o, spec, error)) return usage_error(error);
  return finish(ctl_agent_request(o.target, spec, o.json, waiting));
}

int run_file_tool(const Options& o) {
  std::string error;
  if (!only_flags(o, {}, error)) return usage_error(error);
  if (o.command == "csv-to-table") {
    if (o.args.size() != 2) return usage_error("csv-to-table takes CSV and TABLE");
    int fd = o.args[0] == "-" ? 0 : open(o.args[0].c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return finish({kCtlFailed, "", "cannot read " + o.args[0]});
    CtlCsvReader csv(fd);
    return finish(ctl_csv_to_table(csv, o.args[1], o.json));
  }
  if (o.args.size() != 1) return usage_error(o.command + " takes one FILE");
  if (o.command == "calendar") return finish(ctl_calendar_show(o.args[0], o.json));
  if (o.json) return usage_error("table-to-csv has no JSON form");
  return finish(ctl_table_to_csv(o.args[0]));
}

}  // namespace

int main(int argc, char** argv) {
  std::string error;
  auto parsed = parse(argc, argv, error);
  if (!parsed) return usage_error(error);
  const Options& o = *parsed;
  // Every request this process builds names this client user.
  if (!o.user.empty()) setenv("MOX_QUORUSER", o.user.c_str(), 1);
  if (o.command.empty()) {
    if (o.help) {
      std::fputs(kUsage, stdout);
      return kCtlOk;
    }
    return usage_error("no command given");
  }
  const char* help = command_help(o.command);
  if (help == nullptr) return usage_error("unknown command '" + o.command + "'");
  if (o.help) {
    std::fputs(help, stdout);
    return kCtlOk;
  }

  if (o.command == "decode") return run_decode(o);
  if (o.command == "raw") return run_raw(o);
  if (o.command == "build") return run_build(o);
  auto waiting = [] {
    if (isatty(2)) std::fputs("quorctl: request sent, waiting for the agent's answer...\n", stderr);
  };
  if (o.command == "login") {
    if (!only_flags(o, {"--password-stdin"}, error)) return usage_error(error);
    if (!o.args.empty()) return usage_error("login takes no arguments");
    std::optional<std::string> password;
    if (has_flag(o, "--password-stdin")) {
      std::string line;
      std::getline(std::cin, line);
      password = line;
    }
    return finish(ctl_login(o.target, password, o.json, waiting));
  }
  if (o.command == "logoff") {
    if (!only_flags(o, {}, error) || !o.args.empty()) return usage_error(error.empty() ? "logoff takes no arguments" : error);
    return finish(ctl_logoff(o.target, o.json, waiting));
  }
  if (o.command == "run") return run_run(o, waiting);
  if (o.command == "util") {
    if (!only_flags(o, {}, error)) return usage_error(error);
    if (o.args.empty()) return usage_error("util needs a COMMAND");
    std::string line;
    for (const std::string& a : o.args) line += (line.empty() ? "" : " ") + a;
    return finish(ctl_util(o.target, {line}, o.json, waiting));
  }
  if (o.command == "table-to-csv" || o.command == "csv-to-table" || o.command == "calendar") return run_file_tool(o);
  if (o.command == "hosts") {
    if (!only_flags(o, {}, error)) return usage_error(error);
    if (!o.args.empty()) return usage_error("hosts takes no arguments");
    return finish(ctl_hosts(o.target, std::min(o.target.timeout_ms, kHostsWindowMs), o.json));
  }
  if (o.command == "status") {
    if (!only_flags(o, {"--full"}, error)) return usage_error(error);
    if (!o.args.empty()) return usage_error("status takes no arguments");
    return finish(ctl_status(o.target, has_flag(o, "--full"), o.json));
  }
  if (!only_flags(o, {}, error)) return usage_error(error);
  if (o.command == "check-config") {
    if (o.args.size() > 1) return usage_error("check-config takes at most one PATH");
    if (o.json) return usage_error("check-config has no JSON form");
    std::optional<std::string> path;
    if (!o.args.empty()) path = o.args[0];
    return finish(ctl_check_config(path));
  }
  if (o.command == "refresh") {
    if (o.args.size() > 1) return usage_error("refresh takes at most one PATH");
    std::optional<std::string> path;
    if (!o.args.empty()) path = o.args[0];
    return finish(ctl_refresh(o.target, path, o.json));
  }
  if (!o.args.empty()) return usage_error(o.command + " takes no arguments");
  char type = o.command == "cleanup" ? 'C' : o.command == "terminate" ? 'T' : 'K';
  return finish(ctl_notify(o.target, type, o.json));
}
