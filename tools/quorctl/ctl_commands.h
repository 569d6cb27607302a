// quorctl's commands: each sends its request (or reads its buffer), checks
// what came back and renders the result for a person or as JSON. They print
// nothing themselves; main() writes `out` to standard output and `error` to
// standard error.
#pragma once

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "ctl_decode.h"
#include "ctl_request.h"

// Exit statuses.
inline constexpr int kCtlOk = 0;
inline constexpr int kCtlFailed = 1;       // transport error, bad reply, unreadable file, bad buffer
inline constexpr int kCtlUsage = 2;        // bad command line or raw text
inline constexpr int kCtlDaemonError = 3;  // the daemon answered with a non-zero return code
inline constexpr int kCtlNotRunning = 4;   // nothing registered under the server name
inline constexpr int kCtlNoReply = 5;      // a reply buffer did not arrive within the timeout

struct CtlOutcome {
  int status = kCtlOk;
  std::string out;    // standard output
  std::string error;  // one line (no newline) when status is not 0
};

// status [--full]: request 'B' (or 'F') and the report lines of every reply
// buffer, in order.
CtlOutcome ctl_status(const CtlTarget& target, bool full, bool json);

// hosts: a brief status request to the daemon on this host and on every
// host of the broker; one line per daemon that answers within `window_ms`
// (node, name, pid, start time), sorted by node.
CtlOutcome ctl_hosts(const CtlTarget& target, int window_ms, bool json);

// refresh [PATH]: request 'R' with PATH in a "ZZZFIL" segment when given;
// the return code and message of the reply.
CtlOutcome ctl_refresh(const CtlTarget& target, const std::optional<std::string>& path, bool json);

// cleanup / terminate / killall: request 'C', 'T' or 'K'; no reply comes.
CtlOutcome ctl_notify(const CtlTarget& target, char type, bool json);

// raw: send a plain buffer as it is (its length prefix rewritten) and decode
// every reply buffer. Without `expect_reply`, waits for a reply unless the
// request's type is one the daemon never answers (C, T, K).
CtlOutcome ctl_raw(const CtlTarget& target, std::vector<char> plain,
                   std::optional<bool> expect_reply, bool json);

struct CtlBuild;

// A command request built from `spec`, sent, and the agent's answer (or the
// daemon's refusal) awaited: the output lines it carries, and its return
// code (not 0: kCtlDaemonError).
CtlOutcome ctl_agent_request(const CtlTarget& target, const CtlBuild& spec, bool json,
                             const std::function<void()>& waiting = {});

// login: an 'L' request for object LOGON (with the password as the
// selection entry PASSWORD when given); logoff: an 'O' request. The client
// user is MOX_QUORUSER, or the login name of the caller.
CtlOutcome ctl_login(const CtlTarget& target, const std::optional<std::string>& password, bool json,
                     const std::function<void()>& waiting = {});
CtlOutcome ctl_logoff(const CtlTarget& target, bool json, const std::function<void()>& waiting = {});

// util COMMAND...: a 'U' request whose command list is `commands`; prints
// what the utility agent answers (the commands' output), and fails with the
// agent's or the daemon's return code when it is not 0.
CtlOutcome ctl_util(const CtlTarget& target, const std::vector<std::string>& commands, bool json,
                    const std::function<void()>& waiting = {});

// check-config [PATH]: reads the configuration (PATH, else the
// installation's) and its maps as a load would, without a daemon. `out`
// holds every message the load would log ("QUOR0125E Line 3: ..."), then a
// verdict line when it would load; a load that would fail is
// kCtlDaemonError, with the reason in `error`.
CtlOutcome ctl_check_config(const std::optional<std::string>& path);

enum class CtlRender { Human, Json, Text };

// decode: the buffer in `bytes`, in the given form.
CtlOutcome ctl_decode_bytes(std::span<const char> bytes, CtlForm form, CtlRender render);
