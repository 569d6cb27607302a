#include "quortupgm.h"

#include <grp.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <fcntl.h>

#include <fstream>
#include <new>
#include <string>

#include "quoraccount.h"
#include "quorconfig.h"
#include "quordebug.h"
#include "quorderr.h"
#include "quorkids.h"
#include "quorspawn.h"
#include "quorusers.h"
#include "tev.h"

std::string quor_login_program() { return quor_install_root() + "/quor/bin/quoruserpgm"; }

namespace {

SpawnResult login_spawn(std::string_view login_name, std::string_view client, int flag) {
  std::string name(login_name);
  // Looked up before the start, so that the child only makes system calls.
  std::optional<Account> account = quor_account(name);
  if (quor_debug())
    quor_trace("exec login, user = %s, client = %.*s, pwentry = %s\n", name.c_str(), static_cast<int>(client.size()),
               client.data(), account ? "found" : "none");
  if (!account) return SpawnResult{0};  // pid 0: nothing started
  // Login programs write nothing the daemon's capture file should hold.
  // Opened once: a start-up restoring thousands of users starts one each.
  static const int dev_null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  SpawnRequest spawn{quor_login_program(),
                     {"quoruserpgm", name, std::string(client), flag != 0 ? "1" : "0"},
                     quor_spawn_environment(&*account),
                     &*account,
                     -1,
                     {},
                     dev_null};
  if (quor_debug()) quor_trace("exec pathname = ^%s^\n", spawn.program.c_str());
  SpawnResult started = quor_spawn(spawn);
  if (started.pid < 0) {
    if (quor_debug()) quor_trace("Fork of login child failed.\n");
    return started;
  }
  if (quor_debug()) {
    if (started.failure != SpawnResult::kNone) quor_trace("Exec of login child failed.\n");
    quor_trace("Fork of login child okay, pid = %d.\n", static_cast<int>(started.pid));
  }
  return started;
}

}  // namespace

pid_t quor_login_start(std::string_view login_name, std::string_view client, int flag) {
  SpawnResult started = login_spawn(login_name, client, flag);
  return started.pid > 0 ? started.pid : 0;
}

pid_t quor_login_restore(std::string_view login_name, std::string_view client, std::string& why) {
  SpawnResult started = login_spawn(login_name, client, 0);
  if (started.pid > 0 && started.failure == SpawnResult::kNone) return started.pid;
  if (started.pid > 0) {
    // The child has already ended (vfork returned on its _exit): this wait
    // only collects it.
    waitpid(started.pid, nullptr, 0);
    why = std::string(started.failure == SpawnResult::kIdentity ? "account" : "exec") + ": " +
          std::strerror(started.err);
  } else {
    why = started.pid < 0 ? std::string("no process: ") + std::strerror(started.err) : "no such account";
  }
  return 0;
}

namespace {

// The parent of `pid` as the kernel reports it, or 0 when it cannot be read.
pid_t parent_of(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  std::getline(stat, text);
  // "pid (command) state ppid ...": the command may hold blanks and ')'.
  std::size_t close = text.rfind(')');
  if (close == std::string::npos) return 0;
  char state = 0;
  long ppid = 0;
  if (std::sscanf(text.c_str() + close + 1, " %c %ld", &state, &ppid) != 2) return 0;
  return static_cast<pid_t>(ppid);
}

// `pid` is `ancestor` or one of its descendants.
bool descends_from(pid_t pid, pid_t ancestor) {
  for (int depth = 0; depth < 1024 && pid > 1; ++depth, pid = parent_of(pid))
    if (pid == ancestor) return true;
  return pid == ancestor;
}

}  // namespace

int quor_login_info(const TransactionHeader& header, const TevInquiry& sender) {
  ChildEntry* child = quor_child_find_agent(header, kChildRunning | kChildKept);
  if (child == nullptr) return 0;
  if (!sender.valid || !sender.host.empty() || !descends_from(sender.pid, child->agent_pid)) {
    quor_msg_log(300, 2, "PID " + header.pid + " sent by process " + std::to_string(sender.pid));
    return 0;
  }
  // Only the agent of a login speaks for a login, and only for the session
  // that login was started for: any other agent runs on behalf of a user
  // who is logged in already, and must not make itself somebody else.
  if (child->kind != 2) {
    quor_msg_log(309, 2, "PID " + header.pid + " (account " + header.user + ")");
    return 0;
  }
  UserEntry* user = child->user;
  if (user == nullptr) return 0;
  try {
    if (!user->login_name.empty() && user->login_name != header.user)
      quor_terminate_pid(user->login_pid);
    else
      quor_child_disown(user->login_pid);  // left running, reaped when it ends
    user->group_id = header.gid;
    user->login_name = header.user;
  } catch (const std::bad_alloc&) {
    return 1;
  }
  quor_user_set_activity(*user, std::time(nullptr));
  // A kept agent has ended and been reaped already: the session has no
  // login process left, and the user is logged out as soon as that is seen.
  if ((child->flags & kChildKept) != 0) {
    quor_child_remove(child);
    quor_user_remove_ended(user);
    return 0;
  }
  quor_user_set_login(*user, child->agent_pid);
  quor_child_remove(child);
  return 0;
}
