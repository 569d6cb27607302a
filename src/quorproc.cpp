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

// Step 2: a transaction without a login, where one is needed, is refused
// once its last buffer has arrived.
bool refused_without_login(ChildEntry& entry, InBuf buf, ConnRecord& conn) {
  const QuorConfig& config = quor_config();
  if (entry.user != nullptr || (config.login_required == 0 && config.default_login_child > 0)) return false;
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

// Step 3: the first buffer creates the segment and fills the record.
int first_buffer(ChildEntry& entry, const TransactionHeader& header, InBuf buf, const ConnRecord& conn) {
  entry.flags &= ~kChildNew;
  entry.type = header.type();
  entry.shm_id = quor_shm_create(kShmSize, entry.shm_addr);
  if (entry.shm_id == -1) {
    quor_msg_log(2, 4);
    return 1;
  }
  std::span<char> segment = segment_of(entry);
  std::memcpy(segment.data() + kShmLocalId, conn.local.bytes.data(), kTevIdentitySize);
  std::memcpy(segment.data() + kShmRemoteId, conn.remote.bytes.data(), kTevIdentitySize);
  ObjectHeader hdr;
  if (!quor_hdr_read(buf, hdr)) {
    quor_msg_log(119, 2);
    quor_child_remove(&entry);
    return 3;
  }
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

// Step 5: the command list of a 'U' request becomes the agent's command
// file, named in the first value slot of the selection list.
int utility_commands(ChildEntry& entry, const TransactionHeader& header, InBuf buf) {
  std::span<char> record = record_of(entry);
  // The file is made for the transaction's first command buffer; later
  // buffers go on writing it.
  if (!entry.transfer.stream) {
    std::string path;
    int fd = quor_temp_file("CMD", 0, path);
    if (fd < 0) {
      quor_msg_log(1, 4);
      return 1;
    }
    close(fd);
    smc_put(record, smc::slot(smc::csl_value, 0), path);
    entry.transfer.path = path;
    entry.files.push_back(path);
  }
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

// Step 6: a table or calendar goes to the record's data file.
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
  ChildEntry* entry = nullptr;
  if (!header.continuation.starts_with('N')) {
    entry = quor_child_find(header, kChildContinuing, true);
    if (entry == nullptr) {
      quor_msg_log(118, 2);
      return 3;
    }
  } else {
    entry = quor_child_find(header, kChildContinuing, false);
    if (entry == nullptr) {
      quor_msg_log(1, 4);
      return 1;
    }
  }
  entry->user = quor_user_find(header, true);
  if (entry->user == nullptr && header.type() == 'L') {
    entry->user = quor_user_find(header, false);
    if (entry->user == nullptr) {
      quor_msg_log(1, 4);
      return 1;
    }
  }
  if (refused_without_login(*entry, buf, conn)) return 0;
  if (entry->flags & kChildNew)
    if (int rc = first_buffer(*entry, header, buf, conn); rc != 0) return rc;

  quor_pnd_to_record(record_of(*entry), buf);
  // A transfer that failed ends the transaction: its later buffers would
  // find nothing waiting, so the entry, its segment and files go now.
  int code = entry->type == 'U' ? utility_commands(*entry, header, buf) : request_data(*entry, header, buf);
  if (code != 0) {
    quor_child_remove(entry);
    return code;
  }
  if (!quor_trl_last(buf)) {
    entry->flags |= kChildContinuing;
    return 0;
  }
  int rc = quor_agent_start(*entry);
  if (rc == 0) entry->flags = kChildRunning | (entry->flags & kChildNoTimeout);
  if (rc == 3) quor_child_remove(entry);
  return rc;
}

namespace {

// The last component of a path.
std::string_view basename_of(std::string_view path) {
  std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// The environment entries the client asked for, as "NAME=value".
std::vector<std::string> agent_environment(const ChildEntry& entry) {
  std::vector<std::string> env;
  if (!entry.env) return env;
  for (const std::string* e : {&entry.env->date_format, &entry.env->message}) {
    if (e->empty()) continue;
    if (quor_debug()) quor_trace("adding to env - ^%s^\n", e->c_str());
    env.push_back(*e);
  }
  return env;
}

}  // namespace

int quor_agent_start(ChildEntry& entry) {
  if (quor_debug()) quor_trace("%s:  starting agent.\n", quor_program_name());
  entry.agent_pid = -1;
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
  SpawnRequest spawn{program->program_path, {}, agent_environment(entry), account ? &*account : nullptr,
                     entry.shm_id, std::string(smc_get(record, smc::fileName))};
  spawn.args = {std::string(basename_of(spawn.program)), std::to_string(static_cast<long>(entry.shm_id))};
  if (account && quor_debug())
    quor_trace("Setting uid to %d for user %s\n", static_cast<int>(account->uid), username.c_str());

  // The segment passes to the agent: the daemon lets go of it first.
  shmdt(entry.shm_addr);
  entry.shm_addr = nullptr;
  SpawnResult started = quor_spawn(spawn);
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

  entry.agent_pid = pid;
  if (entry.type == 'L') {
    entry.kind = 2;
  } else if (entry.type == 'O') {
    entry.kind = 3;
    if (entry.user != nullptr) quor_terminate_pid(entry.user->login_pid);
  } else {
    entry.kind = 1;
  }
  return 0;
}

int quor_shm_create(std::size_t size, void*& address) {
  int id = -1;
  for (int attempt = 1; attempt <= 5; ++attempt) {
    id = shmget(IPC_PRIVATE, size, IPC_CREAT | 0600);
    if (id != -1 || (errno != ENOSPC && errno != ENOMEM)) break;
    if (attempt < 5) sleep(1);
  }
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
  if (opened_here) {
    Trailer trailer;
    if (quor_trl_read(buf, trailer) && value(trailer.more_data).starts_with('N')) transfer.reset();
  }
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
