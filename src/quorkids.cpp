#include "quorkids.h"

#include <signal.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <map>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "momsg.h"
#include "quorderr.h"
#include "quorindex.h"
#include "quorusers.h"

ChildTable& quor_children() {
  static ChildTable table;
  return table;
}

namespace {

// Where an entry is in the list and what it is indexed under.
struct ChildSlot {
  ChildTable::iterator at;
  std::uint64_t made = 0;  // creation order: larger is newer
  bool indexed = false;
  std::string client_pid, client_node;
  pid_t agent = 0;
  std::optional<std::time_t> waiting_since;  // its key among the waiting entries
};

// Entries of one key, newest first (the list's order).
using Bucket = std::vector<ChildEntry*>;

struct ChildIndex {
  std::uint64_t made = 0;
  std::unordered_map<const ChildEntry*, ChildSlot> slots;
  std::vector<ChildEntry*> fresh;  // made since the last lookup, not indexed yet
  std::unordered_map<std::pair<std::string, std::string>, Bucket, StringPairHash> by_client;
  std::unordered_map<pid_t, Bucket> by_agent;
  // Entries waiting for a buffer or a report, by the time the last came.
  std::map<std::pair<std::time_t, std::uint64_t>, ChildEntry*> waiting;
  std::unordered_set<ChildEntry*> failed;  // start attempted and failed (pid -1)
};

ChildIndex& index() {
  static ChildIndex i;
  return i;
}

template <class Map, class Key>
void bucket_add(Map& map, const Key& key, ChildEntry* entry) {
  ChildIndex& i = index();
  index_add(map, key, entry, i.slots[entry].made, [&](ChildEntry* e) { return i.slots[e].made; });
}

void index_agent(ChildEntry* entry, ChildSlot& slot, pid_t pid) {
  ChildIndex& i = index();
  if (slot.agent != 0) index_remove(i.by_agent, slot.agent, entry);
  slot.agent = pid;
  if (pid != 0) bucket_add(i.by_agent, pid, entry);
}

bool is_waiting(const ChildEntry& entry) { return entry.agent_pid == 0 || (entry.flags & kChildKept) != 0; }

// Files the entry among the waiting ones under its latest buffer's time, or
// takes it out.
void index_waiting(ChildEntry* entry, ChildSlot& slot, bool waiting) {
  ChildIndex& i = index();
  if (slot.waiting_since) i.waiting.erase({*slot.waiting_since, slot.made});
  slot.waiting_since.reset();
  if (!waiting) return;
  slot.waiting_since = entry->last_buffer;
  i.waiting[{entry->last_buffer, slot.made}] = entry;
}

// Indexes the entries made since the last lookup, as their makers left them.
void index_fresh() {
  ChildIndex& i = index();
  for (ChildEntry* entry : i.fresh) {
    ChildSlot& slot = i.slots[entry];
    slot.indexed = true;
    slot.client_pid = entry->client_pid;
    slot.client_node = entry->client_node;
    bucket_add(i.by_client, std::pair{slot.client_pid, slot.client_node}, entry);
    index_agent(entry, slot, entry->agent_pid);
    index_waiting(entry, slot, is_waiting(*entry));
    if (entry->agent_pid == -1) i.failed.insert(entry);
  }
  i.fresh.clear();
}

void unindex(ChildEntry* entry) {
  ChildIndex& i = index();
  auto it = i.slots.find(entry);
  if (it == i.slots.end()) return;
  if (it->second.indexed) {
    index_remove(i.by_client, std::pair{it->second.client_pid, it->second.client_node}, entry);
    if (it->second.agent != 0) index_remove(i.by_agent, it->second.agent, entry);
    index_waiting(entry, it->second, false);
  } else {
    std::erase(i.fresh, entry);
  }
  i.failed.erase(entry);
  i.slots.erase(it);
}


struct Loads {
  std::map<ClientId, ClientLoadCount> by_client;
  int pending = 0;
};

Loads& loads() {
  static Loads l;
  return l;
}

// Moves the entry's count from what it was to `to`.
void count_as(ChildEntry& entry, ChildLoad to) {
  Loads& l = loads();
  if (entry.load != ChildLoad::None) {
    auto it = l.by_client.find(entry.owner);
    if (it != l.by_client.end()) {
      (entry.load == ChildLoad::Pending ? it->second.pending : it->second.agents)--;
      if (it->second.pending == 0 && it->second.agents == 0) l.by_client.erase(it);
    }
    if (entry.load == ChildLoad::Pending) --l.pending;
  }
  entry.load = to;
  if (to == ChildLoad::None) return;
  ClientLoadCount& c = l.by_client[entry.owner];
  (to == ChildLoad::Pending ? c.pending : c.agents)++;
  if (to == ChildLoad::Pending) ++l.pending;
}

}  // namespace

