// The table of logged-in users: one entry per (client user, client node),
// with the local account the user logged in as and the user's login
// process. New entries go to the front; walks run from the front.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <list>
#include <string>

struct UserEntry {
  std::string user_name;        // "USR" of the header that created the entry
  std::string node_name;        // "NOD" of that header
  std::string login_name;       // local account; empty until the login completes
  std::string group_id;         // decimal group id text; empty until then
  std::time_t last_activity = 0;  // 0: login not completed
  pid_t login_pid = 0;          // 0: no login process
};

using UserTable = std::list<UserEntry>;

// The daemon's table.
UserTable& quor_users();

// A new, empty entry at the front.
UserEntry& quor_user_new();

int quor_user_count();

// Stops every user's login process (SIGTERM, one second, non-blocking reap).
void quor_users_stop_logins();
