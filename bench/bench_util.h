// What the benchmarks share: summaries of timed samples, CPU pinning, a
// process's memory and CPU time, the plain datagram ping-pong that daemon
// round trips are held against, and a client sending brief status requests
// through the transport.
#pragma once

#include <sched.h>
#include <signal.h>
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
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "quortev.h"
#include "quortran.h"
#include "quortrl.h"
#include "quorutl.h"
#include "tev.h"

namespace bench {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

struct Figures {
  double mean_us = 0;
  double median_us = 0;
};

inline Figures summarize(std::vector<double>& samples) {
  std::sort(samples.begin(), samples.end());
  double sum = 0;
  for (double s : samples) sum += s;
  return {sum / static_cast<double>(samples.size()), samples[samples.size() / 2]};
}

// Pins every thread of `pid` to CPU 0, or lets them run anywhere.
inline void pin(pid_t pid, bool on) {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (on) {
    CPU_SET(0, &set);
  } else {
    for (int cpu = 0; cpu < CPU_SETSIZE && cpu < static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN)); ++cpu)
      CPU_SET(cpu, &set);
  }
  std::error_code ec;
  bool any = false;
  for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", ec)) {
    sched_setaffinity(static_cast<pid_t>(std::stol(task.path().filename().string())), sizeof set, &set);
    any = true;
  }
  if (!any) sched_setaffinity(pid, sizeof set, &set);
}

// A line of /proc/PID/status ("VmRSS:" ...), without its name.
inline std::string proc_field(pid_t pid, const char* field) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);)
    if (line.rfind(field, 0) == 0) return line.substr(std::string(field).size() + 1);
  return "?";
}

// Brief status requests to the daemon on `node` (this host's by default).
class StatusClient {
 public:
  explicit StatusClient(const std::string& node = tev_node_name()) {
    static int made = 0;
    id_.set_app_name("BENCH." + std::to_string(getpid()) + "." + std::to_string(++made));
    if (TevInit(fb_, id_, kTevModeNormal) != 0) {
      std::fprintf(stderr, "bench: cannot register: %s\n", fb_.FB_ErrorText.c_str());
      std::exit(3);
    }
    id_ = fb_.FB_Local_Id;
    server_.set_system_id(node);
    server_.set_app_name(kServerName);
    std::array<char, BUFFER_MAX> buf{};
    OutBuf out(buf);
    tran_header_put("B", "N", out);
    quor_trl_put("N", out);
    quor_wire_seal(buf, out.pos);
    request_.assign(buf.begin(), buf.begin() + static_cast<long>(out.pos));
    reply_.resize(kTevMaxPayload);
  }
  ~StatusClient() { TevTerm(fb_, id_, kTevModeNormal); }
  StatusClient(const StatusClient&) = delete;
  StatusClient& operator=(const StatusClient&) = delete;

  // One brief status round trip; the reply's size, 0 on failure.
  std::size_t round_trip() {
    TevFeedback fb;
    if (TevSend(fb, id_, server_, request_.data(), request_.size(), kTevModeNormal, ++conversation_) != 0) return 0;
    TevIdentity sender;
    TevInquiry inquiry;
    if (TevRecvTimed(fb, id_, sender, reply_.data(), reply_.size(), inquiry, 5000) != 0) return 0;
    return fb.FB_DataLen;
  }
  std::size_t request_size() const { return request_.size(); }

  // The daemon's pid from the first line of its report.
  pid_t daemon_pid() {
    std::size_t n = round_trip();
    std::vector<char> plain(reply_.begin(), reply_.begin() + static_cast<long>(n));
    if (n == 0 || quor_wire_open(plain, n) == 0) return 0;
    std::string text(plain.begin(), plain.end());
    std::size_t at = text.find("pid=");
    return at == std::string::npos ? 0 : static_cast<pid_t>(std::atol(text.c_str() + at + 4));
  }

 private:
  TevIdentity id_, server_;
  TevFeedback fb_;
  std::vector<std::uint8_t> request_, reply_;
  std::uint32_t conversation_ = 0;
};

// A scratch installation root "/tmp/quor<NAME>.XXXXXX" with the directories
// the daemon uses; its transport and temporary directories are open to the
// accounts agents run as, as the transport makes them.
inline fs::path scratch_root(const std::string& name) {
  std::string pattern = "/tmp/quor" + name + ".XXXXXX";
  fs::path root = mkdtemp(pattern.data());
  fs::permissions(root, fs::perms::others_exec | fs::perms::group_exec, fs::perm_options::add);
  for (auto d : {"tev", "tmp", "quor/etc", "quor/bin", "quor/log"}) fs::create_directories(root / d);
  for (auto d : {"tev", "tmp"}) fs::permissions(root / d, fs::perms::all | fs::perms::sticky_bit);
  return root;
}

// ---------------------------------------------------------------------------
// Baseline: a request of `request_size` bytes answered by `reply_size` bytes
// between two processes over AF_UNIX datagram sockets.

inline sockaddr_un address(const fs::path& path) {
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  path.string().copy(a.sun_path, sizeof a.sun_path - 1);
  return a;
}

inline int bound_socket(const fs::path& path) {
  int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
  sockaddr_un a = address(path);
  unlink(path.c_str());
  if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) std::exit(2);
  return fd;
}

inline Figures ping_pong(const fs::path& dir, std::size_t request_size, std::size_t reply_size, int rounds, bool pinned) {
  fs::path server_path = dir / "pong", client_path = dir / "ping";
  int server = bound_socket(server_path);
  pid_t child = fork();
  if (child == 0) {
    std::vector<char> buf(65536), reply(reply_size, 'r');
    sockaddr_un from{};
    for (;;) {
      socklen_t len = sizeof from;
      ssize_t n = recvfrom(server, buf.data(), buf.size(), 0, reinterpret_cast<sockaddr*>(&from), &len);
      if (n <= 0) _exit(0);
      sendto(server, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&from), len);
    }
  }
  close(server);
  pin(child, pinned);
  pin(0, pinned);
  int client = bound_socket(client_path);
  sockaddr_un to = address(server_path);
  std::vector<char> request(request_size, 'q'), buf(65536);
  std::vector<double> samples;
  for (int i = 0; i < rounds; ++i) {
    auto start = Clock::now();
    sendto(client, request.data(), request.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    recv(client, buf.data(), buf.size(), 0);
    samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  close(client);
  pin(0, false);
  return summarize(samples);
}

// CPU time (user + system) the process `pid` has used so far, in seconds.
inline double cpu_of(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::size_t paren = text.rfind(')');
  if (paren == std::string::npos) return 0;
  std::istringstream fields(text.substr(paren + 2));
  std::string skip;
  for (int i = 0; i < 11; ++i) fields >> skip;  // state .. cmajflt
  double user = 0, system = 0;
  fields >> user >> system;
  return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

}  // namespace bench
