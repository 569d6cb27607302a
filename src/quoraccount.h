// Local accounts as the daemon takes them on for agents and login programs:
// uid, group and supplementary groups. Lookups read the account databases,
// which can take a good part of a millisecond (the group database is
// scanned, and may be asked of a service); the daemon keeps what it found
// for a minute, so a busy daemon does not repeat that for every agent. A
// REFRESH forgets it at once.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

struct Account {
  std::string name;
  uid_t uid = 0;
  gid_t gid = 0;
  std::vector<gid_t> groups;  // supplementary groups, the account's group included
  std::string home;           // home directory and login shell, for the environment
  std::string shell;
};

// Seconds a looked-up account is used without looking again.
inline constexpr int kAccountLifetime = 60;

// The account named `name`; nothing when there is none (not remembered, so
// an account created later is found at once).
std::optional<Account> quor_account(const std::string& name);

// The account this process runs as (remembered like the others); nothing
// when the uid has no name.
std::optional<Account> quor_account_self();

// Drops every remembered account.
void quor_accounts_forget();

// Takes on the account's identity in this single-threaded process:
// supplementary groups, group, user (real, effective and saved). False when
// any step fails, or when root could be taken back afterwards. Makes only
// system calls, so a vfork child may use it.
bool quor_account_become(const Account& account);
