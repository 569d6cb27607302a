#include "quorproc.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "momsg.h"
#include "quorRDW.h"
#include "quoraccount.h"
#include "quorcal.h"
#include "quorconfig.h"
#include "quordebug.h"
#include "quorderr.h"
#include "quorlsfl.h"
#include "quorpnfn.h"
#include "quorsmc.h"
#include "quorspawn.h"
#include "quortrl.h"
#include "quorusers.h"

namespace {

constexpr std::string_view kCmdTag = "ZZZCMD";
constexpr std::string_view kLstTag = "ZZZLST";

std::span<char> segment_of(const ChildEntry& entry) {
  return std::span<char>(static_cast<char*>(entry.shm_addr), kShmSize);
}
std::span<char> record_of(const ChildEntry& entry) { return segment_of(entry).subspan(kRecordOffset); }

// Copies `text` into the 8-byte field at `offset`, with its NUL.
void put_short_field(std::span<char> segment, std::size_t offset, std::string_view text) {
  std::size_t n = std::min<std::size_t>(text.size(), 7);
  std::memcpy(segment.data() + offset, text.data(), n);
  std::memset(segment.data() + offset + n, 0, 8 - n);
}

std::string_view value(const std::optional<std::string>& field) { return field ? *field : std::string_view{}; }

// Answers the request with an error reply carrying message `number` and
// ends its transaction, if it has one. The request is then answered: 0.
int refuse(ChildEntry* entry, ConnRecord& conn, int number, int severity,
           std::optional<std::string_view> detail = std::nullopt) {
  quor_msg_log(number, severity, detail);
  quor_error_reply(1, quor_msg_text(number, severity, detail), conn);
  if (entry != nullptr) quor_child_remove(entry);
  return 0;
}

// What a client may not exceed before a new transaction is taken on; empty
// when it may go ahead.
std::string over_limit(const ClientId& client) {
  bool trusted = quor_client_trusted(client);
  ClientLoadCount load = quor_client_load(client);
  std::string who = quor_client_text(client);
  if (load.pending >= (trusted ? kPendingPerTrustedClient : kPendingPerClient))
    return "unfinished requests of " + who + ": " + std::to_string(load.pending);
  if (quor_pending_total() >= kPendingTotal)
    return "unfinished requests of all clients: " + std::to_string(quor_pending_total());
  if (!trusted && load.agents >= kAgentsPerClient) return "running agents of " + who + ": " + std::to_string(load.agents);
  return {};
}

// The transaction this buffer belongs to: one of the same client waiting
// for more, or a new one for a first buffer. A client continues only its own
// transactions, whatever pid and node it claims. Sets `rc` when there is
// none (3, or 0 when the request was refused and answered).
ChildEntry* transaction_of(const TransactionHeader& header, const ClientId& sender, ConnRecord& conn, int& rc) {
  ChildEntry* entry = quor_child_find(header, kChildContinuing, true, sender);
  if (entry != nullptr) return entry;
  if (!header.continuation.starts_with('N')) {
    quor_msg_log(118, 2);
    rc = 3;
    return nullptr;
  }
  if (std::string why = over_limit(sender); !why.empty()) {
    rc = refuse(nullptr, conn, 306, 2, why);
    return nullptr;
  }
  entry = quor_child_find(header, kChildContinuing, false, sender);
  if (entry == nullptr) {
    quor_msg_log(1, 4);
    rc = 1;
  }
  return entry;
}

// The session a login request logs in: the pair's own when its client may
// use it (logging in again), else a new pending one owned by the sender.
// Refuses (and answers) a pair whose login is already under way or that
// belongs to another client, and a client holding too many sessions.
UserEntry* login_session(const TransactionHeader& header, const ClientId& sender, ChildEntry& entry,
                         ConnRecord& conn, int& rc) {
  UserEntry* user = quor_user_find(header, true);
  UserEntry* pair = user != nullptr ? user : quor_user_entry(header.user, header.node);
  std::string who = "user " + header.user + " from " + header.node;
  if (pair != nullptr && pair->last_activity == 0) {
    rc = refuse(&entry, conn, 303, 2, who);
    return nullptr;
  }
  if (pair != nullptr && !quor_client_may_use(pair->owner, sender)) {
    rc = refuse(&entry, conn, 132, 2);
    return nullptr;
  }
  if (pair != nullptr) return pair;
  if (!quor_client_trusted(sender) && quor_user_count_owned(sender) >= kSessionsPerClient) {
    rc = refuse(&entry, conn, 306, 2, "sessions of " + quor_client_text(sender));
    return nullptr;
  }
  user = quor_user_find(header, false);
  if (user == nullptr) {
    quor_msg_log(1, 4);
    rc = 1;
    return nullptr;
  }
  user->owner = sender;
  return user;
}

// A transaction without a login, where one is needed, or that claims a
// session another client owns, is refused once its last buffer has arrived.
// A client on another host always needs a login: the default account is
// for this host's users.
bool refused_without_login(ChildEntry& entry, bool foreign, bool remote, InBuf buf, ConnRecord& conn) {
  const QuorConfig& config = quor_config();
  bool default_login = !remote && config.login_required == 0 && config.default_login_child > 0;
  if (!foreign && (entry.user != nullptr || default_login)) return false;
  // Marked continuing too, so that the later buffers find the transaction
  // and the last one gets the refusal (and removes it).
  entry.flags |= kChildRefused;
  if (!quor_trl_last(buf)) {
    entry.flags |= kChildContinuing;
    return true;
  }
  quor_error_reply(1, quor_msg_text(132, 2), conn);
  quor_child_remove(&entry);
  return true;
}

// Which object a request type may start. Agents of "LOGON" and "MOUTIL" run
// as root: the logon agent only for a login or logoff, the utility agent
// only for a utility request, which names it itself. A login starts the
// logon agent and nothing else, since it runs before anybody is known.
bool object_allowed(char type, std::string_view object) {
  if (type == 'L') return object == "LOGON";
  if (type == 'U') return true;
  if (object == "MOUTIL") return false;
  return object != "LOGON" || type == 'O';
}

// first_buffer's result when it refused the request and removed its
// transaction: the request is answered.
constexpr int kAnswered = -1;

// The first buffer creates the segment and fills the record.
int first_buffer(ChildEntry& entry, const TransactionHeader& header, InBuf buf, ConnRecord& conn) {
  entry.flags &= ~kChildNew;
  entry.type = header.type();
  entry.sender_pid = conn.inquiry.pid;
  ObjectHeader hdr;
  if (!quor_hdr_read(buf, hdr)) {
    quor_msg_log(119, 2);
    quor_child_remove(&entry);
    return 3;
  }
  if (!object_allowed(entry.type, value(hdr.object))) {
    refuse(&entry, conn, 305, 2, "object " + std::string(value(hdr.object)) + " in a request of type " +
                                     std::string(1, entry.type));
    return kAnswered;
  }
  // Without a segment this request cannot go on, but the daemon can.
  entry.shm_id = quor_shm_create(kShmSize, entry.shm_addr);
  if (entry.shm_id == -1) {
    refuse(&entry, conn, 2, 4);
    return kAnswered;
  }
  std::span<char> segment = segment_of(entry);
  std::memcpy(segment.data() + kShmLocalId, conn.local.bytes.data(), kTevIdentitySize);
  std::memcpy(segment.data() + kShmRemoteId, conn.remote.bytes.data(), kTevIdentitySize);
  std::span<char> record = record_of(entry);
  if (std::string data_file = quor_smc_fill(record, header, hdr); !data_file.empty())
    entry.files.push_back(std::move(data_file));
  put_short_field(segment, kShmOsType, header.ostype);
  put_short_field(segment, kShmOpText, value(hdr.op_text));
  if (entry.type != 'L') {
    const QuorConfig& config = quor_config();
    if (config.login_required != 0 || entry.user != nullptr) {
      smc_put(record, smc::username, entry.user->login_name);
      smc_put(record, smc::gid, entry.user->group_id);
    } else {
      smc_put(record, smc::username, config.nologin_user);
    }
  }
  entry.env = quor_env_read(buf);
  return 0;
}

// The command list of a 'U' request becomes the agent's command file,
// named in the first value slot of the selection list.
int utility_commands(ChildEntry& entry, const TransactionHeader& header, InBuf buf) {
  std::span<char> record = record_of(entry);
  // The file is made for the transaction's first command buffer; later
  // buffers go on writing it.
  if (entry.command_file.empty()) {
    int fd = quor_temp_file("CMD", 0, entry.command_file);
    if (fd < 0) {
      quor_msg_log(1, 4);
      return 1;
    }
    close(fd);
    entry.files.push_back(entry.command_file);
  }
  entry.transfer.path = entry.command_file;
  std::string_view object = smc_get(record, smc::object), command = smc_get(record, smc::command);
  int code = object == "FILEVERSION" && (command == "RESTORE" || command == "BACKUP" || command == "ARCHIVE")
                 ? quor_fileversion_rewrite(record, buf, entry, kCmdTag)
                 : buffer_to_list(entry.transfer, kCmdTag, buf);
  if (code == 4) {
    quor_msg_log(133, 2);
    return 4;
  }
  quor_transfer_report(code, kCmdTag, header);
  return code;
}

// A table or calendar goes to the record's data file.
int request_data(ChildEntry& entry, const TransactionHeader& header, InBuf buf) {
  entry.transfer.path = std::string(smc_get(record_of(entry), smc::fileName));
  int code = buffer_to_RDW(entry.transfer, buf);
  std::string_view tag = kRdwTag;
  if (code == 4) {
    code = buffer_to_cal(entry.transfer, buf);
    tag = kCalTag;
  }
  quor_transfer_report(code, tag, header);
  return code == 4 ? 0 : code;
}

}  // namespace

