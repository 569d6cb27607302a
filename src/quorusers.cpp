#include "quorusers.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "mocrypt.h"
#include "quorconfig.h"
#include "quordebug.h"
#include "quorkids.h"
#include "quortupgm.h"

UserTable& quor_users() {
  static UserTable table;
  return table;
}

UserEntry& quor_user_new() { return quor_users().emplace_front(); }

int quor_user_remove(UserEntry* entry) {
  if (entry == nullptr) return 3;
  quor_terminate_pid(entry->login_pid);
  quor_children_forget_user(entry);
  quor_users().remove_if([entry](const UserEntry& e) { return &e == entry; });
  return 0;
}

int quor_user_remove_ended(UserEntry* entry) {
  if (entry != nullptr) entry->login_pid = 0;
  return quor_user_remove(entry);
}

UserEntry* quor_user_find(const TransactionHeader& header, bool no_create) {
  for (UserEntry& entry : quor_users()) {
    if (entry.user_name != header.user || entry.node_name != header.node) continue;
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

int quor_user_count() { return static_cast<int>(quor_users().size()); }

void quor_users_stop_all() {
  std::vector<pid_t> pids;
  for (const UserEntry& user : quor_users()) pids.push_back(user.login_pid);
  quor_terminate_pids(pids);
}

std::string quor_users_path() { return quor_install_root() + "/tmp/quor.sav"; }

namespace {

// One save record, or nothing when the payload is too long for it.
std::optional<std::vector<char>> user_record(const UserEntry& entry) {
  std::string payload;
  for (const std::string* s : {&entry.user_name, &entry.node_name, &entry.login_name, &entry.group_id}) {
    payload.append(s->c_str());  // up to a NUL, as the record's strings end there
    payload.push_back('\0');
  }
  payload += std::to_string(static_cast<int>(entry.last_activity));
  payload.push_back('\0');
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

// The strings of a decoded payload; fewer than five when it is damaged.
std::vector<std::string> payload_strings(const std::vector<char>& payload) {
  std::vector<std::string> strings;
  std::size_t at = 0;
  while (strings.size() < 5 && at < payload.size()) {
    const char* end = static_cast<const char*>(std::memchr(payload.data() + at, '\0', payload.size() - at));
    if (end == nullptr) break;
    strings.emplace_back(payload.data() + at, end);
    at = static_cast<std::size_t>(end - payload.data()) + 1;
  }
  return strings;
}

}  // namespace

int quor_users_save() {
  std::string path = quor_users_path();
  if (path.empty()) return 8;
  unlink(path.c_str());
  if (quor_users().empty()) return 0;

  std::string temporary = path + ".XXXXXX";
  int fd = mkostemp(temporary.data(), O_CLOEXEC);
  if (fd < 0) return 7;
  for (const UserEntry& entry : quor_users()) {
    std::optional<std::vector<char>> record = user_record(entry);
    if (!record) {
      if (quor_debug())
        quor_trace("user %s from %s not saved: record too long\n", entry.user_name.c_str(), entry.node_name.c_str());
      continue;
    }
    if (!write_all(fd, *record)) {
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

int quor_users_load() {
  std::string path = quor_users_path();
  if (path.empty()) return 8;
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return 0;
  int rc = 0;
  for (;;) {
    std::array<char, 4> head{};
    if (!read_exactly(fd, head.data(), head.size())) break;
    long length = std::strtol(head.data(), nullptr, 10);
    if (length < 0 || length > static_cast<long>(kMaxUserRecord)) {
      rc = 5;
      break;
    }
    std::vector<char> payload(static_cast<std::size_t>(length));
    if (!read_exactly(fd, payload.data(), payload.size())) {
      rc = 5;
      break;
    }
    body_decode(static_cast<signed char>(head[0]), std::span<char>(payload));
    std::vector<std::string> strings = payload_strings(payload);
    if (strings.size() < 5) {
      rc = 1;
      break;
    }
    UserEntry& entry = quor_user_new();
    entry.user_name = strings[0];
    entry.node_name = strings[1];
    entry.login_name = strings[2];
    entry.group_id = strings[3];
    entry.last_activity = std::atol(strings[4].c_str());
    entry.login_pid = quor_login_start(entry.login_name, entry.node_name, 0);
    if (entry.login_pid == 0) quor_user_remove(&entry);
  }
  close(fd);
  return rc;
}
