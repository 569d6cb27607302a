// The six transport operations over a backend: argument checks, the table
// of this process's registrations, conversation ids, and the queue of
// messages that arrive while a Tev_Conv waits for its answer.
#include <sys/utsname.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <map>
#include <vector>

#include "tev.h"
#include "tev_backend.h"

// ---------------------------------------------------------------------------
// Identity block

namespace {

std::string_view field_text(const std::uint8_t* p, std::size_t size) {
  const void* nul = std::memchr(p, 0, size);
  std::size_t n = nul ? static_cast<std::size_t>(static_cast<const std::uint8_t*>(nul) - p) : size;
  return std::string_view(reinterpret_cast<const char*>(p), n);
}

void set_field(std::uint8_t* p, std::size_t field, std::size_t max, std::string_view text) {
  std::memset(p, 0, field);
  text = text.substr(0, std::min(text.find('\0'), max));
  std::memcpy(p, text.data(), text.size());
}

}  // namespace

std::string_view TevIdentity::system_id() const {
  return field_text(bytes.data() + kTevSystemIdOffset, kTevSystemIdField);
}
std::string_view TevIdentity::app_name() const {
  return field_text(bytes.data() + kTevAppNameOffset, kTevAppNameField);
}
void TevIdentity::set_system_id(std::string_view id) {
  set_field(bytes.data() + kTevSystemIdOffset, kTevSystemIdField, kTevMaxSystemId, id);
}
void TevIdentity::set_app_name(std::string_view name) {
  set_field(bytes.data() + kTevAppNameOffset, kTevAppNameField, kTevMaxAppName, name);
}

// ---------------------------------------------------------------------------
// Feedback

int tev_fail(TevFeedback& fb, std::int16_t prc, std::int16_t src, std::int32_t detail,
             const std::string& text) {
  fb.FB_Prc = prc;
  fb.FB_Src = src;
  fb.FB_Error_Detail = detail;
  fb.FB_ErrorText = text.substr(0, kTevMaxErrorText);
  return 1;
}

namespace {

void succeed(TevFeedback& fb) {
  fb.FB_Prc = kTevPrcOk;
  fb.FB_Src = 0;
  fb.FB_Error_Detail = 0;
  fb.FB_ErrorText.clear();
}

int bad_argument(TevFeedback& fb, const char* what) {
  return tev_fail(fb, kTevPrcPlistErr, 0, 0, what);
}

// ---------------------------------------------------------------------------
// Registrations of this process

constexpr std::size_t kMaxQueued = 256;

struct Queued {
  std::uint8_t kind;
  std::uint32_t conversation;
  TevIdentity sender;
  TevInquiry inquiry;
  std::vector<std::uint8_t> payload;
};

struct Registration {
  std::unique_ptr<TevEndpoint> endpoint;
  TevIdentity identity;
  std::deque<Queued> queued;  // DATA/CONV that arrived during a Tev_Conv
  std::uint32_t next_conversation = 1;
};

std::map<std::string, Registration>& registrations() {
  static std::map<std::string, Registration> table;
  return table;
}

bool valid_app_name(std::string_view name) {
  return !name.empty() && name.size() <= kTevMaxAppName && name.find('/') == std::string_view::npos;
}

Registration* find_registration(TevFeedback& fb, const TevIdentity& local) {
  auto it = registrations().find(std::string(local.app_name()));
  if (it == registrations().end()) {
    bad_argument(fb, "Local name is not registered");
    return nullptr;
  }
  return &it->second;
}

// Whether `a` and `b` name the same registration; an empty system id is
// this node.
bool same_peer(const TevIdentity& a, const TevIdentity& b) {
  if (a.app_name() != b.app_name()) return false;
  bool a_here = tev_is_this_node(a.system_id()), b_here = tev_is_this_node(b.system_id());
  return a_here ? b_here : a.system_id() == b.system_id();
}

std::uint32_t fresh_conversation(Registration& reg) {
  std::uint32_t id = reg.next_conversation++;
  if (reg.next_conversation == 0) reg.next_conversation = 1;
  return id == 0 ? fresh_conversation(reg) : id;
}

// Hands a received message to the caller of TevRecv.
int deliver(TevFeedback& fb, TevIdentity& remote, void* buffer, TevInquiry& inquiry,
            std::uint8_t kind, std::uint32_t conversation, const TevIdentity& sender,
            const TevInquiry& credentials, std::span<const std::uint8_t> payload) {
  if (!payload.empty()) std::memcpy(buffer, payload.data(), payload.size());
  remote = sender;
  fb.FB_Remote_Id = sender;
  fb.FB_InConversId = conversation;
  fb.FB_InKind = kind;
  fb.FB_DataLen = static_cast<std::uint32_t>(payload.size());
  inquiry = credentials;
  succeed(fb);
  return 0;
}

int receive_common(TevFeedback& fb, const TevIdentity& local, TevIdentity& remote, void* buffer,
                   std::size_t size, TevInquiry& inquiry, int timeout_ms) {
  if (buffer == nullptr && size > 0) return bad_argument(fb, "Null receive buffer");
  Registration* reg = find_registration(fb, local);
  if (reg == nullptr) return 1;
  while (!reg->queued.empty()) {
    Queued q = std::move(reg->queued.front());
    reg->queued.pop_front();
    if (q.payload.size() > size) {
      ++fb.FB_Dropped;
      continue;
    }
    return deliver(fb, remote, buffer, inquiry, q.kind, q.conversation, q.sender, q.inquiry,
                   q.payload);
  }
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    int wait = timeout_ms;
    if (timeout_ms >= 0) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      wait = static_cast<int>(std::max<long long>(0, left.count()));
    }
    TevIncoming in;
    if (reg->endpoint->receive(fb, in, size, wait) != 0) return 1;
    if (in.kind == kTevKindAnswer) {
      ++fb.FB_Dropped;  // nobody is waiting for it
      continue;
    }
    return deliver(fb, remote, buffer, inquiry, in.kind, in.conversation, in.sender, in.inquiry,
                   in.payload);
  }
}

}  // namespace

