#include "quorspawn.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

extern char** environ;

namespace {

// What the child tells the daemon. The daemon reads it only after vfork has
// returned, that is after the child has exec'd or ended.
struct ChildReport {
  volatile int failure = SpawnResult::kNone;
  volatile int err = 0;
};

// The signals the daemon has a handler for (quor_catch_signal); all bits
// clear, the empty set, until one is caught.
sigset_t caught_signals{};

// The daemon's signal handlers work on the daemon's memory, which the child
// shares: every caught signal goes back to its default before the child
// lets signals in again. Ignored signals stay ignored, as across any exec.
void default_caught_signals() {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  for (int signo = 1; signo < NSIG; ++signo)
    if (sigismember(&caught_signals, signo) == 1) sigaction(signo, &action, nullptr);
}

// The segment and the data file go to the account, which then becomes the
// process's identity. False at the first step that fails.
bool take_on_account(const SpawnRequest& request) {
  const Account& account = *request.account;
  if (request.shm_id >= 0) {
    shmid_ds ds{};
    if (shmctl(request.shm_id, IPC_STAT, &ds) != 0) return false;
    ds.shm_perm.uid = account.uid;
    ds.shm_perm.gid = getgid();
    ds.shm_perm.mode = 0600;
    if (shmctl(request.shm_id, IPC_SET, &ds) != 0) return false;
  }
  if (!request.data_file.empty() && chown(request.data_file.c_str(), account.uid, account.gid) != 0 &&
      errno != ENOENT)
    return false;
  return quor_account_become(account);
}

[[noreturn]] void child_failed(const SpawnRequest& request, ChildReport& report, SpawnResult::Failure step) {
  report.err = errno;
  report.failure = step;
  if (request.shm_id >= 0) shmctl(request.shm_id, IPC_RMID, nullptr);
  _exit(kSpawnFailedStatus);
}

// Every descriptor above standard error goes, however the daemon came by it.
void close_inherited() {
  if (syscall(SYS_close_range, 3U, ~0U, 0U) == 0) return;
  rlimit files{};
  rlim_t highest = getrlimit(RLIMIT_NOFILE, &files) == 0 ? std::min<rlim_t>(files.rlim_cur, 1 << 20) : 1 << 16;
  for (rlim_t fd = 3; fd < highest; ++fd) close(static_cast<int>(fd));
}

// The vfork child: system calls only, and never a return.
[[noreturn]] void run_child(const SpawnRequest& request, char* const* argv, char* const* envp, const sigset_t& mask,
                            ChildReport& report) {
  default_caught_signals();
  if (request.stderr_fd >= 0 && request.stderr_fd != 2 && dup2(request.stderr_fd, 2) != 2)
    child_failed(request, report, SpawnResult::kExec);
  close_inherited();
  if (request.account != nullptr && !take_on_account(request))
    child_failed(request, report, SpawnResult::kIdentity);
  sigprocmask(SIG_SETMASK, &mask, nullptr);
  execve(request.program.c_str(), argv, envp);
  child_failed(request, report, SpawnResult::kExec);
}

// The daemon's value of `name`, as "NAME=value", when it has one.
void pass_on(std::vector<std::string>& env, std::string_view name) {
  for (const std::string& e : env)
    if (std::string_view(e).substr(0, e.find('=')) == name) return;  // given once
  std::string key(name);
  if (const char* value = std::getenv(key.c_str())) env.push_back(key + "=" + value);
}

}  // namespace

void quor_catch_signal(int signo, void (*handler)(int), int flags) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = flags;
  sigemptyset(&action.sa_mask);
  if (sigaction(signo, &action, nullptr) != 0) return;
  if (handler == SIG_IGN || handler == SIG_DFL)
    sigdelset(&caught_signals, signo);
  else
    sigaddset(&caught_signals, signo);
}

std::vector<std::string> quor_spawn_environment(const Account* account) {
  std::vector<std::string> env = {"PATH=/usr/local/bin:/usr/bin:/bin"};
  std::optional<Account> self = account == nullptr ? quor_account_self() : std::nullopt;
  if (account == nullptr && self) account = &*self;
  if (account != nullptr) {
    env.push_back("HOME=" + account->home);
    env.push_back("USER=" + account->name);
    env.push_back("LOGNAME=" + account->name);
    env.push_back("SHELL=" + account->shell);
  }
  for (std::string_view name : {"MOXGLBL0000", "TMPDIR", "TZ", "LANG"}) pass_on(env, name);
  for (char** e = environ; *e != nullptr; ++e) {
    std::string_view entry(*e);
    std::string_view name = entry.substr(0, entry.find('='));
    if (name.starts_with("LC_") || name.starts_with("TEV_")) pass_on(env, name);
  }
  if (const char* keep = std::getenv("MOXQUORKEEPENV")) {
    std::istringstream names(keep);
    for (std::string name; names >> name;) pass_on(env, name);
  }
  return env;
}

namespace {

std::vector<const char*> pointers(const std::vector<std::string>& strings) {
  std::vector<const char*> p;
  for (const std::string& s : strings) p.push_back(s.c_str());
  p.push_back(nullptr);
  return p;
}

}  // namespace

SpawnResult quor_spawn(const SpawnRequest& request) {
  std::vector<const char*> argv = pointers(request.args);
  std::vector<const char*> envp = pointers(request.env);

  // No handler may run in the child while it shares the daemon's memory.
  sigset_t all, mask;
  sigfillset(&all);
  sigprocmask(SIG_SETMASK, &all, &mask);
  // The daemon keeps SIGCHLD blocked to learn cheaply that a child ended;
  // its programs start without that.
  sigset_t child_mask = mask;
  sigdelset(&child_mask, SIGCHLD);
  ChildReport report;
  pid_t pid = vfork();
  if (pid == 0)
    run_child(request, const_cast<char* const*>(argv.data()), const_cast<char* const*>(envp.data()), child_mask,
              report);
  int vfork_errno = errno;
  sigprocmask(SIG_SETMASK, &mask, nullptr);

  SpawnResult result;
  result.pid = pid;
  if (pid < 0) {
    result.err = vfork_errno;
    return result;
  }
  result.failure = static_cast<SpawnResult::Failure>(report.failure);
  result.err = report.err;
  return result;
}
