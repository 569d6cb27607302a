#include "quorusers.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <unordered_map>
#include <unordered_set>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "mocrypt.h"
#include "quoraccount.h"
#include "quorconfig.h"
#include "quordebug.h"
#include "quorderr.h"
#include "quorindex.h"
#include "quorkids.h"
#include "quortupgm.h"

UserTable& quor_users() {
  static UserTable table;
  return table;
}

namespace {

// Where an entry is in the list and what it is indexed under.
struct UserSlot {
  UserTable::iterator at;
  std::uint64_t made = 0;  // creation order: larger is newer
  bool indexed = false;
  pid_t login = 0;
  std::time_t activity = 0;
  ClientId owner;  // the owner it is counted for
};

using PairKey = std::pair<std::string, std::string>;

struct UserIndex {
  std::uint64_t made = 0;
  std::unordered_map<const UserEntry*, UserSlot> slots;
  std::vector<UserEntry*> fresh;  // made since the last lookup, not indexed yet
  std::unordered_map<PairKey, std::vector<UserEntry*>, StringPairHash> by_pair;  // newest first
  std::unordered_map<pid_t, std::vector<UserEntry*>> by_login;             // newest first
  // Logged-in entries by (last activity, creation): the idle ones come first.
  std::map<std::pair<std::time_t, std::uint64_t>, UserEntry*> by_activity;
  std::map<ClientId, int> owned;  // indexed entries per owner
};

UserIndex& index() {
  static UserIndex i;
  return i;
}

template <class Map, class Key>
void bucket_add(Map& map, const Key& key, UserEntry* entry) {
  UserIndex& i = index();
  index_add(map, key, entry, i.slots[entry].made, [&](UserEntry* e) { return i.slots[e].made; });
}

void index_login(UserEntry* entry, UserSlot& slot, pid_t pid) {
  UserIndex& i = index();
  if (slot.login > 0) index_remove(i.by_login, slot.login, entry);
  slot.login = pid;
  if (pid > 0) bucket_add(i.by_login, pid, entry);
}

void index_activity(UserEntry* entry, UserSlot& slot, std::time_t when) {
  UserIndex& i = index();
  if (slot.activity != 0) i.by_activity.erase({slot.activity, slot.made});
  slot.activity = when;
  if (when != 0) i.by_activity[{when, slot.made}] = entry;
}

// Indexes the entries made since the last lookup, as their makers left them.
void index_fresh() {
  UserIndex& i = index();
  for (UserEntry* entry : i.fresh) {
    UserSlot& slot = i.slots[entry];
    slot.indexed = true;
    bucket_add(i.by_pair, PairKey{entry->user_name, entry->node_name}, entry);
    slot.owner = entry->owner;
    ++i.owned[slot.owner];
    index_login(entry, slot, entry->login_pid);
    index_activity(entry, slot, entry->last_activity);
  }
  i.fresh.clear();
}

// Drops the entry from the list and every index.
void erase_entry(UserEntry* entry) {
  UserIndex& i = index();
  auto it = i.slots.find(entry);
  if (it == i.slots.end()) return;
  UserSlot& slot = it->second;
  if (slot.indexed) {
    index_remove(i.by_pair, PairKey{entry->user_name, entry->node_name}, entry);
    if (auto owned = i.owned.find(slot.owner); owned != i.owned.end() && --owned->second == 0) i.owned.erase(owned);
    index_login(entry, slot, 0);
    index_activity(entry, slot, 0);
  } else {
    std::erase(i.fresh, entry);
  }
  UserTable::iterator at = slot.at;
  i.slots.erase(it);
  static_cast<std::list<UserEntry>&>(quor_users()).erase(at);
}

}  // namespace

void UserTable::clear() {
  std::list<UserEntry>::clear();
  index() = UserIndex{};
}

UserEntry& quor_user_new() {
  UserTable& table = quor_users();
  UserEntry& entry = table.emplace_front();
  UserIndex& i = index();
  UserSlot& slot = i.slots[&entry];
  slot.at = table.begin();
  slot.made = ++i.made;
  i.fresh.push_back(&entry);
  return entry;
}

void quor_user_set_login(UserEntry& entry, pid_t pid) {
  entry.login_pid = pid;
  auto slot = index().slots.find(&entry);
  if (slot != index().slots.end() && slot->second.indexed) index_login(&entry, slot->second, pid);
}

void quor_user_set_activity(UserEntry& entry, std::time_t when) {
  entry.last_activity = when;
  auto slot = index().slots.find(&entry);
  if (slot != index().slots.end() && slot->second.indexed) index_activity(&entry, slot->second, when);
}