// ---------------------------------------------------------------------------
// The operations

int TevInit(TevFeedback& fb, TevIdentity& id, int mode) {
  if (mode != kTevModeNormal) return bad_argument(fb, "Bad mode");
  std::string name(id.app_name());
  if (!valid_app_name(name)) return bad_argument(fb, "Bad application name");
  if (registrations().count(name) != 0)
    return tev_fail(fb, kTevPrcLogicErr, kTevSrcNoPath, 0, "Remote resource not available");
  TevIdentity completed;
  completed.set_flag(id.flag());
  completed.set_system_id(tev_node_name());
  completed.set_app_name(name);
  // The broker's subscriptions are in place before the local name appears,
  // so whoever sees the name registered can reach it from any host.
  std::unique_ptr<TevEndpoint> broker;
  if (tev_broker_configured() && !(broker = tev_nats_open(fb, completed))) return 1;
  auto endpoint = tev_unix_open(fb, completed);
  if (!endpoint) return 1;
  if (broker) endpoint = tev_route(std::move(endpoint), std::move(broker));
  Registration& reg = registrations()[name];
  reg.endpoint = std::move(endpoint);
  reg.identity = completed;
  fb.FB_Local_Id = completed;
  succeed(fb);
  return 0;
}

int TevTerm(TevFeedback& fb, const TevIdentity& id, int mode) {
  if (mode != kTevModeNormal) return bad_argument(fb, "Bad mode");
  auto it = registrations().find(std::string(id.app_name()));
  if (it == registrations().end()) return bad_argument(fb, "Local name is not registered");
  registrations().erase(it);  // the endpoint closes its socket and removes its name
  succeed(fb);
  return 0;
}

int TevRecv(TevFeedback& fb, const TevIdentity& local, TevIdentity& remote, void* buffer,
            std::size_t size, int mode, TevInquiry& inquiry) {
  if (mode != kTevModeRecvAny) return bad_argument(fb, "Bad mode");
  return receive_common(fb, local, remote, buffer, size, inquiry, -1);
}

int TevRecvTimed(TevFeedback& fb, const TevIdentity& local, TevIdentity& remote, void* buffer,
                 std::size_t size, TevInquiry& inquiry, int timeout_ms) {
  return receive_common(fb, local, remote, buffer, size, inquiry, timeout_ms);
}

int TevSend(TevFeedback& fb, const TevIdentity& local, const TevIdentity& remote,
            const void* buffer, std::size_t length, int mode, std::uint32_t convers_id) {
  if (mode != kTevModeNormal) return bad_argument(fb, "Bad mode");
  if ((buffer == nullptr && length > 0) || length > kTevMaxPayload)
    return bad_argument(fb, "Bad buffer or length");
  if (!valid_app_name(remote.app_name())) return bad_argument(fb, "Bad remote name");
  Registration* reg = find_registration(fb, local);
  if (reg == nullptr) return 1;
  fb.FB_Remote_Id = remote;
  auto payload = std::span(static_cast<const std::uint8_t*>(buffer), length);
  if (reg->endpoint->send(fb, kTevKindData, convers_id, reg->identity, remote, payload) != 0)
    return 1;
  fb.FB_ConversId = convers_id;
  succeed(fb);
  return 0;
}

