// The real daemon binary in a temporary installation root with its own
// transport directory, for integration tests. The process is killed and
// reaped, and the directory removed, when the object goes away, also when a
// test fails half-way.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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
  // Starts QUORDAEMON_PATH with `args`, in debug mode unless told otherwise,
  // in an installation root holding the sample configuration and maps.
  explicit Daemon(std::vector<std::string> args = {}, bool debug = true,
                  std::map<std::string, std::string> extra_env = {})
      : tev_dir_(root_.path() / "tev") {
    install(root_.path());
    start(std::move(args), debug, std::move(extra_env));
  }

  // A daemon in an installation root that `prepare` fills first.
  template <class Prepare>
  Daemon(Prepare prepare, std::vector<std::string> args, bool debug = true,
         std::map<std::string, std::string> extra_env = {})
      : tev_dir_(root_.path() / "tev") {
    install(root_.path());
    prepare(root_.path());
    start(std::move(args), debug, std::move(extra_env));
  }

  // The layout of an installation root: the sample etc files, the login
  // program, and the directories the daemon writes into.
  static void install(const std::filesystem::path& root) {
    namespace fs = std::filesystem;
    for (auto dir : {"tev", "tmp", "quor/etc", "quor/bin", "quor/log", "messages"})
      fs::create_directories(root / dir);
    // As the transport and the system make them: anyone may register or
    // make a temporary file there.
    for (auto dir : {"tev", "tmp"}) fs::permissions(root / dir, fs::perms::all | fs::perms::sticky_bit);
    for (auto file : {"quor.config", "quorobj.map", "quorlang.map"})
      fs::copy_file(fs::path(QUOR_SOURCE_DIR) / "etc" / file, root / "quor/etc" / file,
                    fs::copy_options::overwrite_existing);
    fs::copy(fs::path(QUOR_SOURCE_DIR) / "etc/messages", root / "messages",
             fs::copy_options::recursive | fs::copy_options::overwrite_existing);
    for (fs::path program : {QUORUSERPGM_PATH, QUORPROBE_PATH, QUORUTIL_PATH, QUORLOGON_PATH})
      fs::copy_file(program, root / "quor/bin" / program.filename(), fs::copy_options::overwrite_existing);
  }

  ~Daemon() { stop(); }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Kills the daemon (and a detached daemon) and reaps it. Its children
  // (login programs, agents) go first, so that none outlives the test, and
  // so do the programs of this installation that a daemon which crashed or
  // was killed left behind. A coverage build asks them with SIGTERM first,
  // so that they write their counters. A daemon that ended before without
  // the test seeing it (a crash after the test's last request) fails it.
  void stop() {
    if (pid_ > 0 && !exited_ && !alive() && exited_)
      ADD_FAILURE() << "the daemon ended unnoticed, status " << status_ << "\n" << output();
    bool running = pid_ > 0 && !exited_;
    std::string programs = (root_.path() / "quor/bin/").string();
    std::vector<pid_t> others = processes(0, {}, false, programs);
    if (running)
      for (pid_t child : processes(pid_, {})) others.push_back(child);
#ifdef QUOR_COVERAGE
    for (pid_t pid : others) kill(pid, SIGTERM);
    if (running) kill(pid_, SIGTERM);
    eventually([&] {
      return !alive() && std::none_of(others.begin(), others.end(), [](pid_t p) { return kill(p, 0) == 0; });
    }, std::chrono::seconds(2));
    running = running && !exited_;
#endif
    for (pid_t pid : others) kill(pid, SIGKILL);
    if (running) {
      kill(pid_, SIGKILL);
      waitpid(pid_, &status_, 0);
      exited_ = true;
    }
    // Segments the daemon made that nobody removed (a killed agent's, or a
    // daemon's that crashed) go too.
    shmid_ds ds{};
    int highest = pid_ > 0 ? shmctl(0, SHM_INFO, &ds) : -1;
    for (int i = 0; i <= highest; ++i) {
      int id = shmctl(i, SHM_STAT, &ds);
      if (id >= 0 && ds.shm_cpid == pid_) shmctl(id, IPC_RMID, nullptr);
    }
  }

 private:
  void start(std::vector<std::string> args, bool debug, std::map<std::string, std::string> extra_env) {
    debug_ = debug;
    // A daemon that detaches is orphaned by its parent; as subreaper this
    // process inherits it, so tests can reap it and see its exit status.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    std::vector<std::string> env = {"TEV_DIR=" + tev_dir_.string(), "MOXGLBL0000=" + root_.str(),
                                    "TMPDIR=" + (root_.path() / "tmp").string(), "PATH=/usr/bin:/bin"};
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

 public:
  pid_t pid() const { return pid_; }
  const TempDir& root() const { return root_; }
  std::filesystem::path stdout_path() const { return root_.path() / "daemon.out"; }
  std::string output() const { return read_file(stdout_path()); }
  std::string log() const { return read_file(root_.path() / "quor/log/quordaemon.log"); }

  // Waits until the daemon's socket exists (it has registered). A daemon
  // that detached is then asked for its pid, and from here on pid(),
  // alive() and wait_exit() are about it rather than the parent that started
  // it (which is ended instead of sleeping out its five seconds).
  bool wait_ready(std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    auto socket = server_socket();
    return eventually([&] { return std::filesystem::exists(socket) || !alive(); }, limit) &&
           std::filesystem::exists(socket) && (debug_ || follow_detached());
  }

  // The items of the status report of `type` ('B' or 'F'), every reply
  // buffer's in order; empty when no reply came.
  std::vector<std::string> status(std::string_view type) const {
    TevClient client;
    TevCallResult r = client.call(kServerName, request(type), 5000);
    std::vector<std::string> items;
    if (r.rc != 0) return items;
    for (const TevReply& reply : r.replies)
      for (std::string& item : reply_items(reply.payload, "ZZZSTS")) items.push_back(std::move(item));
    return items;
  }

  // The strings of the segment tagged `tag` in one reply buffer.
  static std::vector<std::string> reply_items(const std::vector<std::uint8_t>& payload, std::string_view tag) {
    std::vector<char> buf(payload.begin(), payload.end());
    std::size_t length = quor_wire_open(buf, buf.size());
    return segment_strings(InBuf(buf.data(), length), tag);
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
    if (!eventually([&] { return !alive() && exited_; }, limit)) return -1;
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
  }

  // A plain request of `type` (transaction header and trailer), sealed.
  static std::vector<std::uint8_t> request(std::string_view type) { return sealed_request(type); }

  std::filesystem::path tev_dir() const { return tev_dir_; }
  // Where the daemon's socket is: names registered by root live in root/.
  std::filesystem::path server_socket() const {
    return (geteuid() == 0 ? tev_dir_ / "root" : tev_dir_) / std::string(kServerName);
  }

 private:
  TempDir root_;
  std::filesystem::path tev_dir_;
  std::unique_ptr<EnvGuard> client_env_;
  bool follow_detached() {
    std::vector<std::string> items = status("B");
    if (items.empty()) return false;
    std::size_t at = items[0].find("pid=");
    if (at == std::string::npos) return false;
    pid_t daemon = static_cast<pid_t>(std::atol(items[0].c_str() + at + 4));
    if (daemon <= 0) return false;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = daemon;
    return true;
  }

  bool debug_ = true;
  pid_t pid_ = -1;
  mutable int status_ = 0;
  mutable bool exited_ = false;
};

}  // namespace testutil
