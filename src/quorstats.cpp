#include "quorstats.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "quorconfig.h"
#include "quordaemon.h"
#include "quordebug.h"
#include "quorderr.h"
#include "quorkids.h"
#include "quortrl.h"
#include "quorusers.h"
#include "quorutl.h"

namespace {

// Each report line is formatted into an area of this size: longer lines
// are cut to its size less the terminating NUL.
constexpr std::size_t kLineArea = 264;

// One report line, built by appending pieces.
class Line {
 public:
  Line& operator<<(std::string_view text) {
    std::size_t n = std::min(text.size(), kLineArea - 1 - text_.size());
    text_.append(text.data(), n);
    return *this;
  }
  Line& operator<<(long number) {
    char digits[24];
    auto [end, ec] = std::to_chars(digits, digits + sizeof digits, number);
    return *this << std::string_view(digits, static_cast<std::size_t>(end - digits));
  }
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

// ctime's text of `t` (it ends in a newline), kept while `t` stays the same:
// a report shows three times, and two of them rarely change.
struct TimeText {
  std::time_t time = -1;
  std::string text;

  const std::string& of(std::time_t t) {
    if (t != time || text.empty()) {
      char area[32] = {};
      text = ctime_r(&t, area) != nullptr ? area : "?\n";
      time = t;
    }
    return text;
  }
};

void add_line(OutBuf& out, const Line& line) { buf_add_item(out, line.text()); }

void add_brief_lines(OutBuf& out, std::time_t now) {
  static TimeText now_text, start_text, load_text;
  const QuorConfig& config = quor_config();
  add_line(out, Line() << "Status of " << quor_program_name() << ", pid=" << std::string_view(tran_own_pid())
                       << ", on " << now_text.of(now));
  add_line(out, Line() << "    Daemon started at " << start_text.of(quor_run_state().start_time));
  if (config.config_path.size() + 21 >= kLineArea - 1) {
    buf_add_item(out, "    Config path is -\n");
    add_line(out, Line() << "    " << config.config_path << "\n");
  } else {
    add_line(out, Line() << "    Config path is " << config.config_path << "\n");
  }
  add_line(out, Line() << "    Config last updated " << load_text.of(config.load_time));
  add_line(out, Line() << "    " << static_cast<long>(quor_user_count()) << " users logged into quor\n");
  add_line(out, Line() << "    " << static_cast<long>(quor_child_count()) << " transactions in progress.\n");
}

// Appends the per-user and per-agent lines, sending full buffers as partial
// replies. Returns 0, or 2 when a partial send failed.
int add_full_lines(OutBuf& out, ConnRecord& conn, std::size_t& length_field) {
  auto add = [&](const std::string& text) {
    if (buf_add_item_split(out, text, out.capacity(), conn, kStatusTag, length_field) == 0) return true;
    quor_msg_log(9, 4, conn.fb.FB_ErrorText);
    return false;
  };
  // Every item goes through the split, the separators too, so the end of
  // the segment, the trailer and "ZZZEOD" always fit behind the last one.
  if (!add("\n")) return 2;
  for (const UserEntry& user : quor_users()) {
    if (user.last_activity == 0) continue;
    Line line;
    line << "    User " << user.user_name << " from node " << user.node_name << " logged in as " << user.login_name
         << ".\n";
    if (!add(line.text())) return 2;
  }
  if (!add("\n")) return 2;
  for (const ChildEntry& child : quor_children()) {
    if (child.agent_pid == -1 || (child.flags & (kChildContinuing | kChildRunning)) == 0) continue;
    Line line;
    line << "    PID " << static_cast<long>(child.agent_pid) << " from node " << child.client_node << "\n";
    if (!add(line.text())) return 2;
  }
  return 0;
}

// What a brief report shows. Most brief requests within one second find it
// unchanged and get the bytes built for the first of them.
struct BriefKey {
  std::time_t now = -1;
  std::time_t start = -1;
  std::time_t loaded = -1;
  long users = -1;
  long children = -1;
  std::string config_path;
  std::string pid;
  std::string user_env;  // the header's user, when set from the environment
  bool user_env_set = false;
  bool operator==(const BriefKey&) const = default;
};

BriefKey brief_key() {
  const QuorConfig& config = quor_config();
  BriefKey key;
  key.now = std::time(nullptr);
  key.start = quor_run_state().start_time;
  key.loaded = config.load_time;
  key.users = quor_user_count();
  key.children = quor_child_count();
  key.config_path = config.config_path;
  key.pid = tran_own_pid();
  if (const char* user = std::getenv("MOX_QUORUSER")) {
    key.user_env = user;
    key.user_env_set = true;
  }
  return key;
}

struct BriefCache {
  BriefKey key;
  std::vector<char> bytes;  // the plain message behind the length prefix
};

}  // namespace

int quor_status_report(char type, ConnRecord& conn, std::span<char> buffer) {
  static BriefCache brief;
  BriefKey key;
  if (type != 'F') {
    key = brief_key();
    if (key == brief.key && LENGTH_PREFIX + brief.bytes.size() <= buffer.size()) {
      std::memcpy(buffer.data() + LENGTH_PREFIX, brief.bytes.data(), brief.bytes.size());
      std::size_t length = LENGTH_PREFIX + brief.bytes.size();
      conn.dirty = std::max(conn.dirty, length);
      int rc = quor_tev_send(conn, buffer, length);
      if (rc != 0) quor_msg_log(9, 4, conn.fb.FB_ErrorText);
      return rc;
    }
  }
  OutBuf out(buffer);
  // A full report may fill the buffer more than once; the next receive
  // clears what it wrote.
  if (type == 'F') conn.dirty = std::max(conn.dirty, buffer.size());
  tran_header_put(type == 'F' ? "F" : "B", "N", out);
  std::size_t length_field = buf_begin_segment(out, kStatusTag);
  add_brief_lines(out, type == 'F' ? std::time(nullptr) : key.now);
  if (type == 'F') {
    if (int rc = add_full_lines(out, conn, length_field); rc != 0) return rc;
  }
  buf_end_segment(out, length_field);
  quor_trl_put("N", out);
  conn.dirty = std::max(conn.dirty, out.pos);
  // A buffer that did not take everything written to it is never sent.
  if (out.overflow) {
    quor_msg_log(9, 4, "the status report did not fit its buffer");
    return 2;
  }
  if (type != 'F') {
    brief.key = std::move(key);
    brief.bytes.assign(buffer.begin() + LENGTH_PREFIX, buffer.begin() + static_cast<long>(out.pos));
  }
  int rc = quor_tev_send(conn, buffer, out.pos);
  if (rc != 0) quor_msg_log(9, 4, conn.fb.FB_ErrorText);
  return rc;
}
