// The child process table: one entry per command-request transaction, from
// its first request buffer until its agent has ended and been reaped, and
// the two ways the daemon stops a process.
//
// New entries go to the front; walks run from the front, so lookups find the
// newest matching transaction first. Entries live in a std::list, so the
// references other tables keep to them stay valid until they are removed.
//
// The list is the order of record; beside it the table keeps hash indexes
// (by client pid and node, by agent pid) and the transactions that wait for
// a buffer or a report, by when the last came, so that a lookup or a sweep
// costs the same
// whatever the number of entries. An entry is indexed as its maker left it
// at the first lookup after it was made; an agent pid that changes later
// goes through quor_child_set_agent. Since entries go to the front with the
// current time, the back of the list holds the oldest transactions.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "quorRDW.h"
#include "quoraccess.h"
#include "quorenvd.h"
#include "quorutl.h"

struct UserEntry;

// At most this much of an agent's standard error reaches the log.
inline constexpr std::size_t kMaxAgentOutput = 2048;

// Flag bits of ChildEntry::flags.
inline constexpr std::uint32_t kChildNew = 0x01;          // first buffer not processed yet
inline constexpr std::uint32_t kChildContinuing = 0x02;   // more buffers announced
inline constexpr std::uint32_t kChildRunning = 0x04;      // agent started
inline constexpr std::uint32_t kChildRefused = 0x08;      // refused: no login
inline constexpr std::uint32_t kChildKept = 0x10;         // login agent ended cleanly
inline constexpr std::uint32_t kChildNoKeep = 0x20;       // reapable, never kept
inline constexpr std::uint32_t kChildNoTimeout = 0x40;    // exempt from the transaction time-out

// A transaction's reference to its user. Every link to a user can be found
// from the user, so that a user who goes clears the links to it without a
// walk of the child table: logging out costs the same whatever the number
// of transactions. Used as the pointer it holds.
class UserLink {
 public:
  UserLink() = default;
  UserLink(const UserLink&) = delete;
  UserLink& operator=(const UserLink&) = delete;
  ~UserLink() { set(nullptr); }

  UserLink& operator=(UserEntry* user) {
    set(user);
    return *this;
  }
  operator UserEntry*() const { return user_; }
  UserEntry* operator->() const { return user_; }
  friend bool operator==(const UserLink& link, const UserEntry* user) { return link.user_ == user; }

  // Clears every link to `user`.
  static void forget(const UserEntry* user);

 private:
  void set(UserEntry* user);
  UserEntry* user_ = nullptr;
};

// What an entry counts against its client's limits.
enum class ChildLoad : std::uint8_t { None, Pending, Agent };

struct ChildEntry {
  std::uint32_t flags = kChildNew;
  std::string client_pid;   // "PID" of the transaction's first buffer
  std::string client_node;  // "NOD" of that buffer
  int kind = 0;             // 1 'S'/'U' agent, 2 'L', 3 'O'; 0 before the start
  int shm_id = -1;          // the request record's segment, -1 when none
  void* shm_addr = nullptr; // where the daemon has it attached; none once handed over
  std::time_t created = 0;  // the transaction time-out counts from here
  pid_t agent_pid = 0;      // 0 never started, -1 start attempted, else the agent
  std::optional<EnvBlock> env;  // the agent's two environment entries, when sent
  FileTransfer transfer;        // inbound data spanning the transaction's buffers
  std::vector<std::string> files;  // data and command files made for the agent
  UserLink user;             // not owned
  char type = 0;            // message type of the first buffer
  ClientId owner;           // who sent the first buffer, as the transport established it
  pid_t sender_pid = 0;     // the kernel pid of that sender, when local
  std::time_t last_buffer = 0;  // when the latest buffer arrived; unfinished ones expire from here
  std::string output_file;  // the agent's standard error, read into the log when it is done
  std::string command_file; // a utility request's command file, the daemon's own
  ChildLoad load = ChildLoad::None;
};

// The list of record. Clearing it forgets its indexes too.
class ChildTable : public std::list<ChildEntry> {
 public:
  void clear();
};

// The daemon's table.
ChildTable& quor_children();

