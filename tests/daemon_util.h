// The real daemon binary in a temporary installation root with its own
// transport directory, for integration tests. The process is killed and
// reaped, and the directory removed, when the object goes away, also when a
// test fails half-way.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "core_util.h"
#include "quortev.h"
#include "tev_client.h"

namespace testutil {

class Daemon {
 public:
  // Starts QUORDAEMON_PATH with `args`, in debug mode unless told otherwise.
  explicit Daemon(std::vector<std::string> args = {}, bool debug = true,
                  std::map<std::string, std::string> extra_env = {})
      : tev_dir_(root_.path() / "tev") {
    std::filesystem::create_directories(tev_dir_);
    std::filesystem::create_directories(root_.path() / "tmp");
    std::vector<std::string> env = {"TEV_DIR=" + tev_dir_.string(),
                                    "MOXGLBL0000=" + root_.str(), "PATH=/usr/bin:/bin"};
    if (debug) env.push_back("MOXQUORDEBUG=1");
    for (auto& [k, v] : extra_env) env.push_back(k + "=" + v);
    std::vector<std::string> argv = {QUORDAEMON_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    std::string out = stdout_path().string();

    pid_ = fork();
    if (pid_ == 0) {
      int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (fd >= 0) {
        dup2(fd, 1);
        dup2(fd, 2);
        close(fd);
      }
      std::vector<char*> a, e;
      for (auto& s : argv) a.push_back(s.data());
      a.push_back(nullptr);
      for (auto& s : env) e.push_back(s.data());
      e.push_back(nullptr);
      execve(a[0], a.data(), e.data());
      _exit(127);
    }
    client_env_ = std::make_unique<EnvGuard>("TEV_DIR", tev_dir_.string());
  }

  ~Daemon() {
    if (pid_ > 0 && !exited_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  pid_t pid() const { return pid_; }
  const TempDir& root() const { return root_; }
  std::filesystem::path stdout_path() const { return root_.path() / "daemon.out"; }
  std::string output() const { return read_file(stdout_path()); }
  std::string log() const { return read_file(root_.path() / "quor/log/quordaemon.log"); }

  // Waits until the daemon's socket exists (it has registered).
  bool wait_ready(std::chrono::milliseconds limit = std::chrono::seconds(10)) const {
    auto socket = tev_dir_ / std::string(kServerName);
    for (auto end = std::chrono::steady_clock::now() + limit; std::chrono::steady_clock::now() < end;) {
      if (std::filesystem::exists(socket)) return true;
      if (!alive()) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

  bool alive() const {
    if (pid_ <= 0 || exited_) return false;
    pid_t r = waitpid(pid_, &status_, WNOHANG);
    if (r == pid_) exited_ = true;
    return r == 0;
  }

  // Exit status once the daemon ends within `limit`; -1 if it does not, or
  // was killed by a signal.
  int wait_exit(std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    for (auto end = std::chrono::steady_clock::now() + limit; std::chrono::steady_clock::now() < end;) {
      if (!alive() && exited_) return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return -1;
  }

  // A plain request of `type` (transaction header and trailer), sealed.
  static std::vector<std::uint8_t> request(std::string_view type) {
    std::size_t length = 0;
    auto buf = make_request(type, length);
    quor_wire_seal(buf, length);
    return std::vector<std::uint8_t>(buf.begin(), buf.begin() + static_cast<long>(length));
  }

  std::filesystem::path tev_dir() const { return tev_dir_; }

 private:
  TempDir root_;
  std::filesystem::path tev_dir_;
  std::unique_ptr<EnvGuard> client_env_;
  pid_t pid_ = -1;
  mutable int status_ = 0;
  mutable bool exited_ = false;
};

}  // namespace testutil
