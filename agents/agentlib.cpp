#include "agentlib.h"

#include <grp.h>
#include <pwd.h>
#include <sys/mman.h>
#include <fcntl.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>

#include "quoraccount.h"
#include "quorlsfl.h"
#include "quortrl.h"
#include "quorutl.h"
#include "tev_client.h"

std::string AgentRequest::selection(std::string_view name) const {
  long count = std::clamp<long>(buf_decimal(smc_get(record(), smc::csl_count)), 0, smc::csl_max);
  for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i)
    if (smc_get(record(), smc::slot(smc::csl_name, i)) == name)
      return std::string(smc_get(record(), smc::slot(smc::csl_value, i)));
  return {};
}

bool agent_take_request(int id, AgentRequest& request) {
  void* at = shmat(id, nullptr, SHM_RDONLY);
  if (at == reinterpret_cast<void*>(-1)) return false;
  request.segment.assign(static_cast<const char*>(at), kShmSize);
  shmdt(at);
  shmctl(id, IPC_RMID, nullptr);
  return true;
}

bool agent_become(const std::string& account) {
  std::optional<Account> identity = quor_account(account);
  return identity && quor_account_become(*identity);
}

bool agent_take_file(const std::string& path, std::string& text) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return false;
  struct stat st {};
  bool ours = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == geteuid();
  if (ours) {
    text.clear();
    char chunk[65536];
    for (ssize_t n; (n = read(fd, chunk, sizeof chunk)) > 0;) text.append(chunk, static_cast<std::size_t>(n));
    unlink(path.c_str());
  }
  close(fd);
  return ours;
}

AgentClient agent_client() {
  AgentClient client;
  if (const char* host = std::getenv("QUOR_CLIENT_HOST"); host != nullptr && *host != '\0') client.host = host;
  if (const char* uid = std::getenv("QUOR_CLIENT_UID"); uid != nullptr && *uid != '\0' && client.host.empty()) {
    char* end = nullptr;
    unsigned long value = std::strtoul(uid, &end, 10);
    if (*end == '\0') client.uid = static_cast<uid_t>(value);
  }
  return client;
}

bool AgentAnswer::open(const AgentRequest& request, std::string_view name) {
  registered_ = quor_tev_register(conn_.local, conn_.fb, std::string(name) + "." + std::to_string(getpid())) == 0;
  std::memcpy(conn_.remote.bytes.data(), request.segment.data() + 87, kTevIdentitySize);
  conn_.fb.FB_InConversId = 0;  // an answer of the agent's own, not a reply to a request
  return registered_;
}

AgentAnswer::~AgentAnswer() {
  TevFeedback fb;
  if (registered_) quor_tev_deregister(conn_.local, fb);
}

int AgentAnswer::send(const std::string& output, long rc, const std::string& message) {
  if (!registered_) return 1;
  // The output as a file the list writer can read: an anonymous one.
  int fd = memfd_create("agent-output", MFD_CLOEXEC);
  if (fd >= 0) (void)!write(fd, output.data(), output.size());
  std::array<char, BUFFER_MAX> buf{};
  OutBuf out(buf);
  tran_header_put("U", "N", out);
  std::size_t pos = list_to_buffer("/proc/self/fd/" + std::to_string(fd), out, buf.size(), conn_, "ZZZLST");
  if (fd >= 0) close(fd);
  if (pos == 2) return 1;
  std::size_t field = buf_begin_segment(out, "ZZZRET");
  for (const std::string& item : {std::string("RC"), std::to_string(rc), std::string("RM"), message})
    buf_add_item(out, item);
  buf_end_segment(out, field);
  quor_trl_put("N", out);
  return quor_tev_send(conn_, buf, out.pos);
}

int agent_report_login(const std::string& account, const std::string& gid) {
  std::array<char, BUFFER_MAX> buf{};
  OutBuf out(buf);
  TransactionHeader h;
  tran_header_fill("I", "N", h);
  h.user = account;
  h.gid = gid;
  tran_header_write(h, out);
  quor_trl_put("N", out);
  std::size_t length = out.pos;
  quor_wire_seal(buf, length);
  TevClient client;
  return client.call(kServerName, std::vector<std::uint8_t>(buf.begin(), buf.begin() + static_cast<long>(length)), 0,
                     false)
                     .rc == 0
             ? 0
             : 1;
}
