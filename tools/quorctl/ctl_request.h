// Building quorctl's requests and exchanging them with the daemon.
#pragma once

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ctl_decode.h"
#include "ctl_text.h"
#include "quortev.h"
#include "tev_client.h"

// Where requests go and how long to wait for each reply buffer.
struct CtlTarget {
  std::string server = std::string(kServerName);
  int timeout_ms = 10000;
  bool root_server = false;  // send only to a server registered by root (a request carrying a secret)
  std::string node{};        // the server's host (empty: this one), reached through the broker
};

// A plain request: a transaction header of `type` for this process, a
// "ZZZFIL" segment holding `path` when given, and the trailer "N".
CtlRequest ctl_build_request(std::string_view type, std::optional<std::string_view> path = {});

// The message type of a plain request (first character of COD in its
// transaction header), 0 when it has none.
char ctl_request_type(const std::vector<char>& plain);

// Why an exchange failed.
enum class CtlFailure {
  None,
  Request,     // the request cannot be sent as it is
  Register,    // quorctl could not register with the transport
  NotRunning,  // no receiver at the server name
  NoReply,     // a reply buffer did not arrive in time
  Transport,   // any other transport failure
};

struct CtlReply {
  bool partial = false;  // a CONV buffer (more follow) rather than the final DATA
  std::string sender;    // the sender's application name
  CtlDecoded decoded;    // unscrambled and decoded
  std::string node{};    // the sender's node
};

struct CtlExchange {
  CtlFailure failure = CtlFailure::None;
  std::string error;               // one line, when it failed
  std::vector<CtlReply> replies;   // in arrival order (also those before a failure)

  bool ok() const { return failure == CtlFailure::None; }
};

// Seals `plain` (rewriting its length prefix to its size) and sends it to the
// target; with `expect_reply`, collects every reply buffer up to the final
// one. Partial buffers are answered by the transport client as they come.
CtlExchange ctl_exchange(const CtlTarget& target, std::vector<char> plain, bool expect_reply);

// Sends `plain` to the target's server name on this host and on every host
// of the broker, and gathers the final replies that come within `window_ms`.
CtlExchange ctl_exchange_everywhere(const CtlTarget& target, std::vector<char> plain, int window_ms);

// A command request sent a buffer at a time, as each is built, then its
// answer awaited. Registers with the transport when made.
class CtlTransaction {
 public:
  explicit CtlTransaction(const CtlTarget& target);

  // Seals `plain` in place and sends it, without waiting. False when it
  // cannot be sent (or the registration failed); failure() says why.
  bool send(std::span<char> plain);

  // After the last buffer: the answer, the agent's (which comes on its own,
  // from the agent) or the daemon's refusal. `waiting`, when given, is
  // called first (to show progress).
  CtlExchange answer(const std::function<void()>& waiting = {});

  const CtlExchange& failure() const { return failure_; }

 private:
  CtlTarget target_;
  TevClient client_;
  CtlExchange failure_;
};
