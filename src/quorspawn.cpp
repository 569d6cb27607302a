#include "quorspawn.h"

#include <signal.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

extern char** environ;

namespace {

// What the child tells the daemon. The daemon reads it only after vfork has
// returned, that is after the child has exec'd or ended.
struct ChildReport {
  volatile int failure = SpawnResult::kNone;
  volatile int err = 0;
};

// The daemon's signal handlers work on the daemon's memory, which the child
// shares: every caught signal goes back to its default before the child
// lets signals in again. Ignored signals stay ignored, as across any exec.
void default_caught_signals() {
  for (int signo = 1; signo < NSIG; ++signo) {
    struct sigaction action {};
    if (sigaction(signo, nullptr, &action) != 0) continue;  // the C library's own signals
    if (action.sa_handler == SIG_IGN || action.sa_handler == SIG_DFL) continue;
    action.sa_handler = SIG_DFL;
    action.sa_flags = 0;
    sigaction(signo, &action, nullptr);
  }
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

// The vfork child: system calls only, and never a return.
[[noreturn]] void run_child(const SpawnRequest& request, char* const* argv, char* const* envp, const sigset_t& mask,
                            ChildReport& report) {
  default_caught_signals();
  if (request.account != nullptr && !take_on_account(request))
    child_failed(request, report, SpawnResult::kIdentity);
  sigprocmask(SIG_SETMASK, &mask, nullptr);
  execve(request.program.c_str(), argv, envp);
  child_failed(request, report, SpawnResult::kExec);
}

// The name part of "NAME=value".
std::string_view name_of(std::string_view entry) { return entry.substr(0, entry.find('=')); }

}  // namespace

std::vector<const char*> quor_spawn_environment(char* const* base, const std::vector<std::string>& added) {
  std::vector<const char*> env;
  for (char* const* e = base; e != nullptr && *e != nullptr; ++e) {
    bool replaced = false;
    for (const std::string& a : added) replaced = replaced || name_of(*e) == name_of(a);
    if (!replaced) env.push_back(*e);
  }
  for (const std::string& a : added) env.push_back(a.c_str());
  env.push_back(nullptr);
  return env;
}

SpawnResult quor_spawn(const SpawnRequest& request) {
  std::vector<const char*> argv;
  for (const std::string& a : request.args) argv.push_back(a.c_str());
  argv.push_back(nullptr);
  std::vector<const char*> envp = quor_spawn_environment(environ, request.env);

  // No handler may run in the child while it shares the daemon's memory.
  sigset_t all, mask;
  sigfillset(&all);
  sigprocmask(SIG_SETMASK, &all, &mask);
  ChildReport report;
  pid_t pid = vfork();
  if (pid == 0)
    run_child(request, const_cast<char* const*>(argv.data()), const_cast<char* const*>(envp.data()), mask, report);
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
