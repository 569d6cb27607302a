#include "quorutl.h"

#include <pthread.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

#include "momsg.h"
#include "quordebug.h"

namespace {

// What a header says of this process: its pid, real gid and the login name
// of its real uid. They do not change while the process runs, so they are
// looked up once (the password database lookup is the slow part, and every
// reply builds a header); a forked child looks again.
struct SelfText {
  bool known = false;
  std::string pid;
  std::string gid;
  std::string login_name;
};

SelfText& self_text() {
  static SelfText self;
  return self;
}

void forget_self_text() { self_text().known = false; }

const SelfText& current_self_text() {
  static const bool watching_forks = pthread_atfork(nullptr, nullptr, forget_self_text) == 0;
  (void)watching_forks;
  SelfText& self = self_text();
  if (!self.known) {
    self.pid = std::to_string(static_cast<long>(getpid()));
    self.gid = std::to_string(static_cast<long>(getgid()));
    self.login_name.clear();
    if (const passwd* pw = getpwuid(getuid()); pw != nullptr && pw->pw_name != nullptr) self.login_name = pw->pw_name;
    self.known = true;
  }
  return self;
}

}  // namespace

const std::string& tran_own_pid() { return current_self_text().pid; }

int tran_header_fill(std::string_view transcode, std::string_view continuation,
                     TransactionHeader& out) {
  const SelfText& self = current_self_text();
  out = TransactionHeader{};
  out.transcode = transcode;
  out.continuation = continuation;
  out.pid = self.pid;
  out.node = mo_nodename();
  if (const char* user = std::getenv("MOX_QUORUSER"); user != nullptr)
    out.user = user;
  else
    out.user = self.login_name;
  out.gid = self.gid;
  out.ostype = "UNIX1";
  return 0;
}

void tran_header_write(const TransactionHeader& header, OutBuf& out) {
  std::size_t length_field = buf_begin_segment(out, kTranTag);
  const std::string* fields[] = {&header.transcode, &header.pid,          &header.node,
                                 &header.user,      &header.gid,          &header.continuation,
                                 &header.ostype};
  for (std::size_t i = 0; i < kTranItems.size(); ++i) {
    buf_add_item(out, kTranItems[i]);
    buf_add_item(out, *fields[i]);
  }
  buf_end_segment(out, length_field);
}

void tran_header_put(std::string_view transcode, std::string_view continuation, OutBuf& out) {
  TransactionHeader header;
  tran_header_fill(transcode, continuation, header);
  tran_header_write(header, out);
}

std::optional<std::size_t> tran_header_read(InBuf buf, TransactionHeader& out) {
  out = TransactionHeader{};
  std::array<std::string_view, kTranItems.size()> v;
  auto end = buf_read_segment(buf, kTranTag, v, kTranItems);
  if (!end) return std::nullopt;
  out.transcode = v[0];
  out.pid = v[1];
  out.node = v[2];
  out.user = v[3];
  out.gid = v[4];
  out.continuation = v[5];
  out.ostype = v[6];
  if (quor_debug()) {
    // User and node are printed in the opposite order to the segment's.
    quor_trace("    transcode=%s, pid=%s, user=%s, node=%s, gid=%s, continuation=%s, ostype=%s\n",
               out.transcode.c_str(), out.pid.c_str(), out.user.c_str(), out.node.c_str(),
               out.gid.c_str(), out.continuation.c_str(), out.ostype.c_str());
  }
  return end;
}
