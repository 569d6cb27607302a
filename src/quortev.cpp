#include "quortev.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "mocrypt.h"
#include "quordebug.h"
#include "quortran.h"
#include "teverrs.h"

// ---------------------------------------------------------------------------
// Framing

int quor_wire_seal(std::span<char> buf, std::size_t length) {
  if (length < kMinMessage || length > BUFFER_MAX || length > buf.size()) return 3;
  buf_put_length(buf.data(), length);  // "%5ld" and its NUL
  body_encode(static_cast<int>(length % 256), buf.subspan(LENGTH_PREFIX, length - LENGTH_PREFIX));
  return 0;
}

std::size_t quor_wire_open(std::span<char> buf, std::size_t received) {
  if (buf.size() < LENGTH_PREFIX || received < LENGTH_PREFIX) return 0;
  long length = buf_decimal(std::string_view(buf.data(), LENGTH_PREFIX));
  if (quor_debug()) quor_trace("received buffer of size = %d\n", static_cast<int>(length));
  // A prefix that claims more than arrived, or more than the buffer holds,
  // is refused rather than decoded: nothing past the received bytes is read.
  if (length < static_cast<long>(kMinMessage) || static_cast<std::size_t>(length) > received ||
      static_cast<std::size_t>(length) > buf.size())
    return 0;
  auto total = static_cast<std::size_t>(length);
  body_decode(static_cast<int>(total % 256), buf.subspan(LENGTH_PREFIX, total - LENGTH_PREFIX));
  return total;
}

// ---------------------------------------------------------------------------
// Adapter operations

int quor_tev_build_identity(TevIdentity& id, std::string_view system_id, std::string_view app) {
  id.clear();
  id.set_system_id(system_id.empty() ? std::string_view(tev_node_name()) : system_id);
  if (!app.empty()) id.set_app_name(app);
  return 0;
}

int quor_tev_register(TevIdentity& id, TevFeedback& fb, std::string_view app) {
  quor_tev_build_identity(id, {}, app);
  if (TevInit(fb, id, kTevModeNormal) != 0) return 2;
  id = fb.FB_Local_Id;
  return 0;
}

int quor_tev_register_server(TevIdentity& id, TevFeedback& fb, std::string_view app) {
  if (int rc = quor_tev_register(id, fb, app); rc != 0) return rc;
  TevFeedback wait_fb;
  TevSetSendWait(wait_fb, id, 0);
  return 0;
}

int quor_tev_deregister(const TevIdentity& id, TevFeedback& fb) {
  return TevTerm(fb, id, kTevModeNormal) == 0 ? 0 : 2;
}

int quor_tev_receive(ConnRecord& conn, std::span<char> buf) {
  std::memset(buf.data(), 0, std::min(conn.dirty, buf.size()));
  conn.dirty = buf.size();  // until it is known what arrived
  if (TevRecv(conn.fb, conn.local, conn.remote, buf.data(), buf.size(), kTevModeRecvAny,
              conn.inquiry) != 0)
    return 2;
  const TevInquiry* handles[] = {&conn.inquiry};
  (void)APICHECK(handles);
  conn.remote = conn.fb.FB_Remote_Id;
  std::size_t received = conn.fb.FB_DataLen < buf.size() ? conn.fb.FB_DataLen : buf.size();
  conn.dirty = received;
  return quor_wire_open(buf, received) == 0 ? 3 : 0;
}

namespace {

int seal_for_send(std::span<char> buf, std::size_t length) {
  if (quor_debug()) quor_trace("sending buffer of size = %d\n", static_cast<int>(length));
  return quor_wire_seal(buf, length);
}

}  // namespace

int quor_tev_send(ConnRecord& conn, std::span<char> buf, std::size_t length) {
  if (int rc = seal_for_send(buf, length); rc != 0) return rc;
  conn.dirty = std::max(conn.dirty, length);
  return TevSend(conn.fb, conn.local, conn.remote, buf.data(), length, kTevModeNormal,
                 conn.fb.FB_InConversId) == 0
             ? 0
             : 2;
}

int quor_tev_converse(ConnRecord& conn, std::span<char> buf, std::size_t length) {
  if (int rc = seal_for_send(buf, length); rc != 0) return rc;
  conn.dirty = std::max(conn.dirty, length);
  char answer[kTevMaxAnswer];
  return Tev_Conv(conn.fb, conn.local, conn.remote, buf.data(), length, answer, sizeof answer,
                  kTevModeNormal, kConverseWaitSeconds) == 0
             ? 0
             : 2;
}

// ---------------------------------------------------------------------------
// Diagnostics

namespace {

bool g_dump_opened = false;

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

bool dump_printable(unsigned char c) {
  return std::isalnum(c) || std::ispunct(c) || c == ' ';
}

// Length shown by a dump: up to one zero byte after the last non-zero byte
// (byte 0 is never tested, so an all-zero buffer shows two bytes).
std::size_t dump_length(std::span<const char> buf) {
  std::size_t length = buf.size();
  if (length <= 1) return length;
  std::size_t i = length - 1;
  while (i >= 1 && buf[i] == 0) --i;
  return length >= i + 2 ? i + 2 : length;
}

}  // namespace

void tev_dump_reset() { g_dump_opened = false; }

