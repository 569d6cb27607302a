// The broker backend: round trips of a brief status request from another
// host through the broker to the real daemon, against a plain libnats
// request/reply of the same sizes through the same broker, measured in the
// same run and pinned the same way (client, server side and broker all on
// CPU 0, then unpinned); the local round trip with the backend on beside
// them; the throughput of 64 concurrent remote clients; the daemon's
// resident memory with the backend on.
//
// The daemon runs as node "bench-a" and the clients as "bench-b", each in a
// UTS namespace of its own; the broker (nats-server, plain TCP on
// 127.0.0.1, no authentication) is started on a free port.
//
// Run as root:
//   build/bench/nats_bench [ROUND_TRIPS]
#include <arpa/inet.h>
#include <nats/nats.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench_util.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using bench::Figures;
using bench::StatusClient;
using bench::pin;
using bench::proc_field;
using bench::summarize;

namespace {

constexpr const char* kDaemonNode = "bench-a";
constexpr const char* kClientNode = "bench-b";
constexpr int kClients = 64;
constexpr int kThroughputSeconds = 5;

int free_port() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  close(fd);
  return ntohs(addr.sin_port);
}

void take_node_name(const char* node) {
  if (unshare(CLONE_NEWUTS) != 0 || sethostname(node, std::strlen(node)) != 0) {
    std::perror("nats_bench: node name");
    std::exit(2);
  }
}

// ---------------------------------------------------------------------------
// Baseline: plain libnats request/reply with a responder in another process.

// Connected with the options the transport uses for latency.
natsConnection* connect_plain(const std::string& url) {
  natsOptions* opts = nullptr;
  natsConnection* nc = nullptr;
  if (natsOptions_Create(&opts) != NATS_OK || natsOptions_SetURL(opts, url.c_str()) != NATS_OK ||
      natsOptions_SetSendAsap(opts, true) != NATS_OK || natsConnection_Connect(&nc, opts) != NATS_OK)
    std::exit(6);
  natsOptions_Destroy(opts);
  return nc;
}

pid_t start_responder(const std::string& url, std::size_t reply_size) {
  pid_t child = fork();
  if (child != 0) return child;
  static std::vector<char> reply(reply_size, 'r');
  natsConnection* nc = connect_plain(url);
  natsSubscription* sub = nullptr;
  natsConnection_Subscribe(
      &sub, nc, "bench.echo",
      [](natsConnection* c, natsSubscription*, natsMsg* m, void*) {
        natsConnection_Publish(c, natsMsg_GetReply(m), reply.data(), static_cast<int>(reply.size()));
        natsMsg_Destroy(m);
      },
      nullptr);
  natsConnection_Flush(nc);
  pause();
  _exit(0);
}