int quor_command_request(const TransactionHeader& header, InBuf buf, ConnRecord& conn) {
  ClientId sender = quor_client_of(conn.inquiry);
  int rc = 0;
  ChildEntry* entry = transaction_of(header, sender, conn, rc);
  if (entry == nullptr) return rc;
  quor_child_touch(*entry, std::time(nullptr));

  // The session: a login's own (kept across its buffers), or the sender's
  // if it may use the one its request names.
  bool foreign = false;
  if (header.type() == 'L') {
    if (entry->flags & kChildNew) {
      // A refused login has ended its transaction: `entry` is gone then.
      UserEntry* user = login_session(header, sender, *entry, conn, rc);
      if (user == nullptr) return rc;
      entry->user = user;
    }
  } else {
    entry->user = quor_user_find(header, true);
    foreign = entry->user != nullptr && !quor_client_may_use(entry->user->owner, sender);
    if (foreign) entry->user = nullptr;
  }
  if (refused_without_login(*entry, foreign, !sender.host.empty(), buf, conn)) return 0;
  if (entry->flags & kChildNew)
    if (int code = first_buffer(*entry, header, buf, conn); code != 0) return code == kAnswered ? 0 : code;

  std::span<char> record = record_of(*entry);
  quor_pnd_to_record(record, buf);
  // A transfer that failed ends the transaction: its later buffers would
  // find nothing waiting, so the entry, its segment and files go now.
  int code = entry->type == 'U' ? utility_commands(*entry, header, buf) : request_data(*entry, header, buf);
  // The command file slot is the daemon's, whatever a selection list says.
  if (!entry->command_file.empty()) smc_put(record, smc::slot(smc::csl_value, 0), entry->command_file);
  if (code != 0) {
    quor_child_remove(entry);
    return code;
  }
  if (!quor_trl_last(buf)) {
    entry->flags |= kChildContinuing;
    return 0;
  }
  rc = quor_agent_start(*entry);
  if (rc == 0) {
    entry->flags = kChildRunning | (entry->flags & kChildNoTimeout);
    quor_child_started(*entry);
  }
  if (rc == 3) quor_child_remove(entry);
  return rc;
}

