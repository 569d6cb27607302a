#include "quortupgm.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <new>
#include <string>

#include "quoraccount.h"
#include "quorconfig.h"
#include "quordebug.h"
#include "quorderr.h"
#include "quorkids.h"
#include "quorusers.h"
#include "tev.h"

std::string quor_login_program() { return quor_install_root() + "/quor/bin/quoruserpgm"; }

namespace {

// Runs in the forked child; returns only when the program could not be
// started.
void exec_login(const std::string& login_name, const std::string& client, int flag) {
  const passwd* account = getpwnam(login_name.c_str());
  if (quor_debug())
    quor_trace("exec login, user = %s, client = %s, pwentry = %.8lx\n", login_name.c_str(), client.c_str(),
               static_cast<unsigned long>(reinterpret_cast<std::uintptr_t>(account)));
  if (account == nullptr) return;
  std::optional<Account> identity = quor_account(login_name);
  if (!identity || !quor_account_become(*identity)) return;
  std::string path = quor_login_program();
  if (quor_debug()) quor_trace("exec pathname = ^%s^\n", path.c_str());
  execl(path.c_str(), "quoruserpgm", login_name.c_str(), client.c_str(), flag != 0 ? "1" : "0",
        static_cast<char*>(nullptr));
  if (quor_debug()) quor_trace("Exec of login child failed.\n");
}

}  // namespace

pid_t quor_login_start(std::string_view login_name, std::string_view client, int flag) {
  std::string name(login_name);
  std::string from(client);
  pid_t pid = fork();
  if (pid < 0) {
    if (quor_debug()) quor_trace("Fork of login child failed.\n");
    return 0;
  }
  if (pid == 0) {
    exec_login(name, from, flag);
    _exit(1);
  }
  if (quor_debug()) quor_trace("Fork of login child okay, pid = %d.\n", static_cast<int>(pid));
  return pid;
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
  if (sender.valid && !descends_from(sender.pid, child->agent_pid)) {
    quor_msg_log(300, 2, "PID " + header.pid + " sent by process " + std::to_string(sender.pid));
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
  user->last_activity = std::time(nullptr);
  user->login_pid = child->agent_pid;
  quor_child_remove(child);
  return 0;
}
