#include "quortupgm.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdint>

#include "quorconfig.h"
#include "quordebug.h"

std::string quor_login_program() { return quor_install_root() + "/quor/bin/quoruserpgm"; }

namespace {

// Takes on the account's identity; false when any step fails.
bool become(const passwd& account) {
  if (initgroups(account.pw_name, account.pw_gid) != 0) return false;
  if (setgid(account.pw_gid) != 0) return false;
  if (setuid(account.pw_uid) != 0) return false;
  // A process that could take root back has not really changed identity.
  return account.pw_uid == 0 || setuid(0) != 0;
}

// Runs in the forked child; returns only when the program could not be
// started.
void exec_login(const std::string& login_name, const std::string& client, int flag) {
  const passwd* account = getpwnam(login_name.c_str());
  if (quor_debug())
    quor_trace("exec login, user = %s, client = %s, pwentry = %.8lx\n", login_name.c_str(), client.c_str(),
               static_cast<unsigned long>(reinterpret_cast<std::uintptr_t>(account)));
  if (account == nullptr) return;
  if (!become(*account)) return;
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