// A new entry at the front (flags exactly 0x01, created now), counted as an
// unfinished transaction of `owner`.
ChildEntry& quor_child_new(const ClientId& owner = {});

// The entry's agent has started: it counts as a running agent of its owner
// from now on, until the entry goes.
void quor_child_started(ChildEntry& entry);

// Unfinished transactions and running agents: of one client, and in all.
struct ClientLoadCount {
  int pending = 0;
  int agents = 0;
};
ClientLoadCount quor_client_load(const ClientId& client);
int quor_pending_total();

// Removes `entry`. A segment and files that no agent ever received are
// removed from the system; those handed to an agent belong to the agent.
// 0, or 3 for none.
int quor_child_remove(ChildEntry* entry);

// Removes the files made for the entry's agent (one that will never run).
void quor_child_remove_files(ChildEntry& entry);

// quor_child_remove for an entry known by its place; returns the next place.
ChildTable::iterator quor_child_erase(ChildTable::iterator at);

// The transaction of the header's client: the first entry whose client pid
// and node equal the header's "PID" and "NOD" and whose flags share a bit
// with `mask`. Without one, a new entry for that client (flags 0x01, so a
// mask of 0x02 does not find it until it is marked) unless `no_create`.
ChildEntry* quor_child_find(const TransactionHeader& header, std::uint32_t mask, bool no_create,
                            const ClientId& owner = {});

// The transaction whose agent sent the header: the first entry whose agent
// pid is the decimal value of "PID" and whose flags share a bit with
// `mask`, provided "NOD" is this host. Never creates one.
ChildEntry* quor_child_find_agent(const TransactionHeader& header, std::uint32_t mask);

// Records the entry's agent pid (0 none, -1 start attempted, else the
// agent) and indexes it.
void quor_child_set_agent(ChildEntry& entry, pid_t pid);

// The newest entry whose agent pid is `pid` and whose flags share a bit
// with `mask`; none when there is none.
ChildEntry* quor_child_by_agent(pid_t pid, std::uint32_t mask);

// The entries a sweep at `now` drops, newest first: those whose start
// failed (pid -1), and those waiting for a buffer or a report (never
// started, or kept after their agent ended) whose last buffer came more
// than kPendingExpirySeconds before `now`. Only these are looked at.
std::vector<ChildEntry*> quor_children_to_drop(std::time_t now);

// A buffer of the entry's transaction arrived at `when`.
void quor_child_touch(ChildEntry& entry, std::time_t when);

// Marks the entry as kept after its agent ended cleanly: flags exactly
// kChildKept, waiting for its report from now.
void quor_child_keep(ChildEntry& entry);

// Clears every entry's reference to `user`, which is about to go; the cost
// is that of the references cleared.
void quor_children_forget_user(const UserEntry* user);
// The same for several users at once.
void quor_children_forget_users(std::span<UserEntry* const> users);

int quor_child_count();

// Removes every entry that has no process (agent pid below 1).
void quor_children_drop_idle();

// SIGTERM, one second, non-blocking reap. Nothing for pids below 1. A
// process still running after that is disowned (below).
void quor_terminate_pid(pid_t pid);

// quor_terminate_pid for several processes at once: they share the one
// second, so stopping many takes no longer than stopping one.
void quor_terminate_pids(std::span<const pid_t> pids);

// Children no table tracks any more (stopped ones that had not ended yet,
// replaced login processes) are reaped by the sweep once they end, so none
// stays a zombie. quor_disowned_ended forgets one the sweep reaped (true
// when it was disowned); quor_reap_disowned reaps, one by one, those that
// have ended.
void quor_child_disown(pid_t pid);
bool quor_disowned_ended(pid_t pid);
void quor_reap_disowned();
int quor_disowned_count();

// Stops every agent still running: SIGTERM to all, up to a second for them
// to end, SIGKILL to those that did not, up to another second, reaping as
// they end. An agent already reaped (a login agent kept for its report) is
// never signalled: its pid may be somebody else's by now. Entries stay in
// the table.
void quor_children_kill_all();

// Logs what the entry's agent wrote to its standard error (a bounded
// amount) and removes the file.
void quor_child_collect_output(ChildEntry& entry);
