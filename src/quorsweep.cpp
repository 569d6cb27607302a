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

// A non-blocking reap of `pid`.
struct Reap {
  pid_t result = 0;  // waitpid's result
  int status = 0;    // its status when result > 0
  bool error = false;

  explicit Reap(pid_t pid) {
    result = waitpid(pid, &status, WNOHANG);
    error = result == -1 && errno != ECHILD;
  }
  // The process has ended and been reaped, here or before.
  bool gone() const { return result > 0 || (result == -1 && !error); }
  bool clean_exit() const { return result > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0; }
};

// What the end of an agent means for its transaction's user: a login agent
// that failed means a failed login; a logoff agent that ended completes the
// logoff. A login agent that ended cleanly keeps its entry for the login
// report that follows.
void agent_ended(ChildEntry& child, const Reap& reap) {
  if (child.kind == 2) {
    if (!reap.clean_exit()) {
      if (child.user != nullptr) quor_user_remove(child.user);
    } else if ((child.flags & kChildNoKeep) == 0) {
      child.flags = kChildKept;
      child.last_buffer = std::time(nullptr);  // its report has until the expiry from now
    }
  } else if (child.kind == 3 && child.user != nullptr) {
    quor_user_remove(child.user);
  }
}

// An agent running longer than the transaction time-out gets SIGTERM. An
// entry kept after its agent was reaped has no process left to stop.
void enforce_timeout(const ChildEntry& child, std::time_t now) {
  std::int32_t timeout = quor_config().transaction_timeout;
  if (timeout < 1 || (child.flags & (kChildNoTimeout | kChildKept)) != 0) return;
  if (now - child.created > timeout && child.agent_pid >= 2) kill(child.agent_pid, SIGTERM);
}

// A transaction whose next buffer never came, or a login agent that ended
// without its report, would hold its segment, files and session for good.
bool expired(const ChildEntry& child, std::time_t now) {
  bool waiting = child.agent_pid == 0 || (child.flags & kChildKept) != 0;
  return waiting && now - child.last_buffer > kPendingExpirySeconds;
}

void sweep_agents() {
  ChildTable& table = quor_children();
  std::time_t now = std::time(nullptr);
  for (auto it = table.begin(); it != table.end();) {
    ChildEntry& child = *it;
    if (child.agent_pid == -1) {
      it = quor_child_erase(it);
      continue;
    }
    if (expired(child, now)) {
      quor_msg_log(307, 2, "client pid " + child.client_pid + " from " + child.client_node + " (" +
                               quor_client_text(child.owner) + "), nothing for " +
                               std::to_string(kPendingExpirySeconds) + " s");
      it = quor_child_erase(it);
      continue;
    }
    if (child.agent_pid > 0 && (child.flags & (kChildRunning | kChildNoKeep)) != 0) {
      Reap reap(child.agent_pid);
      if (reap.result > 0) agent_ended(child, reap);
      if (reap.gone() && (child.flags & kChildKept) == 0) {
        it = quor_child_erase(it);
        continue;
      }
    }
    enforce_timeout(child, now);
    ++it;
  }
}

void sweep_default_login() {
  QuorConfig& config = quor_config();
  if (config.login_required != 0 || config.default_login_child < 1) return;
  if (Reap(config.default_login_child).gone()) config.default_login_child = 0;
}

void sweep_login_processes() {
  UserTable& users = quor_users();
  for (auto it = users.begin(); it != users.end();) {
    UserEntry& user = *it++;
    if (user.login_pid >= 1 && Reap(user.login_pid).gone()) quor_user_remove_ended(&user);
  }
}

// Idle users are logged out together: their login programs are stopped in
// one go, so many users timing out at once cost one second, not one each.
void sweep_idle_users() {
  std::int32_t timeout = quor_config().login_timeout;
  if (timeout <= 0) return;
  std::time_t now = std::time(nullptr);
  std::vector<UserEntry*> idle;
  std::vector<pid_t> programs;
  for (UserEntry& user : quor_users())
    if (user.last_activity != 0 && now - user.last_activity > timeout) {
      idle.push_back(&user);
      programs.push_back(user.login_pid);
    }
  quor_terminate_pids(programs);
  for (UserEntry* user : idle) quor_user_remove_ended(user);
}

}  // namespace

void quor_garbage_collect(int /*why*/) {
  sweep_agents();
  sweep_default_login();
  sweep_login_processes();
  sweep_idle_users();
  quor_reap_disowned();
}
