#include "quorRDWio.h"

#include <unistd.h>

#include <string>

#include "quortrl.h"
#include "quorutl.h"

std::string quor_partial_name() { return "QUOR." + std::to_string(static_cast<long>(getpid())); }

namespace {

// Hands the failure of the temporary connection to the caller's record,
// which keeps addressing the request being answered.
void report_failure(ConnRecord& conn, const TevFeedback& failed) {
  std::uint32_t in_conversation = conn.fb.FB_InConversId;
  conn.fb = failed;
  conn.fb.FB_InConversId = in_conversation;
}

}  // namespace

std::size_t send_partial_buffer(ConnRecord& conn, OutBuf& out, std::string_view transcode) {
  quor_trl_put("Y", out);
  if (out.overflow) return 0;

  ConnRecord temporary = conn;
  if (quor_tev_register(temporary.local, temporary.fb, quor_partial_name()) != 0) {
    report_failure(conn, temporary.fb);
    return 0;
  }
  int rc = quor_tev_converse(temporary, out.data, out.pos);
  TevFeedback term_fb;
  quor_tev_deregister(temporary.local, term_fb);
  if (rc != 0) {
    report_failure(conn, temporary.fb);
    return 0;
  }
  out.pos = LENGTH_PREFIX;
  tran_header_put(transcode, "Y", out);
  return out.pos;
}
