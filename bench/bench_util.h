// What the benchmarks share: summaries of timed samples, pinning to one CPU,
// and the plain datagram ping-pong that daemon round trips are held against.
#pragma once

#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

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

inline void pin(pid_t pid, bool on) {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (on) {
    CPU_SET(0, &set);
  } else {
    for (int cpu = 0; cpu < CPU_SETSIZE && cpu < static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN)); ++cpu)
      CPU_SET(cpu, &set);
  }
  sched_setaffinity(pid, sizeof set, &set);
}

inline std::string proc_field(pid_t pid, const char* field) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);)
    if (line.rfind(field, 0) == 0) return line.substr(std::string(field).size() + 1);
  return "?";
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
