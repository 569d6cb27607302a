// The broker backend: every registration listens on the broker for the
// subjects addressed to its name on this node (and to its name on every
// node), and a send publishes one message on the subject that names the
// receiver and the sender. The message is a datagram of the local layout
// (tev_wire.h); the broker moves it whole.
//
// The sender's node is the one in the subject, which the broker lets each
// host publish only as itself; a datagram whose sender block says otherwise,
// or that claims this host's own node, is dropped and counted.
//
// One connection serves every registration of the process. The library
// behind it delivers messages on threads of its own: they only queue each
// message for its registration and wake it through an eventfd, so the
// process's own code stays single-threaded and one poll waits for both
// backends. Those threads are started with every signal blocked, so that a
// termination signal always interrupts the receiving thread's wait.
#include <nats/nats.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tev_backend.h"
#include "tev_subject.h"
#include "tev_wire.h"

namespace {

// Messages a registration keeps before it reads them; past this the
// newest is dropped and counted, so no sender can fill the process.
constexpr int kMaxQueuedMessages = 256;
constexpr int kConnectTimeoutMs = 2000;
constexpr int kReconnectWaitMs = 500;
constexpr int kConnectRetryMs = 1000;
constexpr int kPingIntervalMs = 5000;

int broker_error(TevFeedback& fb, const std::string& what, natsStatus status) {
  std::string text = what + ": " + natsStatus_GetText(status);
  return tev_fail(fb, kTevPrcUnrecoverable, kTevSrcIntDrc, static_cast<std::int32_t>(status), text);
}

std::string env(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

// TEV_URL without any "user:password@" part, for messages.
std::string broker_address() {
  std::string url = env("TEV_URL"), shown;
  for (std::size_t start = 0; start <= url.size();) {
    std::size_t comma = std::min(url.find(',', start), url.size());
    std::string one = url.substr(start, comma - start);
    std::size_t scheme = one.find("//"), at = one.rfind('@');
    if (scheme != std::string::npos && at != std::string::npos && at > scheme) one.erase(scheme + 2, at - scheme - 1);
    shown += (shown.empty() ? "" : ",") + one;
    start = comma + 1;
  }
  return shown;
}

// Runs `fn` with every signal blocked, so that threads it starts inherit
// a mask that keeps signals for the process's own thread.
template <typename Fn>
auto with_signals_blocked(Fn fn) {
  sigset_t all, old;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &old);
  auto result = fn();
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  return result;
}

// Runs `fn`, which may write to the broker's socket from this thread, with
// SIGPIPE held back and any it raised discarded: a connection the broker
// dropped must fail the write, not end the process (the daemon treats
// SIGPIPE as fatal; a TLS write cannot ask the kernel not to raise it).
template <typename Fn>
auto without_sigpipe(Fn fn) {
  sigset_t pipe, old, pending;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, &old);
  sigpending(&pending);
  bool was_pending = sigismember(&pending, SIGPIPE) == 1;
  auto result = fn();
  sigpending(&pending);
  if (!was_pending && sigismember(&pending, SIGPIPE) == 1) {
    timespec none{0, 0};
    sigtimedwait(&pipe, nullptr, &none);
  }
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  return result;
}

// ---------------------------------------------------------------------------
// What one registration has received and not yet read.

struct Inbox {
  std::mutex mutex;
  std::deque<natsMsg*> messages;
  std::uint32_t dropped = 0;
  int event_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);

  ~Inbox() {
    for (natsMsg* m : messages) natsMsg_Destroy(m);
    if (event_fd >= 0) close(event_fd);
  }
  void wake() const {
    std::uint64_t one = 1;
    (void)!write(event_fd, &one, sizeof one);
  }
  void clear_wake() const {
    std::uint64_t count;
    (void)!read(event_fd, &count, sizeof count);
  }
};

// The closure of a subscription: keeps its inbox alive until the library
// reports that no more messages will be delivered to it.
struct InboxRef {
  std::shared_ptr<Inbox> inbox;
};

void on_message(natsConnection*, natsSubscription*, natsMsg* msg, void* closure) {
  Inbox& inbox = *static_cast<InboxRef*>(closure)->inbox;
  {
    std::lock_guard lock(inbox.mutex);
    if (inbox.messages.size() >= kMaxQueuedMessages) {
      ++inbox.dropped;
      natsMsg_Destroy(msg);
      return;
    }
    inbox.messages.push_back(msg);
  }
  inbox.wake();
}

