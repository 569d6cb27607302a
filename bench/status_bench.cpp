// Round trips of a brief status request through the real transport to the
// real daemon, against a plain datagram ping-pong of the same sizes between
// two processes, both pinned to one CPU and unpinned; then the daemon's
// resident memory when idle and after 100,000 requests.
//
// Run as root (the daemon detaches and runs as root):
//   build/bench/status_bench [ROUND_TRIPS]
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench_util.h"
#include "quortev.h"
#include "quortran.h"
#include "quortrl.h"
#include "quorutl.h"
#include "tev.h"

using namespace bench;

namespace {

// The same exchange through the transport library, with an echo server in
// place of the daemon: what the transport itself costs.
Figures transport_echo(std::size_t request_size, std::size_t reply_size, int rounds, bool pinned) {
  TevIdentity server_id;
  server_id.set_app_name("ECHO");
  TevFeedback server_fb;
  if (TevInit(server_fb, server_id, kTevModeNormal) != 0) std::exit(5);
  server_id = server_fb.FB_Local_Id;
  pid_t child = fork();
  if (child == 0) {
    std::vector<std::uint8_t> buf(kTevMaxPayload), reply(reply_size, 'r');
    for (;;) {
      TevFeedback fb;
      TevIdentity from;
      TevInquiry inquiry;
      if (TevRecv(fb, server_id, from, buf.data(), buf.size(), kTevModeRecvAny, inquiry) != 0) continue;
      TevSend(fb, server_id, from, reply.data(), reply.size(), kTevModeNormal, fb.FB_InConversId);
    }
  }
  pin(child, pinned);
  pin(0, pinned);
  TevIdentity id;
  id.set_app_name("ECHOCLIENT");
  TevFeedback fb;
  if (TevInit(fb, id, kTevModeNormal) != 0) std::exit(5);
  id = fb.FB_Local_Id;
  std::vector<std::uint8_t> request(request_size, 'q'), buf(kTevMaxPayload);
  std::vector<double> samples;
  for (int i = 0; i < rounds; ++i) {
    auto start = Clock::now();
    TevSend(fb, id, server_id, request.data(), request.size(), kTevModeNormal, static_cast<std::uint32_t>(i + 1));
    TevIdentity from;
    TevInquiry inquiry;
    TevRecv(fb, id, from, buf.data(), buf.size(), kTevModeRecvAny, inquiry);
    samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  TevTerm(fb, id, kTevModeNormal);
  TevTerm(server_fb, server_id, kTevModeNormal);
  pin(0, false);
  return summarize(samples);
}

// ---------------------------------------------------------------------------
// The daemon

Figures status_round_trips(StatusClient& client, pid_t daemon, int rounds, bool pinned) {
  pin(daemon, pinned);
  pin(0, pinned);
  std::vector<double> samples;
  for (int i = 0; i < rounds; ++i) {
    auto start = Clock::now();
    if (client.round_trip() == 0) std::exit(4);
    samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  pin(0, false);
  pin(daemon, false);
  return summarize(samples);
}

void install(const fs::path& root) {
  for (auto d : {"tev", "tmp", "quor/etc", "quor/bin", "quor/log", "messages"}) fs::create_directories(root / d);
  for (auto f : {"quor.config", "quorobj.map", "quorlang.map"})
    fs::copy_file(fs::path(QUOR_SOURCE_DIR) / "etc" / f, root / "quor/etc" / f);
}

}  // namespace

int main(int argc, char** argv) {
  int rounds = argc > 1 ? std::atoi(argv[1]) : 20000;
  if (geteuid() != 0) {
    std::fprintf(stderr, "status_bench: skipped, needs root (the daemon detaches and runs as root)\n");
    return 0;
  }
  char pattern[] = "/tmp/quorbench.XXXXXX";
  fs::path root = mkdtemp(pattern);
  install(root);
  setenv("MOXGLBL0000", root.c_str(), 1);
  setenv("TEV_DIR", (root / "tev").c_str(), 1);
  setenv("TMPDIR", (root / "tmp").c_str(), 1);
  unsetenv("MOXQUORDEBUG");
  unsetenv("MOXQUORSPIN");
  prctl(PR_SET_CHILD_SUBREAPER, 1);

  pid_t starter = fork();
  if (starter == 0) {
    execl(QUORDAEMON_PATH, QUORDAEMON_PATH, static_cast<char*>(nullptr));
    _exit(127);
  }
  for (int i = 0; i < 500 && !fs::exists(root / "tev/root" / std::string(kServerName)); ++i) usleep(10000);
  pid_t daemon = 0;
  {
    StatusClient client;
    daemon = client.daemon_pid();
    kill(starter, SIGKILL);
    waitpid(starter, nullptr, 0);
    if (daemon <= 0) {
      std::fprintf(stderr, "status_bench: the daemon did not answer\n");
      return 1;
    }
    std::string idle_rss = proc_field(daemon, "VmRSS:");

    std::size_t reply_size = client.round_trip();
    std::printf("brief status: request %zu bytes, reply %zu bytes; %d round trips per figure\n",
                client.request_size(), reply_size, rounds);
    std::printf("%-10s %-28s %12s %12s\n", "", "", "mean µs", "median µs");
    for (bool pinned : {true, false}) {
      Figures plain = ping_pong(root, client.request_size() + 190, reply_size + 190, rounds, pinned);
      Figures echo = transport_echo(client.request_size(), reply_size, rounds, pinned);
      Figures status = status_round_trips(client, daemon, rounds, pinned);
      const char* mode = pinned ? "pinned" : "unpinned";
      std::printf("%-10s %-28s %12.2f %12.2f\n", mode, "plain datagram ping-pong", plain.mean_us, plain.median_us);
      std::printf("%-10s %-28s %12.2f %12.2f\n", mode, "transport echo server", echo.mean_us, echo.median_us);
      std::printf("%-10s %-28s %12.2f %12.2f\n", mode, "status through the daemon", status.mean_us, status.median_us);
      std::printf("%-10s %-28s %12.2f %12.2f   (goal <= 1.5)\n", mode, "ratio", status.mean_us / plain.mean_us,
                  status.median_us / plain.median_us);
    }

    int sent = 2 * rounds + 2;
    for (; sent < 100000; ++sent)
      if (client.round_trip() == 0) return 4;
    std::printf("daemon memory: idle VmRSS %s; after %d requests VmRSS %s, VmHWM %s\n", idle_rss.c_str(), sent,
                proc_field(daemon, "VmRSS:").c_str(), proc_field(daemon, "VmHWM:").c_str());
  }
  kill(daemon, SIGTERM);
  waitpid(daemon, nullptr, 0);
  fs::remove_all(root);
  return 0;
}