Figures plain_request_reply(natsConnection* nc, std::size_t request_size, int rounds) {
  std::vector<char> request(request_size, 'q');
  std::vector<double> samples;
  for (int i = 0; i < rounds; ++i) {
    auto start = Clock::now();
    natsMsg* reply = nullptr;
    if (natsConnection_Request(&reply, nc, "bench.echo", request.data(), static_cast<int>(request.size()), 2000) !=
        NATS_OK)
      std::exit(7);
    natsMsg_Destroy(reply);
    samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  return summarize(samples);
}

// ---------------------------------------------------------------------------
// The daemon

Figures status_round_trips(StatusClient& client, int rounds) {
  std::vector<double> samples;
  for (int i = 0; i < rounds; ++i) {
    auto start = Clock::now();
    if (client.round_trip() == 0) std::exit(4);
    samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  return summarize(samples);
}

// kClients processes, each with one request outstanding at a time. They
// are forked before this process uses the broker (a fork does not take the
// library's threads along) and wait for the start signal.
class ClientPool {
 public:
  ClientPool() {
    int go[2];
    if (pipe(go) != 0) std::exit(8);
    for (int c = 0; c < kClients; ++c) {
      int fds[2];
      if (pipe(fds) != 0) std::exit(8);
      pid_t child = fork();
      if (child == 0) {
        close(fds[0]);
        close(go[1]);
        char start;
        if (read(go[0], &start, 1) != 1) _exit(0);
        StatusClient client(kDaemonNode);
        auto end = Clock::now() + std::chrono::seconds(kThroughputSeconds);
        long done = 0;
        while (Clock::now() < end && client.round_trip() != 0) ++done;
        (void)!write(fds[1], &done, sizeof done);
        _exit(0);
      }
      close(fds[1]);
      children_.emplace_back(child, fds[0]);
    }
    close(go[0]);
    go_ = go[1];
  }

  // Requests per second answered through the broker.
  double run() {
    std::string start(kClients, 'g');  // one byte for each child (others hold the pipe open too)
    (void)!write(go_, start.data(), start.size());
    long total = 0;
    for (auto [child, fd] : children_) {
      long done = 0;
      if (read(fd, &done, sizeof done) == sizeof done) total += done;
      close(fd);
      waitpid(child, nullptr, 0);
    }
    return static_cast<double>(total) / kThroughputSeconds;
  }

 private:
  std::vector<std::pair<pid_t, int>> children_;
  int go_ = -1;
};

void install(const fs::path& root) {
  for (auto d : {"tev", "tmp", "quor/etc", "quor/bin", "quor/log", "messages"}) fs::create_directories(root / d);
  for (auto f : {"quor.config", "quorobj.map", "quorlang.map"})
    fs::copy_file(fs::path(QUOR_SOURCE_DIR) / "etc" / f, root / "quor/etc" / f);
}

pid_t start_broker(const fs::path& root, int port) {
  pid_t broker = fork();
  if (broker == 0) {
    std::string log = (root / "broker.log").string();
    freopen(log.c_str(), "w", stdout);
    freopen(log.c_str(), "w", stderr);
    execlp("nats-server", "nats-server", "-a", "127.0.0.1", "-p", std::to_string(port).c_str(),
           static_cast<char*>(nullptr));
    _exit(127);
  }
  usleep(300000);
  return broker;
}

// Starts the daemon as node kDaemonNode; returns the starter (the daemon
// detaches from it).
pid_t start_daemon() {
  pid_t starter = fork();
  if (starter == 0) {
    take_node_name(kDaemonNode);
    execl(QUORDAEMON_PATH, QUORDAEMON_PATH, static_cast<char*>(nullptr));
    _exit(127);
  }
  return starter;
}

void print_row(const char* mode, const char* what, const Figures& f) {
  std::printf("%-10s %-36s %12.2f %12.2f\n", mode, what, f.mean_us, f.median_us);
}

}  // namespace

int main(int argc, char** argv) {
  int rounds = argc > 1 ? std::atoi(argv[1]) : 5000;
  if (geteuid() != 0) {
    std::fprintf(stderr, "nats_bench: skipped, needs root (node names of their own, the daemon runs as root)\n");
    return 0;
  }
  char pattern[] = "/tmp/quorbench.XXXXXX";
  fs::path root = mkdtemp(pattern);
  install(root);
  int port = free_port();
  std::string url = "nats://127.0.0.1:" + std::to_string(port);
  setenv("MOXGLBL0000", root.c_str(), 1);
  setenv("TEV_DIR", (root / "tev").c_str(), 1);
  setenv("TMPDIR", (root / "tmp").c_str(), 1);
  setenv("TEV_URL", url.c_str(), 1);
  unsetenv("MOXQUORDEBUG");
  unsetenv("MOXQUORSPIN");
  prctl(PR_SET_CHILD_SUBREAPER, 1);

  pid_t broker = start_broker(root, port);
  pid_t starter = start_daemon();
  for (int i = 0; i < 500 && !fs::exists(root / "tev/root" / std::string(kServerName)); ++i) usleep(10000);
  take_node_name(kClientNode);
  ClientPool pool;
  pid_t daemon = 0;
  {
    StatusClient remote(kDaemonNode);
    daemon = remote.daemon_pid();
    kill(starter, SIGKILL);
    waitpid(starter, nullptr, 0);
    if (daemon <= 0) {
      std::fprintf(stderr, "nats_bench: the daemon did not answer through the broker\n");
      return 1;
    }
    std::string idle_rss = proc_field(daemon, "VmRSS:");
    StatusClient local(kClientNode);  // the daemon's socket, as a local client reaches it
    std::size_t reply_size = remote.round_trip();
    pid_t responder = start_responder(url, reply_size + 190);
    natsConnection* nc = connect_plain(url);
    usleep(200000);

    std::printf("brief status: request %zu bytes, reply %zu bytes (+190 header); %d round trips per figure\n",
                remote.request_size(), reply_size, rounds);
    std::printf("%-10s %-36s %12s %12s\n", "", "", "mean µs", "median µs");
    for (bool pinned : {true, false}) {
      for (pid_t p : {getpid(), daemon, responder, broker}) pin(p, pinned);
      const char* mode = pinned ? "pinned" : "unpinned";
      Figures plain = plain_request_reply(nc, remote.request_size() + 190, rounds);
      Figures status = status_round_trips(remote, rounds);
      Figures here = status_round_trips(local, rounds);
      std::fflush(stdout);
      print_row(mode, "plain libnats request/reply", plain);
      print_row(mode, "remote status through the broker", status);
      print_row(mode, "local status (backend on)", here);
      std::printf("%-10s %-36s %12.2f %12.2f   (goal <= 1.3)\n", mode, "ratio remote / plain",
                  status.mean_us / plain.mean_us, status.median_us / plain.median_us);
    }
    for (pid_t p : {getpid(), daemon, responder, broker}) pin(p, false);
    std::printf("throughput, %d remote clients: %.0f requests/s\n", kClients, pool.run());
    std::printf("daemon memory with the backend on: idle VmRSS %s; after the runs VmRSS %s, VmHWM %s (goal idle < 8 MiB)\n",
                idle_rss.c_str(), proc_field(daemon, "VmRSS:").c_str(), proc_field(daemon, "VmHWM:").c_str());
    kill(responder, SIGKILL);
    waitpid(responder, nullptr, 0);
  }
  kill(daemon, SIGTERM);
  waitpid(daemon, nullptr, 0);
  kill(broker, SIGTERM);
  waitpid(broker, nullptr, 0);
  fs::remove_all(root);
  return 0;
}
