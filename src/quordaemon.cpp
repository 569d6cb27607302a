#include "quordaemon.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "quordebug.h"
#include "quorderr.h"

volatile std::sig_atomic_t running = 0;

Registration& quor_registration() {
  static Registration reg;
  return reg;
}

void quor_abnormal_shutdown(Registration& reg, bool exit_flag) {
  quor_tev_deregister(reg.id, reg.fb);
  if (!exit_flag) return;
  quor_msg_log(201, 0, reg.id.system_id());
  std::exit(1);
}

namespace {

// Bytes of the request the readers may look at: the whole buffer but its
// last byte, which stays zero so every string in it ends inside it.
InBuf request_text(const DaemonLoop& loop) {
  return InBuf(loop.buffer.data(), loop.buffer.size() - 1);
}

void trace_type(const char* name) {
  if (quor_debug()) quor_trace("%s:  message type %s\n", quor_program_name(), name);
}

// A pass that could not receive a request. Transport failures count towards
// the limit; a message whose length prefix is unusable is only dropped, so
// that no client can stop the daemon by sending a few bad messages.
void receive_failed(DaemonLoop& loop, const LoopHooks& hooks, int rc) {
  if (rc == 3) {
    quor_msg_log(8, 4, "message with a bad length prefix dropped");
    return;
  }
  quor_msg_log(8, 4, loop.conn.fb.FB_ErrorText);
  if (++loop.failures == kMaxReceiveFailures) {
    if (hooks.fatal != nullptr)
      hooks.fatal(loop.conn);
    else
      quor_abnormal_shutdown(quor_registration(), true);
  }
  (hooks.pause != nullptr ? hooks.pause : ::sleep)(1);
}

}  // namespace

char quor_receive_loop(DaemonLoop& loop, const LoopHooks& hooks) {
  loop.failures = 0;
  running = 1;
  while (running != 0) {
    loop.conn.remote.clear();
    if (int rc = hooks.receive(loop.conn, loop.buffer); rc != 0) {
      receive_failed(loop, hooks, rc);
      continue;
    }
    loop.failures = 0;
    if (quor_debug()) {
      quor_trace("%s:  received a message.\n", quor_program_name());
      tev_dump_buffer(request_text(loop), "tevBuffer");
    }
    quor_dispatch(loop);
  }
  return loop.last_type;
}

void quor_dispatch(DaemonLoop& loop) {
  TransactionHeader header;
  (void)tran_header_read(request_text(loop), header);
  char type = header.type();
  loop.last_type = type;

  switch (type) {
    case '\0':
      if (quor_debug()) quor_msg_log(202, 0);
      break;
    case 'K':
      trace_type("KILLALL");
      running = 0;
      break;
    case 'T':
      trace_type("TERMINATE");
      running = 0;
      break;
    default:
      // Includes the types whose handlers are not part of this build yet.
      if (quor_debug()) quor_msg_log(203, 0);
      break;
  }
}