namespace {

// The last component of a path.
std::string_view basename_of(std::string_view path) {
  std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// The agent's environment: the clean one every started program gets, who
// sent the request as the transport established it, and the entries the
// client asked for.
std::vector<std::string> agent_environment(const ChildEntry& entry, const Account* account) {
  std::vector<std::string> env = quor_spawn_environment(account);
  if (entry.owner.local()) {
    env.push_back("QUOR_CLIENT_UID=" + std::to_string(static_cast<unsigned long>(entry.owner.uid)));
    env.push_back("QUOR_CLIENT_PID=" + std::to_string(entry.sender_pid));
  } else if (entry.owner.known) {
    env.push_back("QUOR_CLIENT_HOST=" + entry.owner.host);
  }
  if (!entry.env) return env;
  for (const std::string* e : {&entry.env->date_format, &entry.env->message}) {
    if (e->empty()) continue;
    if (quor_debug()) quor_trace("adding to env - ^%s^\n", e->c_str());
    env.push_back(*e);
  }
  return env;
}

// The agent's standard error: a file of its own, write-only, that only the
// daemon reads (into the log once the agent is done). Nobody else's output
// is in it, and it cannot be read through the agent. -1 when it cannot be
// made (the agent then writes nowhere).
int agent_output(ChildEntry& entry) {
  std::string path;
  int fd = quor_temp_file("AGT", 0, path);
  if (fd < 0) return open("/dev/null", O_WRONLY | O_CLOEXEC);
  close(fd);
  entry.output_file = path;
  return open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW);
}

}  // namespace

