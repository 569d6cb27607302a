// One registration over both backends. Traffic between processes of this
// host stays on the local backend, with the kernel's word on the sender; a
// message for another node goes through the broker. A receive takes what
// has arrived locally first: a local message sent before something that
// caused a remote one (an agent reporting a login, then answering its remote
// client, who then sends the next request) is then also read first.
#include <poll.h>

#include <cerrno>
#include <chrono>

#include "tev_backend.h"

namespace {

class RoutedEndpoint final : public TevEndpoint {
 public:
  RoutedEndpoint(std::unique_ptr<TevEndpoint> local, std::unique_ptr<TevEndpoint> broker)
      : local_(std::move(local)), broker_(std::move(broker)) {}

  int send(TevFeedback& fb, std::uint8_t kind, std::uint32_t conversation, const TevIdentity& local,
           const TevIdentity& remote, std::span<const std::uint8_t> payload) override {
    TevEndpoint& via = tev_is_this_node(remote.system_id()) ? *local_ : *broker_;
    return via.send(fb, kind, conversation, local, remote, payload);
  }

  int receive(TevFeedback& fb, TevIncoming& out, std::size_t max_payload, int timeout_ms) override {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
      if (int rc = take_either(fb, out, max_payload); rc >= 0) return rc;
      int wait = -1;
      if (timeout_ms >= 0) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        wait = static_cast<int>(std::max<long long>(0, left.count()));
      }
      pollfd fds[kTevMaxWaitFds];
      int n = wait_fds(fds);
      int r = poll(fds, static_cast<nfds_t>(n), wait);
      if (r < 0 && errno == EINTR) return tev_fail(fb, kTevPrcLogicErr, kTevSrcRcvCnc, EINTR, "Receive was canceled");
      if (r < 0) return tev_fail(fb, kTevPrcUnrecoverable, kTevSrcIntDrc, errno, "Receive");
      if (r == 0) return tev_fail(fb, kTevPrcLogicErr, kTevSrcRtmOut, 0, "Receive timed out");
    }
  }

  void set_send_wait(int milliseconds) override {
    local_->set_send_wait(milliseconds);
    broker_->set_send_wait(milliseconds);
  }
  void set_root_peers_only(bool on) override {
    local_->set_root_peers_only(on);
    broker_->set_root_peers_only(on);
  }
  int wait_fds(pollfd* fds) const override {
    int n = local_->wait_fds(fds);
    return n + broker_->wait_fds(fds + n);
  }

 private:
  // A message from either backend without waiting: 0 taken, 1 failed,
  // -1 nothing there.
  int take_either(TevFeedback& fb, TevIncoming& out, std::size_t max_payload) {
    for (TevEndpoint* from : {local_.get(), broker_.get()}) {
      if (from->receive(fb, out, max_payload, 0) == 0) return 0;
      if (fb.FB_Src != kTevSrcRtmOut) return 1;
    }
    return -1;
  }

  std::unique_ptr<TevEndpoint> local_;
  std::unique_ptr<TevEndpoint> broker_;
};

}  // namespace

bool tev_is_this_node(std::string_view node) { return node.empty() || node == tev_node_name(); }

std::unique_ptr<TevEndpoint> tev_route(std::unique_ptr<TevEndpoint> local, std::unique_ptr<TevEndpoint> broker) {
  return std::make_unique<RoutedEndpoint>(std::move(local), std::move(broker));
}