UserEntry* quor_user_by_login(pid_t pid) {
  index_fresh();
  auto bucket = index().by_login.find(pid);
  if (bucket == index().by_login.end()) return nullptr;
  for (UserEntry* entry : bucket->second)
    if (entry->login_pid == pid) return entry;
  return nullptr;
}

std::vector<UserEntry*> quor_users_idle(std::time_t now, std::int32_t timeout) {
  index_fresh();
  std::vector<UserEntry*> idle;
  for (auto& [key, entry] : index().by_activity) {
    if (now - key.first <= timeout) break;
    if (entry->last_activity != 0 && now - entry->last_activity > timeout) idle.push_back(entry);
  }
  return idle;
}

int quor_user_remove(UserEntry* entry) {
  if (entry == nullptr) return 3;
  quor_terminate_pid(entry->login_pid);
  quor_children_forget_user(entry);
  erase_entry(entry);
  return 0;
}

int quor_user_remove_ended(UserEntry* entry) {
  if (entry != nullptr) quor_user_set_login(*entry, 0);
  return quor_user_remove(entry);
}

void quor_users_remove_ended(std::span<UserEntry* const> entries) {
  quor_children_forget_users(entries);
  for (UserEntry* entry : entries) erase_entry(entry);
}

namespace {

// The newest entry of the pair, whatever its state.
UserEntry* newest_of(std::string_view user, std::string_view node) {
  index_fresh();
  auto bucket = index().by_pair.find(PairKey{user, node});
  return bucket == index().by_pair.end() ? nullptr : bucket->second.front();
}

}  // namespace

UserEntry* quor_user_find(const TransactionHeader& header, bool no_create) {
  if (UserEntry* found = newest_of(header.user, header.node)) {
    UserEntry& entry = *found;
    if (entry.last_activity == 0) return nullptr;
    std::int32_t timeout = quor_config().login_timeout;
    if (timeout > 0) {
      if (std::time(nullptr) - entry.last_activity > timeout) {
        quor_user_remove(&entry);
        return nullptr;
      }
      return &entry;
    }
    if (entry.login_pid > 0 && kill(entry.login_pid, 0) != 0) {
      quor_user_remove_ended(&entry);
      return nullptr;
    }
    return &entry;
  }
  if (no_create) return nullptr;
  UserEntry& entry = quor_user_new();
  entry.user_name = header.user;
  entry.node_name = header.node;
  return &entry;
}

UserEntry* quor_user_entry(std::string_view user, std::string_view node) { return newest_of(user, node); }

int quor_user_count_owned(const ClientId& owner) {
  index_fresh();
  auto owned = index().owned.find(owner);
  return owned == index().owned.end() ? 0 : owned->second;
}

int quor_user_count() { return static_cast<int>(quor_users().size()); }

void quor_users_stop_all() {
  std::vector<pid_t> pids;
  for (const UserEntry& user : quor_users()) pids.push_back(user.login_pid);
  quor_terminate_pids(pids);
}

std::string quor_users_path() { return quor_install_root() + "/tmp/quor.sav"; }
std::string quor_owners_path() { return quor_install_root() + "/tmp/quor.owners"; }