int quor_agent_start(ChildEntry& entry) {
  if (quor_debug()) quor_trace("%s:  starting agent.\n", quor_program_name());
  quor_child_set_agent(entry, -1);
  std::span<char> record = record_of(entry);
  std::string username(smc_get(record, smc::username));
  if (entry.type == 'U') smc_put(record, smc::object, "MOUTIL");
  std::string object(smc_get(record, smc::object));
  bool change_uid = object != "MOUTIL" && object != "LOGON";
  if (object == "CONLOG" && smc_get(record, smc::command) == "MOWTOR") entry.flags |= kChildNoTimeout;

  const ObjectMapEntry* program = quor_objmap_find(object);
  if (program == nullptr) {
    quor_msg_log(115, 2, object);
    return 3;
  }
  if (program->program_path.empty()) {
    quor_msg_log(120, 2);
    return 3;
  }
  struct stat st {};
  if (stat(program->program_path.c_str(), &st) != 0) {
    MOmsgf(2, 487, "../src/quorproc", mo_identifier(127, 2), MO_LOG | 2,
           {quor_program_name(), program->program_path});
    return 3;
  }
  if ((st.st_mode & 0111) == 0) {
    quor_msg_log(121, 2, quor_program_name());
    return 3;
  }
  // Looked up (and remembered) here, so that the child only makes the
  // system calls. An agent that needs an account that does not exist is not
  // started: never run as root on somebody's behalf.
  std::optional<Account> account = change_uid ? quor_account(username) : std::nullopt;
  if (change_uid && !account) {
    quor_msg_log(301, 2, "object " + object + ", account " + username);
    return 3;
  }
  SpawnRequest spawn{program->program_path, {}, agent_environment(entry, account ? &*account : nullptr),
                     account ? &*account : nullptr, entry.shm_id, std::string(smc_get(record, smc::fileName)),
                     agent_output(entry)};
  spawn.args = {std::string(basename_of(spawn.program)), std::to_string(static_cast<long>(entry.shm_id))};
  if (account && quor_debug())
    quor_trace("Setting uid to %d for user %s\n", static_cast<int>(account->uid), username.c_str());

  // The segment passes to the agent: the daemon lets go of it first.
  shmdt(entry.shm_addr);
  entry.shm_addr = nullptr;
  SpawnResult started = quor_spawn(spawn);
  if (spawn.stderr_fd >= 0) close(spawn.stderr_fd);
  pid_t pid = started.pid;
  if (pid < 0) {
    quor_msg_log(122, 2, quor_program_name());
    return 3;
  }
  if (account && quor_debug())
    quor_trace("setuid returned status = %d, errno = %d\n", started.failure == SpawnResult::kIdentity ? -1 : 0,
               started.failure == SpawnResult::kIdentity ? started.err : 0);
  // A child that failed has removed the segment and ended with status 99;
  // the sweep drops the entry. The files it never took over go now.
  if (started.failure != SpawnResult::kNone) quor_child_remove_files(entry);
  if (started.failure == SpawnResult::kIdentity)
    quor_msg_log(301, 2, "object " + object + ", account " + username + ": " + std::strerror(started.err));
  if (started.failure == SpawnResult::kExec) quor_msg_log(121, 2, quor_program_name());

  quor_child_set_agent(entry, pid);
  if (entry.type == 'L') {
    entry.kind = 2;
  } else if (entry.type == 'O') {
    entry.kind = 3;
    // The login process is stopped (and reaped or disowned) here: its pid
    // is forgotten, so that nothing signals it again once it may be reused.
    if (entry.user != nullptr) {
      quor_terminate_pid(entry.user->login_pid);
      quor_user_set_login(*entry.user, 0);
    }
  } else {
    entry.kind = 1;
  }
  return 0;
}

