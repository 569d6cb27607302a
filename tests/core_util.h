// Helpers shared by the daemon's tests: temporary directories, environment
// guards, and request buffers built with the daemon's own writers.
#pragma once

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "quortev.h"
#include "quortran.h"
#include "quortrl.h"
#include "quorutl.h"

#ifdef QUOR_COVERAGE
extern "C" void __gcov_dump(void);
#endif

namespace testutil {

// Ends a forked child of a test. A coverage build writes the counters of
// the code the child ran first (_exit skips that).
[[noreturn]] inline void child_exit(int status) {
#ifdef QUOR_COVERAGE
  __gcov_dump();
#endif
  _exit(status);
}

// A directory under /tmp removed with everything in it at scope exit.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "quortest.XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::string str() const { return path_.string(); }

 private:
  std::filesystem::path path_;
};

// Sets (or unsets) an environment variable for the scope.
class EnvGuard {
 public:
  EnvGuard(const char* name, std::optional<std::string> value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    if (value)
      setenv(name, value->c_str(), 1);
    else
      unsetenv(name);
  }
  ~EnvGuard() {
    if (old_)
      setenv(name_, old_->c_str(), 1);
    else
      unsetenv(name_);
  }
  EnvGuard(const EnvGuard&) = delete;
  EnvGuard& operator=(const EnvGuard&) = delete;

 private:
  const char* name_;
  std::optional<std::string> old_;
};

inline void write_file(const std::filesystem::path& p, const std::string& bytes) {
  std::ofstream(p, std::ios::binary) << bytes;
}

// What `print` writes to a stream, as text.
template <class Print>
std::string printed(Print print) {
  char* data = nullptr;
  std::size_t size = 0;
  std::FILE* f = open_memstream(&data, &size);
  print(f);
  std::fclose(f);
  std::string s(data, size);
  std::free(data);
  return s;
}

