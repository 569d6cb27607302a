#include "ctl_commands.h"

#include <cstdint>
#include <optional>
#include <span>

#include "ctl_files.h"
#include "quortran.h"

namespace {

int status_of(CtlFailure f) {
  switch (f) {
    case CtlFailure::None: return kCtlOk;
    case CtlFailure::NotRunning: return kCtlNotRunning;
    case CtlFailure::NoReply: return kCtlNoReply;
    default: return kCtlFailed;
  }
}

CtlOutcome failed(int status, std::string error) {
  CtlOutcome o;
  o.status = status;
  o.error = std::move(error);
  return o;
}

std::string buffer_name(std::size_t i, std::size_t n) {
  return "reply buffer " + std::to_string(i + 1) + " of " + std::to_string(n);
}

// A return code as the daemon writes it: an optional sign and digits.
std::optional<long> parse_code(std::string_view text) {
  std::string_view digits = text;
  if (!digits.empty() && (digits[0] == '-' || digits[0] == '+')) digits.remove_prefix(1);
  if (digits.empty() || digits.size() > 9 ||
      digits.find_first_not_of("0123456789") != std::string_view::npos)
    return std::nullopt;
  return buf_decimal(text);
}

// The checks every reply needs before its contents mean anything: each
// buffer is well framed, every partial buffer announces more (trailer MD
// "Y") and the final one does not. Empty when all is well.
std::string check_replies(const std::vector<CtlReply>& replies) {
  if (replies.empty()) return "no reply buffer arrived";
  for (std::size_t i = 0; i < replies.size(); ++i) {
    const CtlDecoded& d = replies[i].decoded;
    std::string name = buffer_name(i, replies.size());
    if (!d.ok()) return name + " is damaged: " + d.problems.front();
    const CtlSegment* trl = ctl_find(d, "ZZZTRL");
    std::optional<std::string> more = trl ? ctl_item(*trl, "MD") : std::nullopt;
    if (!more) return name + " has no trailer MD item";
    bool last = i + 1 == replies.size();
    if (last && *more == "Y") return "the reply ends with a buffer whose trailer says more follow";
    if (!last && *more != "Y")
      return name + " is partial but its trailer says MD \"" + ctl_escape(*more) + "\"";
  }
  return {};
}

struct ReturnCode {
  long rc = 0;
  std::string message;
};

// The first "ZZZRET" segment of the reply, if any; an error when it is there
// but unusable.
std::optional<ReturnCode> find_return_code(const std::vector<CtlReply>& replies,
                                           std::string& error) {
  for (const CtlReply& r : replies) {
    const CtlSegment* ret = ctl_find(r.decoded, "ZZZRET");
    if (ret == nullptr) continue;
    std::optional<std::string> rc = ctl_item(*ret, "RC");
    if (!rc) {
      error = "the reply's ZZZRET segment has no RC item";
      return std::nullopt;
    }
    std::optional<long> code = parse_code(*rc);
    if (!code) {
      error = "the reply's return code \"" + ctl_escape(*rc) + "\" is not a number";
      return std::nullopt;
    }
    return ReturnCode{*code, ctl_item(*ret, "RM").value_or("")};
  }
  return std::nullopt;
}

std::string with_newline(std::string text) {
  if (text.empty() || text.back() != '\n') text.push_back('\n');
  return text;
}

std::string rc_json(const ReturnCode& rc) {
  return "{\"rc\":" + std::to_string(rc.rc) + ",\"message\":" + ctl_json_string(rc.message) + "}\n";
}

std::string rc_human(const ReturnCode& rc) {
  return with_newline("RC " + std::to_string(rc.rc) + (rc.message.empty() ? "" : ": " + rc.message));
}

// The message up to its first line break, for the one-line error.
std::string first_line(const std::string& text) { return ctl_escape(text.substr(0, text.find('\n'))); }

const char* request_name(char type) {
  switch (type) {
    case 'C': return "clean-up";
    case 'T': return "terminate";
    case 'K': return "kill-all";
    default: return "request";
  }
}

}  // namespace