void on_complete(void* closure) { delete static_cast<InboxRef*>(closure); }

// ---------------------------------------------------------------------------
// The process's connection to the broker.

enum class LinkState { unknown, up, down };

class NatsLink;
NatsLink* g_link = nullptr;  // the process's link, once made

TevBrokerNotice g_notice = nullptr;

class NatsLink {
 public:
  // The process's link, made on first use; nullptr (and fb filled) when the
  // settings are unusable. A broker that cannot be reached is no failure:
  // the link keeps trying in the background.
  static NatsLink* get(TevFeedback& fb) {
    if (g_link != nullptr) return g_link;
    // The library starts threads of its own from its first call on.
    auto made = std::make_unique<NatsLink>();
    if (with_signals_blocked([&] { return made->connect(fb); }) != 0) return nullptr;
    g_link = made.release();  // never destroyed: the library's threads outlive main
    std::atexit(at_exit);
    return g_link;
  }

  // Null until the first connection was made.
  natsConnection* connection() const { return conn_.load(); }
  unsigned generation() const { return generation_.load(); }
  bool connected() const { return state_.load() == LinkState::up; }

  // A process whose first connection is still being made (a busy host, a
  // slow handshake) waits for it a little before its first send; once the
  // link has been up, a send never waits.
  bool connected_or_first_wait() {
    for (int i = 0; i < kConnectTimeoutMs / 20 && !connected() && !ever_up_.load(); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return connected();
  }
  pid_t owner() const { return owner_; }

  void watch(const std::shared_ptr<Inbox>& inbox) {
    std::lock_guard lock(mutex_);
    watchers_.insert(inbox);
  }
  void unwatch(const std::shared_ptr<Inbox>& inbox) {
    std::lock_guard lock(mutex_);
    watchers_.erase(inbox);
  }

  // On the receiving thread: tell the notice about a change since the last
  // report, once.
  void report_changes() {
    LinkState now = state_.load();
    if (now == reported_ || now == LinkState::unknown) return;
    reported_ = now;
    if (g_notice != nullptr) g_notice(now == LinkState::up, broker_address());
  }

 private:
  // A broker that refuses or cannot be reached is no failure. The library
  // reconnects to one that went away; a connection it gave up on (never
  // made, or closed, as after a refused login) is made anew here, once a
  // second, on a thread of the link's own.
  int connect(TevFeedback& fb) {
    if (natsStatus s = natsOptions_Create(&opts_); s != NATS_OK) return broker_error(fb, "Broker options", s);
    if (int rc = configure(fb, opts_); rc != 0) return rc;
    retrying_ = true;
    if (!try_connect()) start_retrying();
    return 0;
  }

  // The retrying thread ends before the process does (an exit must not
  // find it inside the library).
  void start_retrying() {
    set_state(LinkState::down);
    std::lock_guard lock(retry_mutex_);
    if (retry_thread_.joinable()) retry_thread_.join();  // a thread that has finished
    retry_thread_ = with_signals_blocked([this] {
      return std::thread([this] {
        while (!stopping_ && !try_connect())
          for (int i = 0; i < kConnectRetryMs / 50 && !stopping_; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
      });
    });
  }

 public:
  // Hands what was published to the broker before the caller goes on (a
  // process about to exit must not lose its last message in a buffer).
  void flush() {
    if (natsConnection* conn = conn_.load(); conn != nullptr && connected())
      without_sigpipe([&] { return natsConnection_FlushTimeout(conn, kConnectTimeoutMs); });
  }

 private:
  // At exit: the last messages go out, and the retrying thread ends before
  // the library is torn down.
  static void at_exit() {
    if (g_link == nullptr || getpid() != g_link->owner_) return;
    g_link->flush();
    g_link->stop_retrying();
  }

  void stop_retrying() {
    stopping_ = true;
    std::lock_guard lock(retry_mutex_);
    if (retry_thread_.joinable()) retry_thread_.join();
  }

  // True when the library has a connection (up, or reconnecting by itself).
  // Subscriptions on an earlier connection keep their own reference to it.
  bool try_connect() {
    natsConnection* conn = nullptr;
    natsStatus s = with_signals_blocked([&] { return natsConnection_Connect(&conn, opts_); });
    if (s != NATS_OK && s != NATS_NOT_YET_CONNECTED) return false;
    if (natsConnection* old = conn_.exchange(conn)) natsConnection_Destroy(old);
    generation_.fetch_add(1);
    retrying_ = false;
    set_state(s == NATS_OK ? LinkState::up : LinkState::down);
    return true;
  }

  static void on_closed(natsConnection*, void* closure) {
    auto* link = static_cast<NatsLink*>(closure);
    if (!link->retrying_.exchange(true)) link->start_retrying();
  }

  int configure(TevFeedback& fb, natsOptions* opts) {
    std::string name = "tev " + tev_node_name() + " " + std::to_string(getpid());
    natsStatus s = natsOptions_SetURL(opts, env("TEV_URL").c_str());
    if (s == NATS_OK) s = natsOptions_SetName(opts, name.c_str());
    if (s == NATS_OK) s = natsOptions_SetTimeout(opts, kConnectTimeoutMs);
    if (s == NATS_OK) s = natsOptions_SetMaxReconnect(opts, -1);
    if (s == NATS_OK) s = natsOptions_SetReconnectWait(opts, kReconnectWaitMs);
    if (s == NATS_OK) s = natsOptions_SetPingInterval(opts, kPingIntervalMs);
    if (s == NATS_OK) s = natsOptions_SetNoEcho(opts, true);
    if (s == NATS_OK) s = natsOptions_SetSendAsap(opts, true);
    if (s == NATS_OK) s = natsOptions_SetRetryOnFailedConnect(opts, true, on_up, this);
    if (s == NATS_OK) s = natsOptions_SetReconnectedCB(opts, on_up, this);
    if (s == NATS_OK) s = natsOptions_SetDisconnectedCB(opts, on_down, this);
    if (s == NATS_OK) s = natsOptions_SetClosedCB(opts, on_closed, this);
    if (s != NATS_OK) return broker_error(fb, "Broker options", s);
    if (int rc = configure_credentials(fb, opts); rc != 0) return rc;
    return configure_tls(fb, opts);
  }

  // A user and password (from a file), a credentials file, or an nkey and
  // its seed file; never anything from the command line.
  static int configure_credentials(TevFeedback& fb, natsOptions* opts) {
    natsStatus s = NATS_OK;
    if (std::string user = env("TEV_NATS_USER"); !user.empty()) {
      std::string password;
      std::ifstream file(env("TEV_NATS_PASSWORD_FILE"));
      if (!file || !std::getline(file, password))
        return tev_fail(fb, kTevPrcUnrecoverable, kTevSrcIntDrc, EACCES, "Broker password file unreadable");
      s = natsOptions_SetUserInfo(opts, user.c_str(), password.c_str());
      std::fill(password.begin(), password.end(), '\0');
    } else if (std::string creds = env("TEV_NATS_CREDS"); !creds.empty()) {
      s = natsOptions_SetUserCredentialsFromFiles(opts, creds.c_str(), nullptr);
    } else if (std::string nkey = env("TEV_NATS_NKEY"); !nkey.empty()) {
      s = natsOptions_SetNKeyFromSeed(opts, nkey.c_str(), env("TEV_NATS_NKEY_SEED").c_str());
    }
    return s == NATS_OK ? 0 : broker_error(fb, "Broker credentials", s);
  }

  // The server is always verified when TLS is on (tls:// or a CA given).
  static int configure_tls(TevFeedback& fb, natsOptions* opts) {
    std::string ca = env("TEV_TLS_CA"), cert = env("TEV_TLS_CERT"), key = env("TEV_TLS_KEY");
    natsStatus s = NATS_OK;
    bool secure = !ca.empty() || !cert.empty() || env("TEV_URL").find("tls://") != std::string::npos;
    if (secure) s = natsOptions_SetSecure(opts, true);
    if (s == NATS_OK && !ca.empty()) s = natsOptions_LoadCATrustedCertificates(opts, ca.c_str());
    if (s == NATS_OK && (!cert.empty() || !key.empty()))
      s = natsOptions_LoadCertificatesChain(opts, cert.c_str(), key.c_str());
    return s == NATS_OK ? 0 : broker_error(fb, "Broker TLS", s);
  }

  void set_state(LinkState state) {
    state_.store(state);
    if (state == LinkState::up) ever_up_.store(true);
    std::lock_guard lock(mutex_);
    for (const auto& inbox : watchers_) inbox->wake();
  }

  static void on_up(natsConnection*, void* closure) { static_cast<NatsLink*>(closure)->set_state(LinkState::up); }
  static void on_down(natsConnection*, void* closure) {
    static_cast<NatsLink*>(closure)->set_state(LinkState::down);
  }

  natsOptions* opts_ = nullptr;  // kept for connecting again
  std::atomic<natsConnection*> conn_{nullptr};
  std::atomic<unsigned> generation_{0};  // connections made so far
  std::atomic<bool> retrying_{false};
  std::atomic<bool> stopping_{false};
  std::atomic<bool> ever_up_{false};
  std::mutex retry_mutex_;
  std::thread retry_thread_;
  pid_t owner_ = getpid();
  std::atomic<LinkState> state_{LinkState::unknown};
  LinkState reported_ = LinkState::unknown;  // the receiving thread's alone
  std::mutex mutex_;
  std::set<std::shared_ptr<Inbox>> watchers_;
};

// ---------------------------------------------------------------------------
// One registration on the broker.

class NatsEndpoint final : public TevEndpoint {
 public:
  NatsEndpoint(NatsLink& link, const TevIdentity& id) : link_(link), identity_(id) {}

  ~NatsEndpoint() override {
    release_current();
    // A forked child must leave its parent's subscriptions alone: the
    // library's threads did not come with it.
    if (getpid() != link_.owner()) return;
    link_.unwatch(inbox_);
    drop_subscriptions();
    link_.flush();
  }

  int open(TevFeedback& fb) {
    if (inbox_->event_fd < 0) return tev_fail(fb, kTevPrcUnrecoverable, kTevSrcIntDrc, errno, "Broker wake-up");
    link_.watch(inbox_);
    (void)subscribe_once_connected(fb);  // else on a later receive or send
    return 0;
  }

  void set_send_wait(int) override {}        // a publish never waits for the receiver
  void set_root_peers_only(bool) override {}  // the broker vouches for hosts, not accounts
  int wait_fd() const override { return inbox_->event_fd; }

  int send(TevFeedback& fb, std::uint8_t kind, std::uint32_t conversation, const TevIdentity& local,
           const TevIdentity& remote, std::span<const std::uint8_t> payload) override {
    if (!link_.connected_or_first_wait() || subscribe_once_connected(fb) != 0)
      return tev_fail(fb, kTevPrcLogicErr, kTevSrcNoRcvr, 0, "Broker not connected");
    TevSubject subject{std::string(remote.system_id()), std::string(remote.app_name()),
                       std::string(local.system_id()), std::string(local.app_name())};
    std::vector<std::uint8_t> message(kTevHeaderSize + payload.size());
    tev_encode_header(std::span<std::uint8_t, kTevHeaderSize>(message.data(), kTevHeaderSize), kind, conversation,
                      local, remote, payload.size());
    if (!payload.empty()) std::memcpy(message.data() + kTevHeaderSize, payload.data(), payload.size());
    std::string subject_text = tev_subject_text(subject);
    natsStatus s = without_sigpipe([&] {
      return natsConnection_Publish(link_.connection(), subject_text.c_str(), message.data(),
                                    static_cast<int>(message.size()));
    });
    if (s == NATS_OK) return 0;
    if (s == NATS_CONNECTION_DISCONNECTED || s == NATS_CONNECTION_CLOSED)
      return tev_fail(fb, kTevPrcLogicErr, kTevSrcNoRcvr, 0, "Broker not connected");
    return broker_error(fb, "Broker send", s);
  }

  int receive(TevFeedback& fb, TevIncoming& out, std::size_t max_payload, int timeout_ms) override {
    release_current();
    link_.report_changes();
    TevFeedback ignored;
    (void)subscribe_once_connected(ignored);
    for (;;) {
      inbox_->clear_wake();
      if (natsMsg* msg = next(fb)) {
        if (accept(msg, max_payload, out)) {
          current_ = msg;
          return 0;
        }
        natsMsg_Destroy(msg);
        ++fb.FB_Dropped;
        continue;
      }
      if (timeout_ms == 0) return tev_fail(fb, kTevPrcLogicErr, kTevSrcRtmOut, 0, "Receive timed out");
      pollfd p{inbox_->event_fd, POLLIN, 0};
      int r = poll(&p, 1, timeout_ms);
      if (r < 0 && errno == EINTR) return tev_fail(fb, kTevPrcLogicErr, kTevSrcRcvCnc, EINTR, "Receive was canceled");
      if (r == 0) return tev_fail(fb, kTevPrcLogicErr, kTevSrcRtmOut, 0, "Receive timed out");
      link_.report_changes();
      (void)subscribe_once_connected(ignored);
    }
  }

 private:
  // Subscribes as soon as the link has a connection (the library makes
  // the subscriptions again after a reconnect). The broker knows them once
  // it has answered a ping.
  int subscribe_once_connected(TevFeedback& fb) {
    natsConnection* conn = link_.connection();
    unsigned generation = link_.generation();
    if (conn == nullptr || generation == subscribed_generation_) return 0;
    drop_subscriptions();
    std::string node(identity_.system_id()), app(identity_.app_name());
    for (const std::string& subject : {tev_subject_inbox(node, app), tev_subject_broadcast_inbox(app)})
      if (int rc = subscribe(fb, conn, subject); rc != 0) return rc;
    subscribed_generation_ = generation;
    if (link_.connected()) without_sigpipe([&] { return natsConnection_FlushTimeout(conn, kConnectTimeoutMs); });
    return 0;
  }

  void drop_subscriptions() {
    for (natsSubscription* sub : subs_) {
      natsSubscription_Unsubscribe(sub);
      natsSubscription_Destroy(sub);
    }
    subs_.clear();
  }

  int subscribe(TevFeedback& fb, natsConnection* conn, const std::string& subject) {
    auto* ref = new InboxRef{inbox_};
    natsSubscription* sub = nullptr;
    natsStatus s = with_signals_blocked(
        [&] { return natsConnection_Subscribe(&sub, conn, subject.c_str(), on_message, ref); });
    if (s == NATS_OK) s = natsSubscription_SetOnCompleteCB(sub, on_complete, ref);
    if (s != NATS_OK) {
      if (sub != nullptr) natsSubscription_Destroy(sub);
      delete ref;
      return broker_error(fb, "Broker subscription", s);
    }
    subs_.push_back(sub);
    return 0;
  }

  natsMsg* next(TevFeedback& fb) {
    std::lock_guard lock(inbox_->mutex);
    fb.FB_Dropped += inbox_->dropped;
    inbox_->dropped = 0;
    if (inbox_->messages.empty()) return nullptr;
    natsMsg* msg = inbox_->messages.front();
    inbox_->messages.pop_front();
    return msg;
  }

  // Checks one message against its subject and fills `out`; false drops it.
  bool accept(natsMsg* msg, std::size_t max_payload, TevIncoming& out) const {
    std::optional<TevSubject> subject = tev_subject_parse(natsMsg_GetSubject(msg));
    if (!subject || subject->sender_node == identity_.system_id() || subject->receiver_app != identity_.app_name())
      return false;
    if (subject->receiver_node != identity_.system_id() && subject->receiver_node != kTevEveryNode) return false;
    auto bytes = std::span(reinterpret_cast<const std::uint8_t*>(natsMsg_GetData(msg)),
                           static_cast<std::size_t>(natsMsg_GetDataLength(msg)));
    std::optional<TevDatagram> d = tev_decode(bytes);
    if (!d || d->payload.size() > max_payload) return false;
    if (d->sender.system_id() != subject->sender_node || d->sender.app_name() != subject->sender_app ||
        d->receiver.system_id() != subject->receiver_node || d->receiver.app_name() != subject->receiver_app)
      return false;
    out.kind = d->kind;
    out.conversation = d->conversation;
    out.sender = d->sender;
    out.inquiry = TevInquiry{true, 0, static_cast<uid_t>(-1), static_cast<gid_t>(-1), subject->sender_node};
    out.payload = d->payload;
    return true;
  }

  void release_current() {
    if (current_ != nullptr) natsMsg_Destroy(current_);
    current_ = nullptr;
  }

  NatsLink& link_;
  TevIdentity identity_;
  std::shared_ptr<Inbox> inbox_ = std::make_shared<Inbox>();
  std::vector<natsSubscription*> subs_;
  natsMsg* current_ = nullptr;  // holds the payload of the last message received
  unsigned subscribed_generation_ = 0;  // the link's connection the subscriptions are on
};

}  // namespace

bool tev_broker_configured() { return !env("TEV_URL").empty(); }

void TevSetBrokerNotice(TevBrokerNotice notice) { g_notice = notice; }

std::unique_ptr<TevEndpoint> tev_nats_open(TevFeedback& fb, const TevIdentity& id) {
  NatsLink* link = NatsLink::get(fb);
  if (link == nullptr) return nullptr;
  auto endpoint = std::make_unique<NatsEndpoint>(*link, id);
  if (endpoint->open(fb) != 0) return nullptr;
  return endpoint;
}
