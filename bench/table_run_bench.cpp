// A CSV table sent end to end, against a plain copy of the same file, in the
// same run: `quorctl run SINK RECEIVE --table FILE.csv` through the real
// daemon to an agent (quorsink) that reads the whole table file and answers,
// timed from quorctl's start to its exit; against `cp FILE.csv COPY`. Also
// `quorctl csv-to-table` alone. For each quorctl run: wall time, CPU time
// (user + system) and peak memory, from the child's resource usage.
//
// Run as root (the daemon runs as root and starts the agent as "nobody"):
//   build/bench/table_run_bench [MEGABYTES [RUNS]]
// Figures are medians of RUNS runs (default 3) of each, alternating.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
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

using bench::cpu_of;

namespace {

struct Run {
  double seconds = 0;
  double cpu_seconds = 0;
  double daemon_cpu_seconds = 0;  // the daemon's CPU time meanwhile
  long peak_kb = 0;
  int status = -1;
  std::string out;
};

// Runs `argv`, its standard output captured; times it and takes its usage.
Run run(const std::vector<std::string>& argv) {
  char out_path[] = "/tmp/quorbench.out.XXXXXX";
  int out = mkstemp(out_path);
  auto start = Clock::now();
  pid_t pid = fork();
  if (pid == 0) {
    dup2(out, 1);
    std::vector<char*> a;
    for (const std::string& s : argv) a.push_back(const_cast<char*>(s.c_str()));
    a.push_back(nullptr);
    execv(a[0], a.data());
    _exit(127);
  }
  Run r;
  rusage usage{};
  wait4(pid, &r.status, 0, &usage);
  r.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  r.cpu_seconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                  static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  r.peak_kb = usage.ru_maxrss;
  char text[4096];
  ssize_t n = pread(out, text, sizeof text - 1, 0);
  r.out.assign(text, static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
  close(out);
  unlink(out_path);
  return r;
}

// A CSV of about `megabytes` MB: an id, a quoted name with a comma, a city,
// an amount, a note of varying length (some empty, some quoted with a
// doubled quote). Returns the number of rows.
long write_csv(const fs::path& path, long megabytes) {
  std::ofstream out(path, std::ios::binary);
  const char* cities[] = {"Berlin", "Lyon", "Porto", "Graz", "Oslo", "Turku", "Gent"};
  std::string row;
  long rows = 0;
  for (long size = 0; size < megabytes * 1000000; ++rows) {
    row = std::to_string(rows) + ",\"Smith, " + std::to_string(rows * 7919 % 100000) + "\"," +
          cities[rows % 7] + "," + std::to_string(rows % 100000) + "." + std::to_string(rows % 90 + 10) + ",";
    if (rows % 5 == 1) row += "\"said \"\"yes\"\"\"";
    else if (rows % 5 != 0) row.append(static_cast<std::size_t>(8 + rows % 41), static_cast<char>('a' + rows % 26));
    row += "\n";
    out << row;
    size += static_cast<long>(row.size());
  }
  return rows;
}

Run median(std::vector<Run> runs) {
  std::sort(runs.begin(), runs.end(), [](const Run& a, const Run& b) { return a.seconds < b.seconds; });
  return runs[runs.size() / 2];
}

void send_terminate() {
  std::array<char, BUFFER_MAX> buf{};
  OutBuf out(buf);
  tran_header_put("T", "N", out);
  quor_trl_put("N", out);
  std::size_t length = out.pos;
  quor_wire_seal(buf, length);
  TevClient client;
  client.call(kServerName, std::vector<std::uint8_t>(buf.begin(), buf.begin() + static_cast<long>(length)), 0, false);
}

}  // namespace

int main(int argc, char** argv) {
  long megabytes = argc > 1 ? std::atol(argv[1]) : 100;
  int runs = argc > 2 ? std::max(1, std::atoi(argv[2])) : 3;
  if (geteuid() != 0) {
    std::fprintf(stderr, "table_run_bench: skipped, needs root (agents are started as another account)\n");
    return 0;
  }
  fs::path root = bench::scratch_root("table");
  std::ofstream(root / "quor/etc/quor.config") << "LOGIN_REQUIRED: 0\nDEFAULT_LOGIN_NAME: nobody\n";
  std::ofstream(root / "quor/etc/quorobj.map") << "SINK quorsink\n";
  std::ofstream(root / "quor/etc/quorlang.map") << "DEFAULT english\n";
  fs::copy_file(QUORSINK_PATH, root / "quor/bin/quorsink");
  fs::copy_file(QUORUSERPGM_PATH, root / "quor/bin/quoruserpgm");
  fs::path csv = root / "table.csv", copy = root / "copy.csv", table = root / "table.rdw";
  long rows = write_csv(csv, megabytes);
  double csv_mb = static_cast<double>(fs::file_size(csv)) / 1e6;

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
  kill(starter, SIGKILL);  // it only waits to return to a shell
  waitpid(starter, nullptr, 0);
  // The daemon it left behind is now a child of this process.
  pid_t daemon = 0;
  for (const auto& e : fs::directory_iterator("/proc")) {
    std::ifstream stat(e.path() / "stat");
    std::string pid, name;
    char state = 0;
    long ppid = 0;
    if (stat >> pid >> name >> state >> ppid && name == "(quordaemon)" && ppid == getpid()) daemon = std::stoi(pid);
  }

  const std::string quorctl = QUORCTL_PATH;
  std::vector<Run> cps, sends, converts;
  std::string expected = "RECEIVED ";
  for (int i = 0; i < runs; ++i) {
    cps.push_back(run({"/bin/cp", csv.string(), copy.string()}));
    fs::remove(copy);
    double daemon_before = cpu_of(daemon);
    sends.push_back(run({quorctl, "--user", "nobody", "--timeout", "120", "run", "SINK", "RECEIVE", "--table",
                         csv.string()}));
    sends.back().daemon_cpu_seconds = cpu_of(daemon) - daemon_before;
    converts.push_back(run({quorctl, "csv-to-table", csv.string(), table.string()}));
  }
  send_terminate();
  while (waitpid(-1, nullptr, 0) > 0) {
  }
  Run cp = median(cps), send = median(sends), convert = median(converts);
  bool ok = send.status == 0 && send.out.find(" " + std::to_string(rows) + "\n") != std::string::npos &&
            convert.status == 0;
  std::printf("CSV of %.1f MB, %ld rows; medians of %d runs\n", csv_mb, rows, runs);
  std::printf("                                   wall s   ratio to cp   CPU s   peak MB\n");
  std::printf("cp of the file                    %7.3f\n", cp.seconds);
  std::printf("quorctl run --table (to agent)    %7.3f   %8.1f     %7.3f   %7.1f   (goal <= 0.5 s per 100 MB, < 64 MB)\n",
              send.seconds, send.seconds / cp.seconds, send.cpu_seconds, static_cast<double>(send.peak_kb) / 1024.0);
  std::printf("quorctl csv-to-table              %7.3f   %8.1f     %7.3f   %7.1f   %.0f MB/s\n", convert.seconds,
              convert.seconds / cp.seconds, convert.cpu_seconds, static_cast<double>(convert.peak_kb) / 1024.0, csv_mb / convert.seconds);
  std::printf("the daemon's CPU time during quorctl run: %.3f s\n", send.daemon_cpu_seconds);
  if (!ok) std::printf("FAILED: run status %d, answer \"%s\"; csv-to-table status %d\n", send.status, send.out.c_str(),
                       convert.status);
  fs::remove_all(root);
  return ok ? 0 : 1;
}