CtlOutcome ctl_status(const CtlTarget& target, bool full, bool json) {
  std::string type = full ? "F" : "B";
  CtlExchange ex = ctl_exchange(target, ctl_build_request(type).bytes, true);
  if (!ex.ok()) return failed(status_of(ex.failure), ex.error);
  if (std::string bad = check_replies(ex.replies); !bad.empty()) return failed(kCtlFailed, bad);

  std::string error;
  std::optional<ReturnCode> rc = find_return_code(ex.replies, error);
  if (!error.empty()) return failed(kCtlFailed, error);
  if (rc && rc->rc != 0) {
    CtlOutcome o = failed(kCtlDaemonError, "the daemon refused the status request: RC " +
                                               std::to_string(rc->rc) + ": " + first_line(rc->message));
    o.out = json ? rc_json(*rc) : "";
    return o;
  }

  std::vector<std::string> lines;
  bool report = false;
  for (const CtlReply& r : ex.replies)
    for (const CtlSegment& s : r.decoded.segments)
      if (s.tag == "ZZZSTS") {
        report = true;
        lines.insert(lines.end(), s.strings.begin(), s.strings.end());
      }
  if (!report) return failed(kCtlFailed, "the reply holds no status report (no ZZZSTS segment)");

  CtlOutcome o;
  if (json) {
    o.out = "{\"type\":\"" + type + "\",\"buffers\":" + std::to_string(ex.replies.size()) +
            ",\"lines\":[";
    for (std::size_t i = 0; i < lines.size(); ++i) o.out += (i ? "," : "") + ctl_json_string(lines[i]);
    o.out += "]}\n";
  } else {
    for (const std::string& line : lines) o.out += with_newline(line);
  }
  return o;
}

CtlOutcome ctl_refresh(const CtlTarget& target, const std::optional<std::string>& path, bool json) {
  std::optional<std::string_view> p;
  if (path) p = *path;
  CtlRequest request = ctl_build_request("R", p);
  if (!request.error.empty()) return failed(kCtlUsage, request.error);
  CtlExchange ex = ctl_exchange(target, request.bytes, true);
  if (!ex.ok()) return failed(status_of(ex.failure), ex.error);
  if (std::string bad = check_replies(ex.replies); !bad.empty()) return failed(kCtlFailed, bad);

  std::string error;
  std::optional<ReturnCode> rc = find_return_code(ex.replies, error);
  if (!error.empty()) return failed(kCtlFailed, error);
  if (!rc) return failed(kCtlFailed, "the reply holds no return code (no ZZZRET segment)");
  CtlOutcome o;
  o.out = json ? rc_json(*rc) : rc_human(*rc);
  if (rc->rc != 0) {
    o.status = kCtlDaemonError;
    o.error = "refresh failed with RC " + std::to_string(rc->rc);
  }
  return o;
}

CtlOutcome ctl_notify(const CtlTarget& target, char type, bool json) {
  CtlExchange ex = ctl_exchange(target, ctl_build_request(std::string(1, type)).bytes, false);
  if (!ex.ok()) return failed(status_of(ex.failure), ex.error);
  CtlOutcome o;
  if (json)
    o.out = "{\"request\":\"" + std::string(1, type) + "\",\"server\":" +
            ctl_json_string(target.server) + ",\"delivered\":true}\n";
  else
    o.out = std::string(request_name(type)) + " request delivered to " + target.server + "\n";
  return o;
}

CtlOutcome ctl_raw(const CtlTarget& target, std::vector<char> plain,
                   std::optional<bool> expect_reply, bool json) {
  char type = ctl_request_type(plain);
  bool expect = expect_reply.value_or(type != 'C' && type != 'T' && type != 'K');
  CtlExchange ex = ctl_exchange(target, std::move(plain), expect);
  bool delivered = ex.ok() || !ex.replies.empty() || ex.failure == CtlFailure::NoReply;

  CtlOutcome o;
  std::size_t n = ex.replies.size();
  if (json) {
    o.out = "{\"server\":" + ctl_json_string(target.server) +
            ",\"delivered\":" + (delivered ? "true" : "false") +
            ",\"expect_reply\":" + (expect ? "true" : "false") + ",\"replies\":[";
    for (std::size_t i = 0; i < n; ++i)
      o.out += std::string(i ? "," : "") + "{\"kind\":\"" + (ex.replies[i].partial ? "CONV" : "DATA") +
               "\",\"sender\":" + ctl_json_string(ex.replies[i].sender) +
               ",\"buffer\":" + ctl_format_json(ex.replies[i].decoded) + "}";
    o.out += "]";
    if (!ex.ok()) o.out += ",\"error\":" + ctl_json_string(ex.error);
    o.out += "}\n";
  } else {
    if (delivered) o.out = "request delivered to " + target.server + "\n";
    for (std::size_t i = 0; i < n; ++i)
      o.out += "-- " + buffer_name(i, n) + ": " +
               (ex.replies[i].partial ? "partial (CONV)" : "final (DATA)") + " from " +
               ex.replies[i].sender + "\n" + ctl_format(ex.replies[i].decoded);
  }
  if (!ex.ok()) {
    o.status = status_of(ex.failure);
    o.error = ex.error;
    return o;
  }
  for (std::size_t i = 0; i < n; ++i)
    if (!ex.replies[i].decoded.ok()) {
      o.status = kCtlFailed;
      o.error = buffer_name(i, n) + " has framing problems";
      break;
    }
  return o;
}