inline std::string read_file(const std::filesystem::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// A request of `type` sealed for the wire, its header first changed by
// `adjust` (to claim another sender, user or node); `segments` may write
// between header and trailer, whose value is `more`.
inline std::vector<std::uint8_t> sealed_request(std::string_view type,
                                                const std::function<void(TransactionHeader&)>& adjust = {},
                                                const std::function<void(OutBuf&)>& segments = {},
                                                std::string_view more = "N") {
  std::array<char, BUFFER_MAX> buf{};
  OutBuf out(buf);
  TransactionHeader h;
  tran_header_fill(type, "N", h);
  if (adjust) adjust(h);
  tran_header_write(h, out);
  if (segments) segments(out);
  quor_trl_put(more, out);
  std::size_t length = out.pos;
  quor_wire_seal(buf, length);
  return std::vector<std::uint8_t>(buf.begin(), buf.begin() + static_cast<long>(length));
}

// A child process running `body` (its return value is the exit status);
// killed and reaped at scope exit if still running.
class Child {
 public:
  template <class F>
  explicit Child(F body) {
    pid_ = fork();
    if (pid_ == 0) child_exit(body());
  }
  ~Child() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  pid_t pid() const { return pid_; }
  // Waits for the exit status (-1 when killed by a signal or not a child).
  int wait() {
    int status = 0;
    if (pid_ <= 0 || waitpid(pid_, &status, 0) != pid_) return -1;
    pid_ = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = -1;
};

// A child running `program` with `args` (after argv[0]), its environment
// first changed by `env` ("NAME=value" sets, "NAME" unsets), its standard
// output going nowhere.
inline std::unique_ptr<Child> exec_child(const char* program, std::vector<std::string> args,
                                         std::vector<std::string> env = {}) {
  return std::make_unique<Child>([=]() mutable {
    for (std::string& e : env)
      e.find('=') == std::string::npos ? unsetenv(e.c_str()) : putenv(e.data());
    int devnull = open("/dev/null", O_WRONLY);
    dup2(devnull, 1);
    std::vector<char*> argv = {const_cast<char*>(program)};
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(program, argv.data());
    return 127;
  });
}

// Runs `body` in a child process under `account`'s uid and group (no
// supplementary groups), as an unprivileged client would; the child's exit
// status (`body`'s result), or -1 when the account does not exist or the
// child was killed. Results come back as exit statuses only.
template <class F>
int run_as(const std::string& account, F body) {
  const passwd* pw = getpwnam(account.c_str());
  if (pw == nullptr) return -1;
  uid_t uid = pw->pw_uid;
  gid_t gid = pw->pw_gid;
  Child child([&] {
    if (setgroups(0, nullptr) != 0 || setgid(gid) != 0 || setuid(uid) != 0) return 126;
    return body();
  });
  return child.wait();
}

// One segment tagged `tag` holding `items`.
inline void put_segment(OutBuf& out, std::string_view tag, std::initializer_list<std::string_view> items) {
  std::size_t field = buf_begin_segment(out, tag);
  for (auto item : items) buf_add_item(out, item);
  buf_end_segment(out, field);
}

// A plain request of `type`: the segments, each a tag and its items (NULs
// in them written as they are), then the trailer `more` (none when empty).
using Segments = std::vector<std::pair<std::string_view, std::vector<std::string>>>;
inline std::vector<char> plain_request(std::string_view type, const Segments& segments, std::string_view more = "N") {
  std::vector<char> buf(BUFFER_MAX);
  OutBuf out(buf);
  tran_header_put(type, "N", out);
  for (const auto& [tag, items] : segments) {
    std::size_t field = buf_begin_segment(out, tag);
    for (const auto& item : items) buf_add_bytes(out, item);
    buf_end_segment(out, field);
  }
  if (!more.empty()) quor_trl_put(more, out);
  buf.resize(out.pos);
  return buf;
}

// Whether `done` holds within `limit`, polling every 10 ms. The limit is
// generous: a loaded machine may take seconds for what usually takes
// milliseconds, and a wait that succeeds returns at once.
template <class F>
bool eventually(F done, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  for (auto end = std::chrono::steady_clock::now() + limit;; std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
    if (done()) return true;
    if (std::chrono::steady_clock::now() >= end) return false;
  }
}

// The processes whose parent is `parent` (any parent when 0) and whose
// command is `name` or whose executable lies under `exe_prefix` (any when
// both are empty): the running ones, or with `zombies` the ended ones that
// nobody has reaped yet.
inline std::vector<pid_t> processes(pid_t parent, std::string_view name, bool zombies = false,
                                    std::string_view exe_prefix = {}) {
  std::vector<pid_t> found;
  for (const auto& e : std::filesystem::directory_iterator("/proc")) {
    std::string stat = read_file(e.path() / "stat");
    std::size_t paren = stat.rfind(')');
    int ppid = 0;
    char state = 0;
    if (paren == std::string::npos || std::sscanf(stat.c_str() + paren + 2, "%c %d", &state, &ppid) != 2) continue;
    std::error_code ec;
    bool match = (name.empty() && exe_prefix.empty()) ||
                 (!name.empty() && stat.find("(" + std::string(name) + ")") != std::string::npos) ||
                 (!exe_prefix.empty() &&
                  std::filesystem::read_symlink(e.path() / "exe", ec).string().starts_with(exe_prefix));
    if (match && (parent == 0 || ppid == parent) && (state == 'Z') == zombies)
      found.push_back(static_cast<pid_t>(std::stol(e.path().filename().string())));
  }
  return found;
}

// The strings of the first segment tagged `tag` in a plain buffer, up to
// its end mark.
inline std::vector<std::string> segment_strings(InBuf buf, std::string_view tag) {
  std::vector<std::string> items;
  std::optional<std::size_t> at = buf_find_segment(buf, tag);
  for (auto s = at ? buf_string(buf, *at) : std::nullopt; s && *s != kEndOfSegment; s = buf_string(buf, *at)) {
    items.emplace_back(*s);
    *at += s->size() + 1;
  }
  return items;
}

// Builds "a\0b\0..." from a list of strings.
inline std::string nul_join(std::initializer_list<std::string_view> parts) {
  std::string s;
  for (auto p : parts) {
    s.append(p);
    s.push_back('\0');
  }
  return s;
}

}  // namespace testutil
