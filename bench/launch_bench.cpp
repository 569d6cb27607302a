// Agent launch: a service request through the real daemon until its agent
// has run, against a plain fork and exec of the same program, in the same
// run. The agent (quornull) writes a byte to a FIFO when it runs; both
// paths are timed from the request (or the fork) to that byte.
//
// Run as root (the daemon runs as root and starts the agent as "nobody"):
//   build/bench/launch_bench [LAUNCHES]
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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
#include "tev_client.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

struct Figures {
  double mean_us = 0;
  double median_us = 0;
};

Figures summarize(std::vector<double>& samples) {
  std::sort(samples.begin(), samples.end());
  double sum = 0;
  for (double s : samples) sum += s;
  return {sum / static_cast<double>(samples.size()), samples[samples.size() / 2]};
}

void wait_byte(int fifo) {
  char c;
  if (read(fifo, &c, 1) != 1) std::exit(3);
}

std::vector<std::uint8_t> service_request() {
  std::array<char, BUFFER_MAX> buf{};
  OutBuf out(buf);
  tran_header_put("S", "N", out);
  ObjectHeader hdr;
  hdr.object = std::getenv("LAUNCH_OBJECT") ? std::getenv("LAUNCH_OBJECT") : "NULL";
  hdr.action = "RUN";
  quor_hdr_write(hdr, out);
  quor_trl_put("N", out);
  std::size_t length = out.pos;
  quor_wire_seal(buf, length);
  return std::vector<std::uint8_t>(buf.begin(), buf.begin() + static_cast<long>(length));
}

}  // namespace

int main(int argc, char** argv) {
  int launches = argc > 1 ? std::atoi(argv[1]) : 1000;
  if (geteuid() != 0) {
    std::fprintf(stderr, "launch_bench: skipped, needs root (agents are started as another account)\n");
    return 0;
  }
  fs::path root = bench::scratch_root("launch");
  std::ofstream(root / "quor/etc/quor.config") << "LOGIN_REQUIRED: 0\nDEFAULT_LOGIN_NAME: nobody\n";
  std::ofstream(root / "quor/etc/quorobj.map") << "NULL quornull\nLOGON quornull\n";
  std::ofstream(root / "quor/etc/quorlang.map") << "DEFAULT english\n";
  fs::copy_file(QUORNULL_PATH, root / "quor/bin/quornull");
  fs::copy_file(QUORUSERPGM_PATH, root / "quor/bin/quoruserpgm");
  std::string fifo_path = (root / "ran").string();
  mkfifo(fifo_path.c_str(), 0666);
  chmod(fifo_path.c_str(), 0666);
  int fifo = open(fifo_path.c_str(), O_RDWR | O_CLOEXEC);  // never sees end of file

  setenv("MOXGLBL0000", root.c_str(), 1);
  setenv("TEV_DIR", (root / "tev").c_str(), 1);
  setenv("TMPDIR", (root / "tmp").c_str(), 1);
  setenv("QUORNULL_FIFO", fifo_path.c_str(), 1);
  setenv("MOXQUORKEEPENV", "QUORNULL_FIFO", 1);  // agents get a clean environment
  unsetenv("MOXQUORDEBUG");
  unsetenv("MOXQUORSPIN");
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  pid_t starter = fork();
  if (starter == 0) {
    execl(QUORDAEMON_PATH, QUORDAEMON_PATH, static_cast<char*>(nullptr));
    _exit(127);
  }
  for (int i = 0; i < 500 && !fs::exists(root / "tev/root" / std::string(kServerName)); ++i) usleep(10000);
  kill(starter, SIGKILL);
  waitpid(starter, nullptr, 0);

  std::vector<std::uint8_t> request = service_request();
  std::string program = (root / "quor/bin/quornull").string();
  std::vector<double> daemon_samples, plain_samples;
  {
    TevClient client;
    for (int i = 0; i < launches; ++i) {
      // Alternate, so that both paths see the same machine.
      auto start = Clock::now();
      if (client.call(kServerName, request, 0, false).rc != 0) return 4;
      wait_byte(fifo);
      daemon_samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());

      start = Clock::now();
      pid_t pid = fork();
      if (pid == 0) {
        execl(program.c_str(), "quornull", "-1", static_cast<char*>(nullptr));
        _exit(127);
      }
      wait_byte(fifo);
      plain_samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
      waitpid(pid, nullptr, 0);
    }
    // A terminate request ends the daemon in order.
    std::array<char, BUFFER_MAX> buf{};
    OutBuf out(buf);
    tran_header_put("T", "N", out);
    quor_trl_put("N", out);
    std::size_t length = out.pos;
    quor_wire_seal(buf, length);
    client.call(kServerName, std::vector<std::uint8_t>(buf.begin(), buf.begin() + static_cast<long>(length)), 0,
                false);
  }
  while (waitpid(-1, nullptr, 0) > 0) {
  }
  Figures daemon = summarize(daemon_samples), plain = summarize(plain_samples);
  std::printf("%d launches each                      mean µs   median µs\n", launches);
  std::printf("service request to running agent  %10.1f  %10.1f\n", daemon.mean_us, daemon.median_us);
  std::printf("plain fork and exec               %10.1f  %10.1f\n", plain.mean_us, plain.median_us);
  std::printf("ratio                             %10.2f  %10.2f   (goal <= 1.3)\n", daemon.mean_us / plain.mean_us,
              daemon.median_us / plain.median_us);
  close(fifo);
  fs::remove_all(root);
  return 0;
}