void ChildTable::clear() {
  std::list<ChildEntry>::clear();
  index() = ChildIndex{};
}

ChildEntry& quor_child_new(const ClientId& owner) {
  ChildTable& table = quor_children();
  ChildEntry& entry = table.emplace_front();
  ChildIndex& i = index();
  ChildSlot& slot = i.slots[&entry];
  slot.at = table.begin();
  slot.made = ++i.made;
  i.fresh.push_back(&entry);
  entry.created = std::time(nullptr);
  entry.last_buffer = entry.created;
  entry.owner = owner;
  count_as(entry, ChildLoad::Pending);
  return entry;
}

void quor_child_started(ChildEntry& entry) { count_as(entry, ChildLoad::Agent); }

ClientLoadCount quor_client_load(const ClientId& client) {
  auto it = loads().by_client.find(client);
  return it == loads().by_client.end() ? ClientLoadCount{} : it->second;
}

int quor_pending_total() { return loads().pending; }

void quor_child_collect_output(ChildEntry& entry) {
  if (entry.output_file.empty()) return;
  int fd = open(entry.output_file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  unlink(entry.output_file.c_str());
  entry.output_file.clear();
  if (fd < 0) return;
  std::string text(kMaxAgentOutput, '\0');
  ssize_t n = read(fd, text.data(), text.size());
  close(fd);
  text.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  if (text.empty()) return;
  // One log line: line ends and other control characters become blanks.
  for (char& c : text)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = ' ';
  quor_msg_log(302, 2, "pid " + std::to_string(entry.agent_pid) + " of " + quor_client_text(entry.owner) + ": " + text);
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
  quor_child_collect_output(*at);
  count_as(*at, ChildLoad::None);
  // A login that ends here without its report leaves no pending session
  // behind, or the pair could never log in again.
  if (at->type == 'L' && at->user != nullptr && at->user->last_activity == 0) quor_user_remove(at->user);
  unindex(&*at);
  return quor_children().erase(at);
}

int quor_child_remove(ChildEntry* entry) {
  if (entry == nullptr) return 3;
  auto slot = index().slots.find(entry);
  if (slot != index().slots.end()) quor_child_erase(slot->second.at);
  return 0;
}

ChildEntry* quor_child_find(const TransactionHeader& header, std::uint32_t mask, bool no_create,
                            const ClientId& owner) {
  index_fresh();
  ChildIndex& i = index();
  if (auto bucket = i.by_client.find({header.pid, header.node}); bucket != i.by_client.end())
    for (ChildEntry* entry : bucket->second)
      if ((entry->flags & mask) != 0) return entry;
  if (no_create) return nullptr;
  ChildEntry& entry = quor_child_new(owner);
  entry.client_pid = header.pid;
  entry.client_node = header.node;
  index_fresh();
  return &entry;
}

void quor_child_set_agent(ChildEntry& entry, pid_t pid) {
  entry.agent_pid = pid;
  ChildIndex& i = index();
  auto slot = i.slots.find(&entry);
  if (slot == i.slots.end() || !slot->second.indexed) return;
  index_agent(&entry, slot->second, pid);
  index_waiting(&entry, slot->second, is_waiting(entry));
  if (pid == -1)
    i.failed.insert(&entry);
  else
    i.failed.erase(&entry);
}

ChildEntry* quor_child_by_agent(pid_t pid, std::uint32_t mask) {
  index_fresh();
  ChildIndex& i = index();
  auto bucket = i.by_agent.find(pid);
  if (bucket == i.by_agent.end()) return nullptr;
  for (ChildEntry* entry : bucket->second)
    if (entry->agent_pid == pid && (entry->flags & mask) != 0) return entry;
  return nullptr;
}

std::vector<ChildEntry*> quor_children_to_drop(std::time_t now) {
  index_fresh();
  ChildIndex& i = index();
  std::vector<ChildEntry*> drop(i.failed.begin(), i.failed.end());
  for (auto& [key, entry] : i.waiting) {
    if (now - key.first <= kPendingExpirySeconds) break;
    drop.push_back(entry);
  }
  std::sort(drop.begin(), drop.end(), [&](ChildEntry* a, ChildEntry* b) { return i.slots[a].made > i.slots[b].made; });
  drop.erase(std::unique(drop.begin(), drop.end()), drop.end());
  return drop;
}

void quor_child_touch(ChildEntry& entry, std::time_t when) {
  entry.last_buffer = when;
  auto slot = index().slots.find(&entry);
  if (slot != index().slots.end() && slot->second.waiting_since) index_waiting(&entry, slot->second, true);
}

void quor_child_keep(ChildEntry& entry) {
  entry.flags = kChildKept;
  entry.last_buffer = std::time(nullptr);  // its report has until the expiry from now
  auto slot = index().slots.find(&entry);
  if (slot != index().slots.end() && slot->second.indexed) index_waiting(&entry, slot->second, true);
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
  return quor_child_by_agent(pid, mask);
}

namespace {

// The links to each user. Never destroyed, so that links in tables destroyed
// at exit can still leave it.
std::unordered_map<const UserEntry*, std::vector<UserLink*>>& links() {
  static auto* by_user = new std::unordered_map<const UserEntry*, std::vector<UserLink*>>;
  return *by_user;
}

}  // namespace

void UserLink::set(UserEntry* user) {
  if (user == user_) return;
  if (user_ != nullptr) {
    auto it = links().find(user_);
    if (it != links().end()) {
      std::erase(it->second, this);
      if (it->second.empty()) links().erase(it);
    }
  }
  user_ = user;
  if (user != nullptr) links()[user].push_back(this);
}

void UserLink::forget(const UserEntry* user) {
  auto it = links().find(user);
  if (it == links().end()) return;
  for (UserLink* link : it->second) link->user_ = nullptr;
  links().erase(it);
}

void quor_children_forget_user(const UserEntry* user) { UserLink::forget(user); }

void quor_children_forget_users(std::span<UserEntry* const> users) {
  for (const UserEntry* user : users) UserLink::forget(user);
}

int quor_child_count() { return static_cast<int>(quor_children().size()); }

void quor_children_drop_idle() {
  ChildTable& table = quor_children();
  for (auto it = table.begin(); it != table.end();) it = it->agent_pid < 1 ? quor_child_erase(it) : std::next(it);
}

namespace {

std::unordered_set<pid_t>& disowned() {
  static std::unordered_set<pid_t> pids;
  return pids;
}

// True once `pid` has been reaped here or is not our child (any more).
bool reaped(pid_t pid) {
  pid_t r = waitpid(pid, nullptr, WNOHANG);
  return r > 0 || (r == -1 && errno == ECHILD);
}

}  // namespace

void quor_child_disown(pid_t pid) {
  if (pid > 0) disowned().insert(pid);
}

bool quor_disowned_ended(pid_t pid) { return disowned().erase(pid) != 0; }

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
  std::vector<pid_t> running;
  for (const ChildEntry& entry : quor_children())
    if (entry.agent_pid > 0 && (entry.flags & kChildKept) == 0) running.push_back(entry.agent_pid);
  // Waits up to a second for the processes to end, reaping those that do.
  auto reap_for_a_second = [&running] {
    for (int step = 0; step < 100 && !running.empty(); ++step) {
      std::erase_if(running, reaped);
      if (!running.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  };
  for (pid_t pid : running) kill(pid, SIGTERM);
  reap_for_a_second();
  // Not reaped yet, so each pid is still the agent's own.
  for (pid_t pid : running) kill(pid, SIGKILL);
  reap_for_a_second();
  for (pid_t pid : running) quor_child_disown(pid);
}