CtlOutcome ctl_agent_request(const CtlTarget& target, const CtlBuild& spec, bool json,
                             const std::function<void()>& waiting) {
  // Each buffer goes out as soon as it is built; the transport is only
  // contacted once the first one is.
  std::optional<CtlTransaction> transaction;
  CtlBuildResult built = ctl_build_stream(spec, [&](std::span<char> plain) {
    if (!transaction) transaction.emplace(target);
    return transaction->send(plain);
  });
  if (transaction && !transaction->failure().ok())
    return failed(status_of(transaction->failure().failure), transaction->failure().error);
  if (!built.error.empty()) {
    if (built.delivered == 0) return failed(kCtlUsage, built.error);
    // The daemon holds part of the table: the transaction is cancelled, and
    // its refusal awaited, so that no agent starts on it.
    std::vector<char> cancel = ctl_cancel_request(spec);
    bool cancelled = transaction->send(cancel) && !transaction->answer().replies.empty();
    return failed(kCtlUsage, built.error + (cancelled ? " (the request was withdrawn)"
                                                      : " (the request could not be withdrawn)"));
  }
  if (!transaction) return failed(kCtlFailed, "the request has no buffer to send");
  CtlExchange ex = transaction->answer(waiting);
  if (!ex.ok()) return failed(status_of(ex.failure), ex.failure == CtlFailure::NoReply
                                                         ? "no answer from the agent within " +
                                                               std::to_string(target.timeout_ms / 1000) + " s"
                                                         : ex.error);
  if (std::string bad = check_replies(ex.replies); !bad.empty()) return failed(kCtlFailed, bad);
  std::string error;
  std::optional<ReturnCode> rc = find_return_code(ex.replies, error);
  if (!error.empty()) return failed(kCtlFailed, error);
  if (!rc) return failed(kCtlFailed, "the answer holds no return code (no ZZZRET segment)");

  std::string output;
  for (const CtlReply& r : ex.replies)
    for (const CtlSegment& s : r.decoded.segments)
      if (s.tag == "ZZZLST")
        for (const std::string& line : s.strings) output += line;
  CtlOutcome o;
  o.out = json ? "{\"rc\":" + std::to_string(rc->rc) + ",\"message\":" + ctl_json_string(rc->message) +
                     ",\"output\":" + ctl_json_string(output) + "}\n"
               : output;
  if (rc->rc != 0) {
    o.status = kCtlDaemonError;
    o.error = "RC " + std::to_string(rc->rc) + (rc->message.empty() ? "" : ": " + first_line(rc->message));
  }
  return o;
}

CtlOutcome ctl_util(const CtlTarget& target, const std::vector<std::string>& commands, bool json,
                    const std::function<void()>& waiting) {
  CtlBuild spec;
  spec.type = "U";
  spec.object = "MOUTIL";
  spec.data = CtlBuild::Data::Commands;
  spec.commands = commands;
  return ctl_agent_request(target, spec, json, waiting);
}

CtlOutcome ctl_login(const CtlTarget& target, const std::optional<std::string>& password, bool json,
                     const std::function<void()>& waiting) {
  CtlBuild spec;
  spec.type = "L";
  spec.object = "LOGON";
  spec.command = "LOGIN";
  CtlTarget to = target;
  if (password) {
    spec.selections.push_back({"PASSWORD", "=", *password});
    // A password goes only to the daemon as root registered it: a name in
    // the shared directory could be anybody's while the daemon is down.
    to.root_server = true;
  }
  CtlOutcome o = ctl_agent_request(to, spec, json, waiting);
  if (o.status == kCtlOk && !json) o.out = "logged in\n";
  return o;
}

CtlOutcome ctl_logoff(const CtlTarget& target, bool json, const std::function<void()>& waiting) {
  CtlBuild spec;
  spec.type = "O";
  spec.object = "LOGON";
  spec.command = "LOGOFF";
  CtlOutcome o = ctl_agent_request(target, spec, json, waiting);
  if (o.status == kCtlOk && !json) o.out = "logged off\n";
  return o;
}

CtlOutcome ctl_decode_bytes(std::span<const char> bytes, CtlForm form, CtlRender render) {
  CtlLoaded loaded = ctl_load(bytes, form);
  const CtlDecoded& d = loaded.decoded;
  CtlOutcome o;
  switch (render) {
    case CtlRender::Human: o.out = ctl_format(d); break;
    case CtlRender::Json: o.out = ctl_format_json(d) + "\n"; break;
    case CtlRender::Text: o.out = ctl_to_text(d); break;
  }
  if (!d.ok()) {
    o.status = kCtlFailed;
    o.error = std::to_string(d.problems.size()) + " framing problem(s), the first: " +
              d.problems.front();
  }
  return o;
}