namespace {

// One save record of `strings` (each up to a NUL, as the record's strings
// end there), or nothing when the payload is too long for it.
std::optional<std::vector<char>> record_of(std::initializer_list<std::string_view> strings) {
  std::string payload;
  for (std::string_view s : strings) {
    payload.append(s.substr(0, s.find('\0')));
    payload.push_back('\0');
  }
  if (payload.size() > kMaxUserRecord) return std::nullopt;

  std::vector<char> record(4 + payload.size());
  char length[8];
  std::snprintf(length, sizeof length, "%3d", static_cast<int>(payload.size()));
  std::memcpy(record.data(), length, 3);
  record[3] = '\0';
  std::memcpy(record.data() + 4, payload.data(), payload.size());
  body_encode(record[0], std::span<char>(record.data() + 4, payload.size()));
  return record;
}

std::optional<std::vector<char>> user_record(const UserEntry& entry) {
  return record_of({entry.user_name, entry.node_name, entry.login_name, entry.group_id,
                    std::to_string(static_cast<int>(entry.last_activity))});
}

bool write_all(int fd, const std::vector<char>& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

bool read_exactly(int fd, char* into, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    ssize_t n = read(fd, into + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

// The first `count` strings of a decoded payload; fewer when it is damaged.
std::vector<std::string> payload_strings(const std::vector<char>& payload, std::size_t count) {
  std::vector<std::string> strings;
  std::size_t at = 0;
  while (strings.size() < count && at < payload.size()) {
    const char* end = static_cast<const char*>(std::memchr(payload.data() + at, '\0', payload.size() - at));
    if (end == nullptr) break;
    strings.emplace_back(payload.data() + at, end);
    at = static_cast<std::size_t>(end - payload.data()) + 1;
  }
  return strings;
}

}  // namespace

namespace {

// Writes `records` to a new file beside `path` and renames it over `path`
// (none is left when there are none). 0, 6 or 7.
int write_records(const std::string& path, const std::vector<std::vector<char>>& records) {
  unlink(path.c_str());
  if (records.empty()) return 0;
  std::string temporary = path + ".XXXXXX";
  int fd = mkostemp(temporary.data(), O_CLOEXEC);
  if (fd < 0) return 7;
  for (const std::vector<char>& record : records) {
    if (!write_all(fd, record)) {
      close(fd);
      unlink(temporary.c_str());
      return 6;
    }
  }
  if (fsync(fd) != 0 || close(fd) != 0 || rename(temporary.c_str(), path.c_str()) != 0) {
    unlink(temporary.c_str());
    return 6;
  }
  return 0;
}

}  // namespace

int quor_records_read(const std::string& path, std::size_t count,
                      const std::function<void(const std::vector<std::string>&)>& take) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return 0;
  int rc = 0;
  for (;;) {
    std::array<char, 4> head{};
    if (!read_exactly(fd, head.data(), head.size())) break;
    // Three characters of length and a NUL; the number is read within them.
    long length = head[3] == '\0' ? buf_decimal(std::string_view(head.data(), 3)) : -1;
    std::vector<char> payload(static_cast<std::size_t>(std::clamp<long>(length, 0, kMaxUserRecord)));
    if (length < 0 || length > static_cast<long>(kMaxUserRecord) ||
        !read_exactly(fd, payload.data(), payload.size())) {
      rc = 5;
      break;
    }
    body_decode(static_cast<signed char>(head[0]), std::span<char>(payload));
    std::vector<std::string> strings = payload_strings(payload, count);
    if (strings.size() < count) {
      rc = 1;
      break;
    }
    take(strings);
  }
  close(fd);
  return rc;
}

namespace {

// Who owns each restored session, by (client user, client node).
std::map<std::pair<std::string, std::string>, ClientId> read_owners() {
  std::map<std::pair<std::string, std::string>, ClientId> owners;
  quor_records_read(quor_owners_path(), 3, [&](const std::vector<std::string>& s) {
    if (std::optional<ClientId> owner = quor_client_parse(s[2])) owners[{s[0], s[1]}] = *owner;
  });
  return owners;
}

// The owner of a session nobody recorded: the account it is logged in as.
ClientId owner_by_account(const std::string& login_name) {
  ClientId owner;
  if (std::optional<Account> account = quor_account(login_name)) {
    owner.known = true;
    owner.uid = account->uid;
  }
  return owner;
}

}  // namespace

int quor_users_save() {
  std::string path = quor_users_path();
  if (path.empty()) return 8;
  std::vector<std::vector<char>> users, owners;
  for (const UserEntry& entry : quor_users()) {
    std::optional<std::vector<char>> record = user_record(entry);
    std::optional<std::vector<char>> owner =
        record_of({entry.user_name, entry.node_name, quor_client_text(entry.owner)});
    if (!record || !owner) {
      if (quor_debug())
        quor_trace("user %s from %s not saved: record too long\n", entry.user_name.c_str(), entry.node_name.c_str());
      continue;
    }
    users.push_back(std::move(*record));
    owners.push_back(std::move(*owner));
  }
  // The owners first: a crash between the two leaves new owners beside the
  // old table, never a table whose sessions have lost theirs.
  if (int rc = write_records(quor_owners_path(), owners); rc != 0) return rc;
  return write_records(path, users);
}

int quor_users_load() {
  std::string path = quor_users_path();
  if (path.empty()) return 8;
  auto owners = read_owners();
  return quor_records_read(path, 5, [&](const std::vector<std::string>& strings) {
    UserEntry& entry = quor_user_new();
    entry.user_name = strings[0];
    entry.node_name = strings[1];
    entry.login_name = strings[2];
    entry.group_id = strings[3];
    entry.last_activity = std::atol(strings[4].c_str());
    auto owner = owners.find({entry.user_name, entry.node_name});
    entry.owner = owner != owners.end() ? owner->second : owner_by_account(entry.login_name);
    // A user whose login program cannot start is kept (and said so), so
    // that the next save still holds it.
    std::string why;
    quor_user_set_login(entry, quor_login_restore(entry.login_name, entry.node_name, why));
    if (entry.login_pid == 0) quor_msg_log(122, 2, entry.login_name + " (" + why + ")");
  });
}
