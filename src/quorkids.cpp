#include "quorkids.h"

#include <signal.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <vector>

#include "momsg.h"

ChildTable& quor_children() {
  static ChildTable table;
  return table;
}

ChildEntry& quor_child_new() {
  ChildEntry& entry = quor_children().emplace_front();
  entry.created = std::time(nullptr);
  return entry;
}

void quor_child_remove_files(ChildEntry& entry) {
  entry.transfer.reset();
  for (const std::string& path : entry.files) unlink(path.c_str());
  entry.files.clear();
}

ChildTable::iterator quor_child_erase(ChildTable::iterator at) {
  if (at->agent_pid < 1) {
    if (at->shm_addr != nullptr) shmdt(at->shm_addr);
    if (at->shm_id != -1) shmctl(at->shm_id, IPC_RMID, nullptr);
    quor_child_remove_files(*at);
  }
  return quor_children().erase(at);
}

int quor_child_remove(ChildEntry* entry) {
  if (entry == nullptr) return 3;
  ChildTable& table = quor_children();
  for (auto it = table.begin(); it != table.end(); ++it)
    if (&*it == entry) {
      quor_child_erase(it);
      break;
    }
  return 0;
}

ChildEntry* quor_child_find(const TransactionHeader& header, std::uint32_t mask, bool no_create) {
  for (ChildEntry& entry : quor_children())
    if (entry.client_pid == header.pid && entry.client_node == header.node && (entry.flags & mask) != 0)
      return &entry;
  if (no_create) return nullptr;
  ChildEntry& entry = quor_child_new();
  entry.client_pid = header.pid;
  entry.client_node = header.node;
  return &entry;
}

namespace {

// The pid a header's "PID" names: its leading decimal digits, after blanks
// and an optional sign, as the C library reads a number. 0 when there are
// none or the value does not fit.
pid_t pid_value(std::string_view text) {
  std::size_t at = text.find_first_not_of(" \t\n\v\f\r");
  if (at == std::string_view::npos) return 0;
  text.remove_prefix(at);
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  pid_t value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  return ec == std::errc{} ? value : 0;
}

}  // namespace

ChildEntry* quor_child_find_agent(const TransactionHeader& header, std::uint32_t mask) {
  if (header.node != mo_nodename()) return nullptr;
  pid_t pid = pid_value(header.pid);
  if (pid < 1) return nullptr;
  for (ChildEntry& entry : quor_children())
    if (entry.agent_pid == pid && (entry.flags & mask) != 0) return &entry;
  return nullptr;
}

void quor_children_forget_user(const UserEntry* user) {
  for (ChildEntry& entry : quor_children())
    if (entry.user == user) entry.user = nullptr;
}

int quor_child_count() { return static_cast<int>(quor_children().size()); }

void quor_children_drop_idle() {
  ChildTable& table = quor_children();
  for (auto it = table.begin(); it != table.end();) it = it->agent_pid < 1 ? quor_child_erase(it) : std::next(it);
}

namespace {

std::vector<pid_t>& disowned() {
  static std::vector<pid_t> pids;
  return pids;
}

// True once `pid` has been reaped here or is not our child (any more).
bool reaped(pid_t pid) {
  pid_t r = waitpid(pid, nullptr, WNOHANG);
  return r > 0 || (r == -1 && errno == ECHILD);
}

}  // namespace

void quor_child_disown(pid_t pid) {
  if (pid > 0) disowned().push_back(pid);
}

void quor_reap_disowned() { std::erase_if(disowned(), reaped); }

int quor_disowned_count() { return static_cast<int>(disowned().size()); }

void quor_terminate_pid(pid_t pid) { quor_terminate_pids(std::span(&pid, 1)); }

void quor_terminate_pids(std::span<const pid_t> pids) {
  if (std::none_of(pids.begin(), pids.end(), [](pid_t pid) { return pid > 0; })) return;
  for (pid_t pid : pids)
    if (pid > 0) kill(pid, SIGTERM);
  sleep(1);
  for (pid_t pid : pids)
    if (pid > 0 && !reaped(pid)) quor_child_disown(pid);
}

void quor_children_kill_all() {
  for (const ChildEntry& entry : quor_children()) {
    if (entry.agent_pid <= 0) continue;
    kill(entry.agent_pid, SIGTERM);
    sleep(1);
    kill(entry.agent_pid, SIGKILL);
    sleep(1);
    waitpid(entry.agent_pid, nullptr, WNOHANG);
  }
}
