#include "quorderr.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>

#include "momsg.h"
#include "quordebug.h"
#include "quortrl.h"
#include "quorutl.h"

namespace {

constexpr std::string_view kSource = "../src/quorderr";

std::string raise(int line, int number, int severity, unsigned flags,
                  std::optional<std::string_view> text) {
  std::uint32_t id = mo_identifier(static_cast<unsigned>(number), static_cast<unsigned>(severity));
  if (text) return MOmsgf(2, line, kSource, id, flags + 1, {*text});
  return MOmsgf(2, line, kSource, id, flags);
}

std::string& capture_path() {
  static std::string path;
  return path;
}

}  // namespace

int quor_msg_log(int number, int severity, std::optional<std::string_view> text) {
  raise(__LINE__, number, severity, quor_debug() ? (MO_LOG | MO_STDOUT) : MO_LOG, text);
  return 0;
}

int quor_msg_show(int number, int severity, std::optional<std::string_view> text, int log_flag) {
  raise(__LINE__, number, severity, log_flag ? (MO_LOG | MO_STDOUT) : (MO_STDOUT | MO_RETURN_TEXT),
        text);
  return 0;
}

std::string quor_msg_text(int number, int severity, std::optional<std::string_view> text) {
  return raise(__LINE__, number, severity, MO_RETURN_TEXT, text);
}

int quor_error_reply(int return_code, std::string_view text, ConnRecord& conn) {
  if (quor_debug()) {
    std::string t(text);
    quor_trace("quordaemon: error %d: %s\n", return_code, t.c_str());
  }
  std::array<char, BUFFER_MAX> buffer;
  OutBuf out(buffer);
  tran_header_put("E", "N", out);
  std::size_t length_field = buf_begin_segment(out, kRetTag);
  buf_add_item(out, "RC");
  buf_add_item(out, std::to_string(return_code));
  buf_add_item(out, "RM");
  // Keep room for the end of this segment and the trailer.
  constexpr std::size_t kTail = 7 + 39 + 1;
  std::size_t room = out.room() > kTail + 1 ? out.room() - kTail - 1 : 0;
  buf_add_item(out, text.substr(0, room));
  buf_end_segment(out, length_field);
  quor_trl_put("N", out);

  int rc = quor_tev_send(conn, buffer, out.pos);
  if (rc != 0) {
    quor_msg_log(9, 4, conn.fb.FB_ErrorText);
    return rc;
  }
  return 0;
}

void quor_capture_set_file(std::string path) { capture_path() = std::move(path); }
const std::string& quor_capture_file() { return capture_path(); }

std::string quor_capture_output(int kind) {
  const std::string& path = capture_path();
  if (!path.empty()) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd >= 0) {
      std::string text;
      struct stat st {};
      if (fstat(fd, &st) == 0 && st.st_size > 0) {
        std::size_t want = static_cast<std::size_t>(st.st_size);
        if (want > kMaxCapturedText) want = kMaxCapturedText;
        text.resize(want);
        ssize_t got = read(fd, text.data(), want);
        text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
      }
      close(fd);
      if (!text.empty()) {
        // Standard error is open on the file for appending, so emptying it
        // here makes the next failure report only its own output.
        if (truncate(path.c_str(), 0) != 0) {
          // The next failure then repeats this text: better than losing it.
        }
        return text;
      }
    }
  }
  return kind == 1 ? quor_msg_text(23, 4) : quor_msg_text(128, 2);
}
