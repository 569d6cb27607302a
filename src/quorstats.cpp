#include "quorstats.h"

#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <string>

#include "quorconfig.h"
#include "quordaemon.h"
#include "quordebug.h"
#include "quorderr.h"
#include "quorkids.h"
#include "quortrl.h"
#include "quorusers.h"
#include "quorutl.h"

namespace {

// Each report line is formatted into an area of this size.
constexpr std::size_t kLineArea = 264;

// ctime's text (it ends in a newline).
std::string time_text(std::time_t t) {
  char text[32] = {};
  if (ctime_r(&t, text) == nullptr) return "?\n";
  return text;
}

template <class... Args>
std::string line(const char* format, Args... args) {
  char area[kLineArea];
  std::snprintf(area, sizeof area, format, args...);
  return area;
}

void add_brief_lines(OutBuf& out) {
  const QuorConfig& config = quor_config();
  std::time_t now = std::time(nullptr);
  buf_add_item(out, line("Status of %s, pid=%d, on %s", quor_program_name(), static_cast<int>(getpid()),
                         time_text(now).c_str()));
  buf_add_item(out, line("    Daemon started at %s", time_text(quor_run_state().start_time).c_str()));
  if (config.config_path.size() + 21 >= kLineArea - 1) {
    buf_add_item(out, "    Config path is -\n");
    buf_add_item(out, line("    %s\n", config.config_path.c_str()));
  } else {
    buf_add_item(out, line("    Config path is %s\n", config.config_path.c_str()));
  }
  buf_add_item(out, line("    Config last updated %s", time_text(config.load_time).c_str()));
  buf_add_item(out, line("    %d users logged into quor\n", quor_user_count()));
  buf_add_item(out, line("    %d transactions in progress.\n", quor_child_count()));
}

// Appends the per-user and per-agent lines, sending full buffers as partial
// replies. Returns 0, or 2 when a partial send failed.
int add_full_lines(OutBuf& out, ConnRecord& conn, std::size_t& length_field) {
  auto add = [&](const std::string& text) {
    if (buf_add_item_split(out, text, out.capacity(), conn, kStatusTag, length_field) == 0) return true;
    quor_msg_log(9, 4, conn.fb.FB_ErrorText);
    return false;
  };
  buf_add_item(out, "\n");
  for (const UserEntry& user : quor_users()) {
    if (user.last_activity == 0) continue;
    if (!add(line("    User %s from node %s logged in as %s.\n", user.user_name.c_str(), user.node_name.c_str(),
                  user.login_name.c_str())))
      return 2;
  }
  buf_add_item(out, "\n");
  for (const ChildEntry& child : quor_children()) {
    if (child.agent_pid == -1 || (child.flags & (kChildContinuing | kChildRunning)) == 0) continue;
    if (!add(line("    PID %d from node %s\n", static_cast<int>(child.agent_pid), child.client_node.c_str())))
      return 2;
  }
  return 0;
}

}  // namespace

int quor_status_report(char type, ConnRecord& conn, std::span<char> buffer) {
  OutBuf out(buffer);
  tran_header_put(type == 'F' ? "F" : "B", "N", out);
  std::size_t length_field = buf_begin_segment(out, kStatusTag);
  add_brief_lines(out);
  if (type == 'F') {
    if (int rc = add_full_lines(out, conn, length_field); rc != 0) return rc;
  }
  buf_end_segment(out, length_field);
  quor_trl_put("N", out);
  int rc = quor_tev_send(conn, buffer, out.pos);
  if (rc != 0) quor_msg_log(9, 4, conn.fb.FB_ErrorText);
  return rc;
}
