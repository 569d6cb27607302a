// The table of logged-in users: one entry per (client user, client node),
// with the local account the user logged in as and the user's login
// process. New entries go to the front; walks and lookups run from the
// front.
//
// The list is the order of record (status report, save file). Beside it the
// table keeps hash indexes by (client user, client node) and by login
// process, and the logged-in users ordered by their last activity, so that
// a lookup or the idle check costs the same whatever the number of users.
// An entry is indexed as its maker left it at the first lookup after it was
// made (its owner included, which never changes after); a login pid or
// activity time that changes later goes through quor_user_set_login or
// quor_user_set_activity.
//
// The table survives restarts in the save file <root>/tmp/quor.sav, one
// record per entry from the front:
//
//   offset 0  3 bytes  payload length L, "%3d" (blanks on the left)
//   offset 3  1 byte   NUL
//   offset 4  L bytes  five NUL-terminated strings (client user, client
//                      node, login name, group id, last activity "%d"),
//                      body-encoded with the byte at offset 0 as seed
//
// Loading puts each record at the front, so a table read back is in the
// reverse order of the file; the next save and load restores the order.
//
// Who logged each session in is kept beside it, in <root>/tmp/quor.owners
// (records of the same framing: client user, client node, owner as
// quor_client_text writes it), so that a session still belongs to its client
// after a restart. A session the owners file does not name belongs to the
// local account it is logged in as.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <functional>
#include <list>
#include <span>
#include <vector>
#include <string>

#include "quoraccess.h"
#include "quorutl.h"

struct UserEntry {
  std::string user_name;          // "USR" of the header that created the entry
  std::string node_name;          // "NOD" of that header
  std::string login_name;         // local account; empty until the login completes
  std::string group_id;           // decimal group id text; empty until then
  std::time_t last_activity = 0;  // 0: login not completed
  pid_t login_pid = 0;            // 0: no login process
  ClientId owner;                 // the client that logged the user in
};

// The list of record. Clearing it forgets its indexes too.
class UserTable : public std::list<UserEntry> {
 public:
  void clear();
};

// Largest payload a save record can carry: its length has three digits.
inline constexpr std::size_t kMaxUserRecord = 999;

// The daemon's table.
UserTable& quor_users();

// A new, empty entry at the front.
UserEntry& quor_user_new();

// Stops the entry's login process and removes the entry; transactions that
// ran for it keep no reference to it. 0, or 3 for none.
int quor_user_remove(UserEntry* entry);

// quor_user_remove for an entry whose login process has already ended or
// been stopped: nothing is signalled, since its pid may belong to someone
// else by now.
int quor_user_remove_ended(UserEntry* entry);

// quor_user_remove_ended for several entries at once.
void quor_users_remove_ended(std::span<UserEntry* const> entries);

// Record a new login process or activity time of the entry.
void quor_user_set_login(UserEntry& entry, pid_t pid);
void quor_user_set_activity(UserEntry& entry, std::time_t when);

// The entry whose login process is `pid`; none when there is none.
UserEntry* quor_user_by_login(pid_t pid);

// Logged-in entries idle for longer than `timeout` seconds at `now`,
// longest idle first.
std::vector<UserEntry*> quor_users_idle(std::time_t now, std::int32_t timeout);

// The active entry of the header's user and node. A login in progress is
// never returned (and no second entry made for it); an entry idle longer
// than the login time-out, or, without a time-out, one whose login process
// is gone, is removed and not returned. Without a match, a new pending entry
// is made unless `no_create`.
UserEntry* quor_user_find(const TransactionHeader& header, bool no_create);

// The entry of the pair, whatever its state (a login in progress
// included), without any check or removal; none when there is none.
UserEntry* quor_user_entry(std::string_view user, std::string_view node);

// Sessions (logged in or logging in) that `owner` holds.
int quor_user_count_owned(const ClientId& owner);

int quor_user_count();

// Stops every user's login process (SIGTERM to each in table order, one
// second for all, non-blocking reaps); the entries stay.
void quor_users_stop_all();

// Reads the records of a file in the save file's framing, handing the first
// `count` strings of each to `take` (nothing when the file cannot be opened,
// which is not an error). 0, 1 a record with fewer than `count` strings, 5 a
// record shorter than its length or with a length outside 0..999.
int quor_records_read(const std::string& path, std::size_t count,
                      const std::function<void(const std::vector<std::string>&)>& take);

// <root>/tmp/quor.sav, and beside it <root>/tmp/quor.owners
std::string quor_users_path();
std::string quor_owners_path();

// Writes the table to the save file (a temporary file renamed over it, so
// a crash never leaves half a table); an empty table leaves no file. 0, 6
// write failed, 7 file not created, 8 path unavailable. An entry whose
// record would not fit the three-digit length is left out (and logged).
int quor_users_save();

// Reads the save file, if there is one, starting a login program for every
// user read; a user whose program cannot start is kept without one (and
// logged, message 122). 0 (also without a file), 1 a record without its five strings,
// 5 a record shorter than its length, 8 path unavailable.
int quor_users_load();
