#include "quoraccount.h"

#include <grp.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <ctime>
#include <map>

namespace {

struct Remembered {
  Account account;
  std::time_t until = 0;
};

std::map<std::string, Remembered>& remembered() {
  static std::map<std::string, Remembered> accounts;
  return accounts;
}

std::optional<Account> look_up(const std::string& name) {
  const passwd* pw = getpwnam(name.c_str());
  if (pw == nullptr) return std::nullopt;
  Account a{pw->pw_name, pw->pw_uid, pw->pw_gid, {}, pw->pw_dir,
            pw->pw_shell != nullptr && *pw->pw_shell != '\0' ? pw->pw_shell : "/bin/sh"};
  int count = 32;
  for (;;) {
    a.groups.resize(static_cast<std::size_t>(count));
    int n = count;
    if (getgrouplist(a.name.c_str(), a.gid, a.groups.data(), &n) >= 0) {
      a.groups.resize(static_cast<std::size_t>(n));
      return a;
    }
    if (n <= count) return std::nullopt;
    count = n;
  }
}

}  // namespace

std::optional<Account> quor_account(const std::string& name) {
  std::time_t now = std::time(nullptr);
  auto& accounts = remembered();
  if (auto it = accounts.find(name); it != accounts.end() && now < it->second.until) return it->second.account;
  std::optional<Account> found = look_up(name);
  if (found)
    accounts[name] = Remembered{*found, now + kAccountLifetime};
  else
    accounts.erase(name);
  return found;
}

std::optional<Account> quor_account_self() {
  static std::string name;
  if (name.empty())
    if (const passwd* pw = getpwuid(geteuid())) name = pw->pw_name;
  return name.empty() ? std::nullopt : quor_account(name);
}

void quor_accounts_forget() { remembered().clear(); }

// Bare system calls: they change only the calling process and touch no
// library state, so a vfork child may make them too. The process is
// single-threaded, so nothing else needs to follow the change.
bool quor_account_become(const Account& account) {
  if (syscall(SYS_setgroups, account.groups.size(), account.groups.data()) != 0) return false;
  if (syscall(SYS_setresgid, account.gid, account.gid, account.gid) != 0) return false;
  if (syscall(SYS_setresuid, account.uid, account.uid, account.uid) != 0) return false;
  // A process that could take root back has not really changed identity.
  return account.uid == 0 || syscall(SYS_setuid, 0) != 0;
}