void tev_dump_buffer(std::span<const char> buf, std::string_view label) {
  const char* dir = std::getenv("MOXQUORDUMP");
  if (dir == nullptr || *dir == '\0') return;
  std::string path = dir;
  if (path.back() != '/') path += '/';
  path += "quordump.out";
  // The directory may be anybody's: the first dump of a process replaces
  // the file with a new one of its own, and no dump follows a symbolic link
  // or writes to a file somebody else put there.
  if (!g_dump_opened) unlink(path.c_str());
  int flags = O_RDWR | O_CLOEXEC | O_NOFOLLOW | (g_dump_opened ? O_APPEND : O_CREAT | O_EXCL);
  int fd = open(path.c_str(), flags, 0600);
  struct stat st {};
  if (fd >= 0 && (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != geteuid())) {
    close(fd);
    fd = -1;
  }
  if (fd < 0) return;
  File f(fdopen(fd, g_dump_opened ? "a+" : "w+"));
  if (!f) {
    close(fd);
    return;
  }
  g_dump_opened = true;

  std::string name(label);
  std::fprintf(f.get(), "quordaemon: Entering DumpBuffer for %s %p %d\n", name.c_str(),
               static_cast<const void*>(buf.data()), static_cast<int>(buf.size()));
  std::size_t length = dump_length(buf);
  static constexpr char kHex[] = "0123456789ABCDEF";
  for (std::size_t run = 0; run < length; run += 16) {
    char area[56];
    std::memset(area, ' ', 55);
    area[55] = '\0';
    area[37] = '*';
    area[54] = '*';
    for (std::size_t j = 0; j < 16 && run + j < length; ++j) {
      auto byte = static_cast<unsigned char>(buf[run + j]);
      std::size_t at = j * 2 + j / 4;
      area[at] = kHex[byte >> 4];
      area[at + 1] = kHex[byte & 0xF];
      area[38 + j] = dump_printable(byte) ? static_cast<char>(byte) : '.';
    }
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<const void*>(buf.data() + run));
    std::fprintf(f.get(), "quordaemon:  %s  %s\n", address, area);
  }
}

namespace {

unsigned hex16(std::int16_t v) { return static_cast<unsigned>(static_cast<int>(v)); }

void explain_one(std::FILE* out, const char* what, std::span<const TevCodeEntry> table, int code) {
  if (const TevCodeEntry* e = tev_code_lookup(table, code))
    std::fprintf(out, "\t%s = %2X: %s, %s\n", what, static_cast<unsigned>(code), e->name, e->text);
  else
    std::fprintf(out, "\t%s = %2X: <undefined>\n", what, static_cast<unsigned>(code));
}

void print_identity(std::FILE* out, const TevIdentity& id) {
  std::string sys(id.system_id()), app(id.app_name());
  std::fprintf(out, "\t   ID_systemid:              (%s)\n", sys.c_str());
  std::fprintf(out, "\t   ID_appname:               (%s)\n", app.c_str());
}

}  // namespace

void tev_explain_codes(int prc, int src, int drc, std::FILE* out) {
  explain_one(out, "Prc", tev_prc_table(), prc);
  if (prc == 0) return;
  explain_one(out, "Src", tev_src_table(), src);
  explain_one(out, "Drc", tev_drc_table(), drc);
}

void tev_dump_feedback(std::string_view title, const TevFeedback& fb, std::FILE* out) {
  std::string t(title);
  std::fprintf(out, "%s", t.c_str());
  std::fprintf(out, "\tContents of  feedback-block at %8X\n\n",
               static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(&fb)));
  std::fprintf(out, "\tFB_ConversId:             %X\n", fb.FB_ConversId);
  std::fprintf(out, "\tFB_InConversId:           %X\n", fb.FB_InConversId);
  std::fprintf(out, "\tFB_Prc:                   %X\n", hex16(fb.FB_Prc));
  std::fprintf(out, "\tFB_Src:                   %X\n", hex16(fb.FB_Src));
  std::fprintf(out, "\tFB_Error_Detail:          %X\n", static_cast<unsigned>(fb.FB_Error_Detail));
  std::fprintf(out, "\tFB_Error_Text_Code:       %X\n", hex16(fb.FB_Error_Text_Code));
  std::fprintf(out, "\tFB_ErrorText:             %s\n", fb.FB_ErrorText.c_str());
  std::fprintf(out, "\tFB_DataLen:               %X\n", fb.FB_DataLen);
  std::fprintf(out, "\tFB_Remote_Id:\n");
  print_identity(out, fb.FB_Remote_Id);
  std::fprintf(out, "\tFB_Local_Id:\n");
  print_identity(out, fb.FB_Local_Id);
  std::fprintf(out, "\tFB_Inqy_Count:            %X\n", static_cast<unsigned>(fb.FB_Inqy_Count));
  std::fprintf(out, "\tFB_Inqy_Len:              %X\n", hex16(fb.FB_Inqy_Len));
  std::fprintf(out, "\tFB_Inqy_Buffer:           %X\n", static_cast<unsigned>(fb.FB_Inqy_Buffer));
  std::fprintf(out, "\n\tMessage text associated with Prc, Src, Drc\n\n");
  tev_explain_codes(fb.FB_Prc, fb.FB_Src, fb.FB_Error_Detail, out);
  std::fflush(out);
}
