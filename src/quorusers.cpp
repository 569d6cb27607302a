#include "quorusers.h"

#include "quorkids.h"

UserTable& quor_users() {
  static UserTable table;
  return table;
}

UserEntry& quor_user_new() { return quor_users().emplace_front(); }

int quor_user_count() { return static_cast<int>(quor_users().size()); }

void quor_users_stop_logins() {
  for (const UserEntry& user : quor_users()) quor_terminate_pid(user.login_pid);
}
