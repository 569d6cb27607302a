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
// One connection serves every registration of the process. The process's
// own thread reads and writes its socket: the library is told to leave that
// to an event loop, and the loop is a receive's poll. What arrives is parsed
// on that thread into the synchronous subscriptions of the registrations,
// so a message reaches its receiver without passing another thread, and
// a send writes at once. The library's remaining threads (timers,
// reconnecting, connection callbacks) only record what to poll and wake
// the poll through an eventfd; they are started with every signal blocked,
// so that a termination signal always interrupts the receiving thread's
// wait. A process receives on one thread at a time: a receive may queue
// messages for another registration of the process, which its next receive
// takes before it waits.
#include <nats/nats.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
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
constexpr int kMaxQueuedBytes = kMaxQueuedMessages * 66 * 1024;
constexpr std::size_t kSpentMessages = 32;
constexpr std::size_t kSpentBytes = 256 * 1024;
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

// ---------------------------------------------------------------------------
// The process's connection to the broker.

enum class LinkState { unknown, up, down };

class NatsLink;
NatsLink* g_link = nullptr;  // the process's link, once made

TevBrokerNotice g_notice = nullptr;

// Set while this thread drives the connection itself: a write it asks for
// is then done before the thread waits again, without waking anybody.
thread_local bool t_driving = false;

