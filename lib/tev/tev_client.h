// Client-side helper over the tev operations, for tools and tests: register
// under a private name, send one request and collect every reply buffer.
//
// A server answers a request with any number of CONV messages (partial
// replies, each of which the helper answers with "OK") followed by one DATA
// message carrying the request's conversation id (the last buffer).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tev.h"

struct TevReply {
  std::uint8_t kind = 0;             // kTevKindConv (partial) or kTevKindData (last)
  std::string sender;                // application name of the sender
  std::string node;                  // the sender's node
  std::vector<std::uint8_t> payload;
};

struct TevCallResult {
  int rc = 0;                        // 0: the DATA reply arrived; else as the feedback block says
  TevFeedback fb;                    // feedback of the failing operation
  std::vector<TevReply> replies;     // every buffer received, in arrival order
};

class TevClient {
 public:
  // Registers `name`, or "QUORCTL.<pid>" when empty. Check ok() / feedback().
  explicit TevClient(std::string name = {});
  ~TevClient();
  TevClient(const TevClient&) = delete;
  TevClient& operator=(const TevClient&) = delete;

  bool ok() const { return registered_; }

  // From now on, send only to names registered by root (TevRequireRootPeers).
  void require_root_peers() {
    if (registered_) TevRequireRootPeers(fb_, id_, true);
  }
  // From now on, address servers on `node` (empty: this host), through the
  // broker when it is another host's.
  void set_server_node(std::string node) { server_node_ = std::move(node); }
  // The identity block of server application `server` on the chosen node.
  TevIdentity server_identity(std::string_view server) const;
  const TevFeedback& feedback() const { return fb_; }
  const TevIdentity& identity() const { return id_; }

  // Send `payload` to application `server` as DATA with a fresh conversation
  // id, then collect replies: CONV messages are answered and kept, and the
  // call ends at the DATA message with the request's conversation id. Each
  // wait for the next buffer is limited to `timeout_ms` (RTMOUT when it runs
  // out; what arrived until then is in `replies`). With expect_reply false
  // the call returns right after the send.
  TevCallResult call(std::string_view server, const std::vector<std::uint8_t>& payload,
                     int timeout_ms, bool expect_reply = true);

  // Sends `payload` to application `server` on this host and, with a
  // broker, on every host, then gathers the DATA replies that arrive
  // within `window_ms` (partial ones are answered and dropped). rc is 0
  // when the request went out at least one way.
  TevCallResult call_everywhere(std::string_view server, const std::vector<std::uint8_t>& payload, int window_ms);

  // Collects what anyone sends to this client next (an agent answering a
  // request on its own, or the daemon refusing it): CONV messages are
  // answered and kept, and the wait ends at the first DATA message.
  TevCallResult wait_reply(int timeout_ms);

 private:
  void collect(TevCallResult& result, int timeout_ms, std::optional<std::uint32_t> conversation);

  TevIdentity id_;
  TevFeedback fb_;
  bool registered_ = false;
  std::string server_node_;
  std::uint32_t next_conv_ = 1;
};
