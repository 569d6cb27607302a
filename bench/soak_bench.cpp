// Soak: a long run of mixed requests with agents against the real daemon,
// watching what must not grow: its memory, its open files, its child
// table and the shared-memory segments it created.
//
// Run as root (the daemon starts agents as "nobody"); not part of CI:
//   build/bench/soak_bench [REQUESTS]
//
// Every tenth part of the run prints a line. The mix, per eight requests:
// four brief status, one full status, one service request whose agent
// (quornull) runs and ends, one CLEANUP, one service request for an object
// that is not in the map (refused).
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

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

namespace {

std::vector<std::uint8_t> request(std::string_view type, std::string_view object = {}) {
  std::array<char, BUFFER_MAX> buf{};
  OutBuf out(buf);
  tran_header_put(type, "N", out);
  if (!object.empty()) {
    ObjectHeader hdr;
    hdr.object = std::string(object);
    hdr.action = "RUN";
    quor_hdr_write(hdr, out);
  }
  quor_trl_put("N", out);
  std::size_t length = out.pos;
  quor_wire_seal(buf, length);
  return std::vector<std::uint8_t>(buf.begin(), buf.begin() + static_cast<long>(length));
}

std::string proc_field(pid_t pid, const char* field) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);)
    if (line.rfind(field, 0) == 0) return line.substr(std::string(field).size() + 1);
  return "?";
}

long open_files(pid_t pid) {
  long n = 0;
  for ([[maybe_unused]] const auto& e : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) ++n;
  return n;
}

// Segments the daemon created that still exist; other programs' segments on
// the host come and go and must not count.
long segments(pid_t daemon) {
  shmid_ds ds{};
  int highest = shmctl(0, SHM_INFO, &ds);
  long n = 0;
  for (int i = 0; i <= highest; ++i)
    if (shmctl(i, SHM_STAT, &ds) >= 0 && ds.shm_cpid == daemon) ++n;
  return n;
}

// "N transactions in progress." of a brief status report.
std::string transactions(TevClient& client) {
  TevCallResult r = client.call(kServerName, request("B"), 5000);
  if (r.rc != 0 || r.replies.empty()) return "?";
  std::vector<char> plain(r.replies.back().payload.begin(), r.replies.back().payload.end());
  std::size_t length = quor_wire_open(plain, plain.size());
  std::string text(plain.data(), length);
  std::size_t at = text.find(" transactions in progress.");
  if (at == std::string::npos) return "?";
  std::size_t start = text.rfind(' ', at - 1);
  return text.substr(start + 1, at - start - 1);
}

}  // namespace

int main(int argc, char** argv) {
  long total = argc > 1 ? std::atol(argv[1]) : 100000;
  if (geteuid() != 0) {
    std::fprintf(stderr, "soak_bench: skipped, needs root (agents are started as another account)\n");
    return 0;
  }
  fs::path root = bench::scratch_root("soak");
  std::ofstream(root / "quor/etc/quor.config") << "LOGIN_REQUIRED: 0\nDEFAULT_LOGIN_NAME: nobody\n";
  std::ofstream(root / "quor/etc/quorobj.map") << "NULL quornull\n";
  std::ofstream(root / "quor/etc/quorlang.map") << "DEFAULT english\n";
  fs::copy_file(QUORNULL_PATH, root / "quor/bin/quornull");
  fs::copy_file(QUORUSERPGM_PATH, root / "quor/bin/quoruserpgm");
  setenv("MOXGLBL0000", root.c_str(), 1);
  setenv("TEV_DIR", (root / "tev").c_str(), 1);
  setenv("TMPDIR", (root / "tmp").c_str(), 1);
  unsetenv("QUORNULL_FIFO");
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

  const std::vector<std::uint8_t> brief = request("B"), full = request("F"), cleanup = request("C"),
                                  service = request("S", "NULL"), refused = request("S", "NOSUCH");
  pid_t daemon = 0;
  auto start = std::chrono::steady_clock::now();
  {
    TevClient client;
    // The daemon's pid, from its report.
    TevCallResult r = client.call(kServerName, brief, 5000);
    if (r.rc != 0) return 1;
    std::vector<char> plain(r.replies.back().payload.begin(), r.replies.back().payload.end());
    std::string text(plain.data(), quor_wire_open(plain, plain.size()));
    daemon = std::atoi(text.c_str() + text.find("pid=") + 4);
    std::printf("%9s %10s %10s %6s %13s %9s\n", "requests", "VmRSS", "VmHWM", "fds", "transactions", "segments");
    auto report = [&](long done) {
      std::printf("%9ld %10s %10s %6ld %13s %9ld\n", done, proc_field(daemon, "VmRSS:").c_str(),
                  proc_field(daemon, "VmHWM:").c_str(), open_files(daemon), transactions(client).c_str(),
                  segments(daemon));
      std::fflush(stdout);
    };
    report(0);
    for (long i = 1; i <= total; ++i) {
      switch (i % 8) {
        case 0: client.call(kServerName, full, 5000); break;
        case 1: client.call(kServerName, service, 0, false); break;
        case 2: client.call(kServerName, cleanup, 0, false); break;
        case 3: client.call(kServerName, refused, 5000); break;
        default: client.call(kServerName, brief, 5000); break;
      }
      if (i % (total / 10 > 0 ? total / 10 : 1) == 0) report(i);
    }
    // Let the last agents end, then one more sweep.
    usleep(200000);
    client.call(kServerName, cleanup, 0, false);
    report(total);
    client.call(kServerName, request("T"), 0, false);
  }
  while (waitpid(-1, nullptr, 0) > 0) {
  }
  std::printf("%ld requests in %.1f s\n", total,
              std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  fs::remove_all(root);
  return 0;
}