int quor_shm_create(std::size_t size, void*& address) {
  int id = shmget(IPC_PRIVATE, size, IPC_CREAT | 0600);
  if (id == -1) return -1;
  void* at = shmat(id, nullptr, 0);
  if (at == reinterpret_cast<void*>(-1)) {
    shmctl(id, IPC_RMID, nullptr);
    return -1;
  }
  address = at;
  return id;
}

void quor_transfer_report(int code, std::string_view tag, const TransactionHeader& header) {
  if (code == 0 || code == 4) return;
  std::string_view name = tag == kRdwTag ? "RDW" : tag == kLstTag ? "LIST" : tag == kCalTag ? "CALENDAR"
                          : tag == kCmdTag ? "MOUTIL CMD" : "";
  static constexpr std::pair<int, std::pair<int, int>> kMessages[] = {
      {1, {11, 4}}, {3, {105, 2}}, {5, {108, 2}}, {6, {107, 2}}, {7, {106, 2}}};
  for (const auto& [c, message] : kMessages)
    if (c == code) quor_msg_log(message.first, message.second, name);
  MOmsgf(2, 647, "../src/quorproc", mo_identifier(123, 2), MO_LOG | 3, {header.node, header.user, header.pid});
}

// ---------------------------------------------------------------------------
// Command files of the file-version commands

namespace {

// Opens the transfer's file unless it is open; 0 or 7. Sets `opened_here`.
int open_list_file(FileTransfer& transfer, bool& opened_here) {
  opened_here = false;
  if (transfer.stream) return 0;
  transfer.stream.reset(std::fopen(transfer.path.c_str(), "w+e"));
  if (!transfer.stream) return 7;
  transfer.flags |= kXferCreated;
  opened_here = true;
  return 0;
}

bool put(std::FILE* file, std::string_view text, bool newline) {
  return std::fwrite(text.data(), 1, text.size(), file) == text.size() && (!newline || std::fputc('\n', file) != EOF);
}

}  // namespace

int quor_write_items(FileTransfer& transfer, std::string_view text, bool close) {
  bool opened_here = false;
  if (int rc = open_list_file(transfer, opened_here); rc != 0) return rc;
  while (!text.empty()) {
    std::size_t nul = text.find('\0');
    std::string_view piece = text.substr(0, nul);
    if (piece.empty()) break;
    if (piece == kEndOfSegment) {
      // Closed when asked, whoever opened it: the agent reads it next.
      if (close) transfer.reset();
      return 0;
    }
    bool at_end = nul == std::string_view::npos;
    if (!put(transfer.stream.get(), piece, !at_end && piece.find('\n') == std::string_view::npos)) {
      if (opened_here) transfer.reset();
      return 6;
    }
    ++transfer.count;
    text.remove_prefix(at_end ? text.size() : nul + 1);
  }
  if (close) transfer.reset();
  return 0;
}

