#include "quorsweep.h"

#include <signal.h>
#include <sys/wait.h>

#include <cerrno>
#include <ctime>
#include <vector>

#include "quorconfig.h"
#include "quorderr.h"
#include "quorkids.h"
#include "quorusers.h"

namespace {

// A child that ended, as the wait for any child reported it.
struct Ended {
  pid_t pid = 0;
  int status = 0;
  bool clean_exit() const { return WIFEXITED(status) && WEXITSTATUS(status) == 0; }
};

// Whether a child may have ended since the last look. SIGCHLD stays blocked
// from the first sweep on, so that an ending child only leaves it pending:
// no handler runs, no wait is interrupted, and asking costs one cheap call,
// where a wait for any child looks at every child the process has. The
// pending signal is taken before the children are reaped, so a child that
// ends after that is seen by the next sweep.
bool children_may_have_ended() {
  static bool blocked = false;
  sigset_t child;
  sigemptyset(&child);
  sigaddset(&child, SIGCHLD);
  if (!blocked) {
    sigprocmask(SIG_BLOCK, &child, nullptr);
    blocked = true;
    return true;  // those that ended before are not signalled again
  }
  sigset_t pending;
  if (sigpending(&pending) != 0) return true;
  if (sigismember(&pending, SIGCHLD) == 0) return false;
  timespec now{};
  sigtimedwait(&child, nullptr, &now);
  return true;
}

// Every child that has ended since the last sweep, reaped.
std::vector<Ended> reap_ended() {
  std::vector<Ended> ended;
  if (!children_may_have_ended()) return ended;
  for (;;) {
    Ended e;
    e.pid = waitpid(-1, &e.status, WNOHANG);
    if (e.pid > 0) {
      ended.push_back(e);
      continue;
    }
    if (e.pid == -1 && errno == EINTR) continue;
    return ended;
  }
}

// What the end of an agent means for its transaction's user: a login agent
// that failed means a failed login; a logoff agent that ended completes the
// logoff. A login agent that ended cleanly keeps its entry for the login
// report that follows.
void agent_ended(ChildEntry& child, const Ended& end) {
  if (child.kind == 2) {
    if (!end.clean_exit()) {
      if (child.user != nullptr) quor_user_remove(child.user);
    } else if ((child.flags & kChildNoKeep) == 0) {
      quor_child_keep(child);
    }
  } else if (child.kind == 3 && child.user != nullptr) {
    quor_user_remove(child.user);
  }
}

// The end of a login program or a disowned process. Handled before any
// agent's, since an agent's end may stop its user's login program, which
// must not be signalled once it has been reaped.
void program_ended(const Ended& end) {
  while (UserEntry* user = quor_user_by_login(end.pid)) quor_user_remove_ended(user);
  QuorConfig& config = quor_config();
  if (config.login_required == 0 && config.default_login_child == end.pid) config.default_login_child = 0;
  quor_disowned_ended(end.pid);
}

// The end of an agent. Only entries marked running or reapable stand for
// the process.
void agent_process_ended(const Ended& end) {
  if (ChildEntry* child = quor_child_by_agent(end.pid, kChildRunning | kChildNoKeep)) {
    agent_ended(*child, end);
    if ((child->flags & kChildKept) == 0) quor_child_remove(child);
  }
}

// Drops the entries whose start failed, and the transactions whose next
// buffer never came or whose login agent ended without its report, which
// would hold their segment, files and session for good.
void sweep_waiting() {
  for (ChildEntry* child : quor_children_to_drop(std::time(nullptr))) {
    if (child->agent_pid != -1)
      quor_msg_log(307, 2, "client pid " + child->client_pid + " from " + child->client_node + " (" +
                               quor_client_text(child->owner) + "), nothing for " +
                               std::to_string(kPendingExpirySeconds) + " s");
    quor_child_remove(child);
  }
}

// An agent running longer than the transaction time-out gets SIGTERM. An
// entry kept after its agent was reaped has no process left to stop. The
// table's back holds the oldest transactions, so the walk stops at the
// first one that is young enough.
void sweep_overdue() {
  std::int32_t timeout = quor_config().transaction_timeout;
  if (timeout < 1) return;
  std::time_t now = std::time(nullptr);
  ChildTable& table = quor_children();
  for (auto it = table.rbegin(); it != table.rend() && now - it->created > timeout; ++it)
    if ((it->flags & (kChildNoTimeout | kChildKept)) == 0 && it->agent_pid >= 2) kill(it->agent_pid, SIGTERM);
}

// Idle users are logged out together: their login programs are stopped in
// one go, so many users timing out at once cost one second, not one each.
void sweep_idle_users() {
  std::int32_t timeout = quor_config().login_timeout;
  if (timeout <= 0) return;
  std::vector<UserEntry*> idle = quor_users_idle(std::time(nullptr), timeout);
  if (idle.empty()) return;
  std::vector<pid_t> programs;
  for (UserEntry* user : idle) programs.push_back(user->login_pid);
  quor_terminate_pids(programs);
  quor_users_remove_ended(idle);
}

}  // namespace

void quor_garbage_collect(int /*why*/) {
  std::vector<Ended> ended = reap_ended();
  for (const Ended& end : ended) program_ended(end);
  for (const Ended& end : ended) agent_process_ended(end);
  sweep_waiting();
  sweep_overdue();
  sweep_idle_users();
}