class NatsLink {
 public:
  // The process's link, made on first use; nullptr (and fb filled) when the
  // settings are unusable. A broker that cannot be reached is no failure:
  // the link keeps trying in the background.
  static NatsLink* get(TevFeedback& fb) {
    if (g_link != nullptr) return g_link;
    // The library starts threads of its own from its first call on.
    auto made = std::make_unique<NatsLink>();
    if (made->wake_fd_ < 0) return tev_fail(fb, kTevPrcUnrecoverable, kTevSrcIntDrc, errno, "Broker wake-up"), nullptr;
    // The library calls the event loop callbacks from the first connect on;
    // settings it refuses fail before any connection is tried.
    g_link = made.get();
    if (with_signals_blocked([&] { return made->connect(fb); }) != 0) return g_link = nullptr;
    made.release();  // never destroyed: the library's threads outlive main
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

  // On the receiving thread: tell the notice about a change since the last
  // report, once.
  void report_changes() {
    LinkState now = state_.load();
    if (now == reported_ || now == LinkState::unknown) return;
    reported_ = now;
    if (g_notice != nullptr) g_notice(now == LinkState::up, broker_address());
  }

  // What a wait for broker traffic polls: the connection's socket while the
  // library wants it read or written, and the wake-up for changes made by
  // the library's own threads (a new socket, a state change, a write asked).
  void wait_set(pollfd* fds) const {
    int fd = fd_.load();
    short events = static_cast<short>((want_read_.load() ? POLLIN : 0) | (want_write_.load() ? POLLOUT : 0));
    fds[0] = {events != 0 ? fd : -1, events, 0};
    fds[1] = {wake_fd_, POLLIN, 0};
  }

  // Moves what the socket has and what is waiting to be written, without
  // waiting: received messages land on their subscriptions. True when it
  // found anything to read.
  bool drive() {
    pollfd fds[2];
    wait_set(fds);
    if (poll(fds, 2, 0) <= 0) return false;
    if (fds[1].revents != 0) {
      std::uint64_t count;
      (void)!read(wake_fd_, &count, sizeof count);
    }
    if (fds[0].revents != 0) drive_ready(fds[0].revents);
    return (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0;
  }

  // Writes out what the library has buffered, as far as the socket takes it
  // now (a send never waits for the broker).
  void write_out() {
    if (natsConnection* nc = attached_.load(); nc != nullptr && want_write_.load())
      driving([&] { natsConnection_ProcessWriteEvent(nc); });
  }

  // Hands what was published to the broker and waits (at most the connect
  // time) until the broker has answered a ping sent after it, so that a
  // process about to exit loses nothing in a buffer. The ping's answer is
  // read here, on this thread, while another one waits for it.
  void flush() {
    natsConnection* conn = conn_.load();
    if (conn == nullptr || !connected()) return;
    std::atomic<bool> done{false};
    std::thread waiter = with_signals_blocked([&] {
      return std::thread([&] {
        natsConnection_FlushTimeout(conn, kConnectTimeoutMs);
        done = true;
        wake();
      });
    });
    while (!done.load()) {
      pollfd fds[2];
      wait_set(fds);
      if (poll(fds, 2, 100) > 0 && fds[0].revents != 0) drive_ready(fds[0].revents);
      std::uint64_t count;
      (void)!read(wake_fd_, &count, sizeof count);
      write_out();
    }
    waiter.join();
  }

 private:
  void wake() const {
    std::uint64_t one = 1;
    (void)!write(wake_fd_, &one, sizeof one);
  }

  void drive_ready(short revents) {
    natsConnection* nc = attached_.load();
    if (nc == nullptr) return;
    driving([&] {
      if (revents & (POLLIN | POLLHUP | POLLERR)) natsConnection_ProcessReadEvent(nc);
      if (want_write_.load()) natsConnection_ProcessWriteEvent(nc);
    });
  }

  // Runs `fn`, which reads or writes the broker's socket from this thread,
  // with every signal held back: a thread the library starts from here (to
  // reconnect) must not take the process's signals, and a SIGPIPE raised
  // by a write to a connection the broker dropped is discarded (the daemon
  // treats SIGPIPE as fatal; a TLS write cannot ask the kernel not to
  // raise it).
  template <typename Fn>
  void driving(Fn fn) {
    sigset_t all, old, pending;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    sigpending(&pending);
    bool pipe_was_pending = sigismember(&pending, SIGPIPE) == 1;
    t_driving = true;
    fn();
    t_driving = false;
    sigpending(&pending);
    if (!pipe_was_pending && sigismember(&pending, SIGPIPE) == 1) {
      sigset_t pipe;
      sigemptyset(&pipe);
      sigaddset(&pipe, SIGPIPE);
      timespec none{0, 0};
      sigtimedwait(&pipe, nullptr, &none);
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
  }

  // The event loop callbacks, called by the library (on any of its threads
  // and on the driving one) with the connection locked: they only record
  // what to poll and wake whoever polls. The user data is the connection.
  static natsStatus on_attach(void** data, void* loop, natsConnection* nc, natsSock socket) {
    auto* link = static_cast<NatsLink*>(loop);
    *data = nc;
    link->attached_.store(nc);
    link->fd_.store(socket);
    link->want_read_.store(true);
    link->want_write_.store(false);
    link->wake();
    return NATS_OK;
  }
  static natsStatus on_read(void* data, bool add) {
    if (g_link != nullptr && g_link->attached_.load() == data) g_link->want_read_.store(add);
    return NATS_OK;
  }
  static natsStatus on_write(void* data, bool add) {
    if (g_link == nullptr || g_link->attached_.load() != data) return NATS_OK;
    g_link->want_write_.store(add);
    if (add && !t_driving) g_link->wake();
    return NATS_OK;
  }
  static natsStatus on_detach(void* data) {
    if (g_link == nullptr) return NATS_OK;
    natsConnection* nc = static_cast<natsConnection*>(data);
    if (g_link->attached_.compare_exchange_strong(nc, nullptr)) {
      g_link->fd_.store(-1);
      g_link->want_read_.store(false);
      g_link->want_write_.store(false);
      g_link->wake();
    }
    return NATS_OK;
  }

  // A broker that refuses or cannot be reached is no failure. The library
  // reconnects to one that went away; a connection it gave up on (never
  // made, or closed, as after a refused login) is made anew here, once a
  // second, on a thread of the link's own.
  int connect(TevFeedback& fb) {
    if (natsStatus s = natsOptions_Create(&opts_); s != NATS_OK) return broker_error(fb, "Broker options", s);
    if (int rc = configure(fb, opts_); rc != 0) {
      // Refused settings are not kept, nor the TLS context made from them.
      natsOptions_Destroy(opts_);
      opts_ = nullptr;
      return rc;
    }
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
    if (s == NATS_OK) s = natsOptions_SetEventLoop(opts, this, on_attach, on_read, on_write, on_detach);
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
    wake();
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
  // The connection on the socket being polled, as the library attached it.
  std::atomic<natsConnection*> attached_{nullptr};
  std::atomic<int> fd_{-1};
  std::atomic<bool> want_read_{false};
  std::atomic<bool> want_write_{false};
  int wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
};

// ---------------------------------------------------------------------------
// One registration on the broker. Its subscriptions are synchronous: the
// library queues what arrives for them while this process's own thread
// reads the socket, and a receive takes from those queues, so a message
// goes from the socket to the receiver without passing another thread.

class NatsEndpoint final : public TevEndpoint {
 public:
  NatsEndpoint(NatsLink& link, const TevIdentity& id) : link_(link), identity_(id) { spent_.reserve(kSpentMessages); }

  ~NatsEndpoint() override {
    release_current();
    release_spent();
    // A forked child must leave its parent's subscriptions alone: the
    // library's threads did not come with it.
    if (getpid() != link_.owner()) return;
    drop_subscriptions();
    link_.write_out();
  }

  int open(TevFeedback& fb) {
    (void)subscribe_once_connected(fb);  // else on a later receive or send
    return 0;
  }

  void set_send_wait(int) override {}        // a publish never waits for the receiver
  void set_root_peers_only(bool) override {}  // the broker vouches for hosts, not accounts
  int wait_fds(pollfd* fds) const override {
    link_.wait_set(fds);
    return 2;
  }

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
    t_driving = true;  // written out just below
    natsStatus s = natsConnection_Publish(link_.connection(), subject_text.c_str(), message.data(),
                                          static_cast<int>(message.size()));
    t_driving = false;
    link_.write_out();
    if (s == NATS_OK) return 0;
    if (s == NATS_CONNECTION_DISCONNECTED || s == NATS_CONNECTION_CLOSED)
      return tev_fail(fb, kTevPrcLogicErr, kTevSrcNoRcvr, 0, "Broker not connected");
    return broker_error(fb, "Broker send", s);
  }

  int receive(TevFeedback& fb, TevIncoming& out, std::size_t max_payload, int timeout_ms) override {
    release_current();
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
      link_.report_changes();
      TevFeedback ignored;
      (void)subscribe_once_connected(ignored);
      // What has been queued already, then what the socket has now.
      bool read_more = true;
      while (true) {
        if (take(fb, out, max_payload)) return 0;
        if (!read_more) break;
        read_more = link_.drive();
      }
      int wait = -1;
      if (timeout_ms >= 0) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        wait = static_cast<int>(std::max<long long>(0, left.count()));
      }
      if (wait == 0) return tev_fail(fb, kTevPrcLogicErr, kTevSrcRtmOut, 0, "Receive timed out");
      pollfd fds[2];
      link_.wait_set(fds);
      int r = poll(fds, 2, wait);
      if (r < 0 && errno == EINTR) return tev_fail(fb, kTevPrcLogicErr, kTevSrcRcvCnc, EINTR, "Receive was canceled");
      if (r < 0) return tev_fail(fb, kTevPrcUnrecoverable, kTevSrcIntDrc, errno, "Receive");
    }
  }

 private:
  // Subscribes as soon as the link has a connection (the library makes
  // the subscriptions again after a reconnect). The broker handles a
  // connection's protocol in order, so it knows them before any message
  // published after them.
  int subscribe_once_connected(TevFeedback& fb) {
    natsConnection* conn = link_.connection();
    unsigned generation = link_.generation();
    if (conn == nullptr || generation == subscribed_generation_) return 0;
    drop_subscriptions();
    std::string node(identity_.system_id()), app(identity_.app_name());
    for (const std::string& subject : {tev_subject_inbox(node, app), tev_subject_broadcast_inbox(app)})
      if (int rc = subscribe(fb, conn, subject); rc != 0) return rc;
    subscribed_generation_ = generation;
    link_.write_out();
    return 0;
  }

  void drop_subscriptions() {
    for (Subscription& sub : subs_) {
      natsSubscription_Unsubscribe(sub.sub);
      natsSubscription_Destroy(sub.sub);
    }
    subs_.clear();
  }

  int subscribe(TevFeedback& fb, natsConnection* conn, const std::string& subject) {
    natsSubscription* sub = nullptr;
    t_driving = true;  // written out by the caller
    natsStatus s = natsConnection_SubscribeSync(&sub, conn, subject.c_str());
    t_driving = false;
    if (s == NATS_OK) s = natsSubscription_SetPendingLimits(sub, kMaxQueuedMessages, kMaxQueuedBytes);
    if (s != NATS_OK) {
      if (sub != nullptr) natsSubscription_Destroy(sub);
      return broker_error(fb, "Broker subscription", s);
    }
    subs_.push_back({sub, 0});
    return 0;
  }

  // The next acceptable message queued for this registration into `out`;
  // the rest (and what the library dropped past its limit) are counted.
  bool take(TevFeedback& fb, TevIncoming& out, std::size_t max_payload) {
    for (Subscription& sub : subs_) {
      std::int64_t dropped = 0;
      if (natsSubscription_GetDropped(sub.sub, &dropped) == NATS_OK && dropped > sub.dropped) {
        fb.FB_Dropped += static_cast<std::uint32_t>(dropped - sub.dropped);
        sub.dropped = dropped;
      }
      natsMsg* msg = nullptr;
      natsStatus s;
      while ((s = natsSubscription_NextMsg(&msg, sub.sub, 0)) == NATS_OK || s == NATS_SLOW_CONSUMER) {
        if (s != NATS_OK) continue;  // reported once after drops, counted above
        if (accept(msg, max_payload, out)) {
          current_ = msg;
          return true;
        }
        natsMsg_Destroy(msg);
        ++fb.FB_Dropped;
      }
    }
    return false;
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

  // The library hands a destroyed message to a collector thread of its
  // own, waking it; messages read are therefore destroyed a few at a time,
  // so that the wake-up is not on the way of every reply.
  void release_current() {
    if (current_ != nullptr) {
      spent_bytes_ += static_cast<std::size_t>(natsMsg_GetDataLength(current_));
      spent_.push_back(current_);
      current_ = nullptr;
    }
    if (spent_.size() >= kSpentMessages || spent_bytes_ >= kSpentBytes) release_spent();
  }
  void release_spent() {
    for (natsMsg* msg : spent_) natsMsg_Destroy(msg);
    spent_.clear();
    spent_bytes_ = 0;
  }

  struct Subscription {
    natsSubscription* sub;
    std::int64_t dropped;  // as last counted
  };

  NatsLink& link_;
  TevIdentity identity_;
  std::vector<Subscription> subs_;
  natsMsg* current_ = nullptr;  // holds the payload of the last message received
  std::vector<natsMsg*> spent_;  // read, not yet destroyed
  std::size_t spent_bytes_ = 0;
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