int quor_write_list_items(FileTransfer& transfer, InBuf buf, std::string_view tag) {
  std::optional<std::size_t> first = buf_find_segment(buf, tag);
  if (!first) return 4;
  bool opened_here = false;
  if (int rc = open_list_file(transfer, opened_here); rc != 0) return rc;
  auto fail = [&](int rc) {
    if (opened_here) transfer.reset();
    return rc;
  };
  for (std::size_t at = *first;;) {
    std::optional<std::string_view> item = buf_string(buf, at);
    if (!item || item->empty()) return fail(3);
    if (*item == kEndOfSegment) break;
    at += item->size() + 1;
    std::string_view name = *item;
    name.remove_prefix(std::min(name.find_first_not_of(' '), name.size()));
    if (name.ends_with('\n')) name.remove_suffix(1);
    name = name.substr(0, name.find_last_not_of(' ') + 1);
    if (name.size() < 2) continue;
    if (!put(transfer.stream.get(), name, name.find('\n') == std::string_view::npos)) return fail(6);
    ++transfer.count;
  }
  if (opened_here && quor_trl_last(buf)) transfer.reset();
  return 0;
}

int quor_fileversion_rewrite(std::span<char> record, InBuf buf, ChildEntry& entry, std::string_view tag) {
  std::optional<std::size_t> first = buf_find_segment(buf, tag);
  if (!first) return 4;
  // The command segment's bytes, from its first item to the end of the
  // request, worked on as a copy.
  std::string text(buf.data() + *first, buf.size() - *first);
  std::size_t name_at = std::string::npos;
  for (std::string_view key : {"NAME=", "name="}) name_at = std::min(name_at, text.find(key));
  if (name_at == std::string::npos) return 4;
  std::size_t at = name_at + 5;
  // The value runs to a blank or a '<'; an opening quote or parenthesis
  // says what closes the name after the '<'.
  char closing = '\0';
  bool plain = true;
  for (; at < text.size() && text[at] != ' ' && text[at] != '<'; ++at) {
    if (text[at] == '"' || text[at] == '\'') closing = text[at], plain = false;
    if (text[at] == '(') closing = ')', plain = false;
  }
  if (at >= text.size()) return 4;
  if (text[at] == ' ') return buffer_to_list(entry.transfer, tag, buf);
  std::size_t cut = at + 1;
  std::size_t end_of_name = cut;
  while (end_of_name < text.size() && text[end_of_name] != closing && !(plain && text[end_of_name] == ' '))
    ++end_of_name;
  if (end_of_name >= text.size()) return 4;

  std::string data_file(smc_get(record, smc::fileName));
  // The command with the request's data file in place of the name.
  if (int rc = quor_write_items(entry.transfer, std::string_view(text).substr(0, cut), false); rc != 0) return rc;
  if (int rc = quor_write_items(entry.transfer, data_file, false); rc != 0) return rc;
  if (int rc = quor_write_items(entry.transfer, std::string_view(text).substr(end_of_name), true); rc != 0)
    return rc;

  // The names, without quotes or commas, become the data file.
  std::vector<char> names(buf.begin(), buf.end());
  std::optional<std::size_t> list = buf_find_segment(names, kLstTag);
  if (!list) return 4;
  for (std::size_t i = *list; i < names.size(); ++i) {
    if (std::string_view(names.data() + i, names.size() - i).starts_with(kEndOfSegment)) break;
    if (names[i] == '"' || names[i] == '\'' || names[i] == ',') names[i] = ' ';
  }
  FileTransfer name_list;
  name_list.path = data_file;
  quor_write_list_items(name_list, names, kLstTag);
  smc_put(record, smc::fileName, "");
  return 0;
}