int TevAnswer(TevFeedback& fb, const TevIdentity& local, const TevIdentity& remote,
              std::uint32_t convers_id, std::string_view payload) {
  if (payload.size() > kTevMaxAnswer) return bad_argument(fb, "Answer too long");
  if (!valid_app_name(remote.app_name())) return bad_argument(fb, "Bad remote name");
  Registration* reg = find_registration(fb, local);
  if (reg == nullptr) return 1;
  auto bytes = std::span(reinterpret_cast<const std::uint8_t*>(payload.data()), payload.size());
  if (reg->endpoint->send(fb, kTevKindAnswer, convers_id, reg->identity, remote, bytes) != 0)
    return 1;
  succeed(fb);
  return 0;
}

int Tev_Conv(TevFeedback& fb, const TevIdentity& local, const TevIdentity& remote,
             const void* buffer, std::size_t length, void* answer, std::size_t answer_size,
             int mode, int wait_seconds) {
  if (mode != kTevModeNormal) return bad_argument(fb, "Bad mode");
  if ((buffer == nullptr && length > 0) || length > kTevMaxPayload || wait_seconds < 0 ||
      (answer == nullptr && answer_size > 0))
    return bad_argument(fb, "Bad buffer, length or wait");
  if (!valid_app_name(remote.app_name())) return bad_argument(fb, "Bad remote name");
  Registration* reg = find_registration(fb, local);
  if (reg == nullptr) return 1;

  std::uint32_t conversation = fresh_conversation(*reg);
  fb.FB_Remote_Id = remote;
  auto payload = std::span(static_cast<const std::uint8_t*>(buffer), length);
  if (reg->endpoint->send(fb, kTevKindConv, conversation, reg->identity, remote, payload) != 0)
    return 1;
  fb.FB_ConversId = conversation;

  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(wait_seconds);
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0)
      return tev_fail(fb, kTevPrcLogicErr, kTevSrcRtmOut, 0, "Receive timed out");
    TevIncoming in;
    // A signal ends the wait like any receive's, so a process asked to stop
    // is not held up by a peer that never answers.
    if (reg->endpoint->receive(fb, in, kTevMaxPayload, static_cast<int>(left.count())) != 0) return 1;
    if (in.kind == kTevKindAnswer) {
      if (in.conversation != conversation || !same_peer(in.sender, remote)) {
        ++fb.FB_Dropped;
        continue;
      }
      std::size_t n = std::min(answer_size, in.payload.size());
      if (n > 0) std::memcpy(answer, in.payload.data(), n);
      succeed(fb);
      return 0;
    }
    // A request or conversation for this registration: keep it, in order,
    // for the next TevRecv. Past the limit the newest is dropped.
    if (reg->queued.size() >= kMaxQueued) {
      ++fb.FB_Dropped;
      continue;
    }
    reg->queued.push_back(Queued{in.kind, in.conversation, in.sender, in.inquiry,
                                 std::vector<std::uint8_t>(in.payload.begin(), in.payload.end())});
  }
}

int APICHECK(std::span<const TevInquiry* const> handles) {
  for (const TevInquiry* h : handles)
    if (h == nullptr || !h->valid) return 1;
  return 0;
}

int TevSetSendWait(TevFeedback& fb, const TevIdentity& local, int milliseconds) {
  if (milliseconds < 0) return bad_argument(fb, "Bad wait");
  Registration* reg = find_registration(fb, local);
  if (reg == nullptr) return 1;
  reg->endpoint->set_send_wait(milliseconds);
  succeed(fb);
  return 0;
}

int TevRequireRootPeers(TevFeedback& fb, const TevIdentity& local, bool on) {
  Registration* reg = find_registration(fb, local);
  if (reg == nullptr) return 1;
  reg->endpoint->set_root_peers_only(on);
  succeed(fb);
  return 0;
}

std::string tev_directory() {
  const char* dir = std::getenv("TEV_DIR");
  std::filesystem::path path = (dir != nullptr && *dir != '\0') ? dir : "/tmp/tev";
  std::error_code ec;
  std::filesystem::path absolute = std::filesystem::absolute(path, ec);
  std::string text = (ec ? path : absolute).lexically_normal().string();
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return text;
}

std::string tev_node_name() {
  static const std::string node = [] {
    utsname u{};
    return uname(&u) == 0 ? std::string(u.nodename) : std::string("localhost");
  }();
  return node;
}
