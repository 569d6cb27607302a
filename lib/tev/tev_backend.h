// The seam between the transport operations and a backend. The operations
// (tev.cpp) keep the registrations, conversations and queues; a backend only
// moves single messages between registered names.
#pragma once

#include <poll.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "tev.h"

// One message as a backend delivers it. The payload stays valid until the
// next receive on the same endpoint.
struct TevIncoming {
  std::uint8_t kind = 0;
  std::uint32_t conversation = 0;
  TevIdentity sender;               // as established by the backend, not as claimed
  TevInquiry inquiry;
  std::span<const std::uint8_t> payload;
};

constexpr int kTevMaxWaitFds = 4;

class TevEndpoint {
 public:
  virtual ~TevEndpoint() = default;
  // Sends one message to the registration named by `remote`.
  virtual int send(TevFeedback& fb, std::uint8_t kind, std::uint32_t conversation,
                   const TevIdentity& local, const TevIdentity& remote,
                   std::span<const std::uint8_t> payload) = 0;
  // Waits up to `timeout_ms` (-1: no limit) for the next well-formed message
  // whose payload fits `max_payload`; malformed ones are dropped and counted
  // in fb.FB_Dropped. Fails with RCVCNC on a signal, RTMOUT on time-out.
  virtual int receive(TevFeedback& fb, TevIncoming& out, std::size_t max_payload,
                      int timeout_ms) = 0;
  // How long a send may wait for a peer whose queue is full (0: not at all).
  virtual void set_send_wait(int milliseconds) = 0;
  // Sends only to registrations made by root.
  virtual void set_root_peers_only(bool on) = 0;
  // Fills `fds` (room for kTevMaxWaitFds) with what a wait for this
  // endpoint polls (an entry with fd -1 is skipped) and returns how many
  // entries it used; once any is ready, a receive may find something. A
  // receive with time-out 0 never waits.
  virtual int wait_fds(pollfd* fds) const = 0;
};

// Registers `id`'s application name with the local datagram backend.
std::unique_ptr<TevEndpoint> tev_unix_open(TevFeedback& fb, const TevIdentity& id);

// Registers `id` with the broker named by TEV_URL (see tev_nats.cpp).
std::unique_ptr<TevEndpoint> tev_nats_open(TevFeedback& fb, const TevIdentity& id);

// One endpoint over both backends: a message for this host's node goes
// through `local`, any other through `broker`; a receive takes from both.
std::unique_ptr<TevEndpoint> tev_route(std::unique_ptr<TevEndpoint> local,
                                       std::unique_ptr<TevEndpoint> broker);

// Whether the node named in an identity block is this host's (an empty one is).
bool tev_is_this_node(std::string_view node);

// Fills the feedback block for a failure and returns 1.
int tev_fail(TevFeedback& fb, std::int16_t prc, std::int16_t src, std::int32_t detail,
             const std::string& text);
