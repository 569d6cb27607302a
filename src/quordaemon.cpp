#include "quordaemon.h"

#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "momsg.h"
#include "quoraccess.h"
#include "quorconfig.h"
#include "quordebug.h"
#include "quorderr.h"
#include "quorkids.h"
#include "quorproc.h"
#include "quorspawn.h"
#include "quorstats.h"
#include "quorsweep.h"
#include "quortupgm.h"
#include "quorusers.h"

volatile std::sig_atomic_t running = 0;

Registration& quor_registration() {
  static Registration reg;
  return reg;
}

RunState& quor_run_state() {
  static RunState state;
  return state;
}

namespace {

// The login programs, which neither shutdown leaves behind.
void stop_login_programs() {
  quor_users_stop_all();
  QuorConfig& config = quor_config();
  if (config.login_required == 0 && config.default_login_child > 0) {
    quor_terminate_pid(config.default_login_child);
    config.default_login_child = 0;
  }
}

void remove_pid_file() {
  const std::string& path = quor_run_state().pid_file;
  if (!path.empty()) unlink(path.c_str());
}

}  // namespace

void quor_abnormal_shutdown(Registration& reg, bool exit_flag) {
  quor_tev_deregister(reg.id, reg.fb);
  quor_children_drop_idle();
  stop_login_programs();
  if (!exit_flag) return;
  remove_pid_file();
  quor_msg_log(201, 0, reg.id.system_id());
  std::exit(1);
}

void quor_orderly_shutdown(Registration& reg, char last_type) {
  quor_tev_deregister(reg.id, reg.fb);
  if (quor_users_save() != 0) quor_msg_log(129, 2);
  quor_children_drop_idle();
  if (last_type == 'K') quor_children_kill_all();
  stop_login_programs();
  remove_pid_file();
  const std::string& capture = quor_capture_file();
  if (!capture.empty()) unlink(capture.c_str());
  mo_flush_left_out(true);
  quor_msg_log(401, 1, reg.id.system_id());
  std::exit(0);
}

namespace {

void on_fatal_signal(int signo) {
  quor_msg_log(17, 4, std::to_string(signo));
  quor_abnormal_shutdown(quor_registration(), false);
  _exit(signo);
}

void on_termination_signal(int) { running = 0; }

}  // namespace

void quor_install_signals() {
  // A fault inside the fatal handler itself ends the process at once.
  static constexpr int kFatal[] = {SIGILL,  SIGTRAP, SIGABRT,
#ifdef SIGEMT
                                   SIGEMT,
#endif
                                   SIGFPE,  SIGBUS,  SIGSEGV, SIGSYS, SIGPIPE, SIGXCPU, SIGXFSZ};
  for (int signo : kFatal) quor_catch_signal(signo, on_fatal_signal, SA_RESETHAND);
  // No SA_RESTART: the signal must end a receive that is waiting.
  quor_catch_signal(SIGTERM, on_termination_signal, 0);
  quor_catch_signal(SIGQUIT, on_termination_signal, 0);
  for (int signo : {SIGHUP, SIGINT, SIGUSR2}) quor_catch_signal(signo, SIG_IGN, 0);
}

namespace {

// Bytes of the request the readers may look at: the whole buffer but its
// last byte, which stays zero so every string in it ends inside it.
InBuf request_text(const DaemonLoop& loop) {
  return InBuf(loop.buffer.data(), loop.buffer.size() - 1);
}

// A request from another node counts as activity of its user; the daemon's
// own node (agents, login programs) never does, nor does a request from a
// client that may not use the session.
void note_activity(const TransactionHeader& header, const ConnRecord& conn) {
  if (header.node.empty() || header.node == mo_nodename()) return;
  if (UserEntry* user = quor_user_find(header, true);
      user != nullptr && quor_client_may_use(user->owner, quor_client_of(conn.inquiry)))
    quor_user_set_activity(*user, std::time(nullptr));
}

// A handler that ran out of memory: the client is told, then the daemon
// stops, since it can no longer be trusted to keep its tables.
[[noreturn]] void fail_fatally(DaemonLoop& loop, int rc) {
  quor_error_reply(1, quor_capture_output(rc), loop.conn);
  quor_abnormal_shutdown(quor_registration(), true);
  std::abort();  // not reached: the abnormal shutdown exits
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
  // A termination signal that ended the wait ends the loop: no pause first.
  if (running != 0) (hooks.pause != nullptr ? hooks.pause : ::sleep)(1);
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
    mo_flush_left_out(false);
    if (quor_debug()) quor_trace("%s:  received a message.\n", quor_program_name());
    // The tables are brought up to date before the request is served.
    quor_garbage_collect(0);
    if (quor_debug()) {
      quor_trace("after garbage collection\n");
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
  if (!quor_node_claim_permitted(header.node, loop.conn)) return;
  note_activity(header, loop.conn);
  // Only the operator controls the daemon; anybody may ask for its status.
  if ((type == 'T' || type == 'K' || type == 'R' || type == 'C') && !quor_control_permitted(type, loop.conn)) return;

  switch (type) {
    case '\0':
      if (quor_debug()) quor_msg_log(202, 0);
      break;
    case 'B':
      trace_type("BRIEFSTATUS");
      (void)quor_status_report('B', loop.conn, loop.buffer);
      break;
    case 'F':
      trace_type("FULLSTATUS");
      (void)quor_status_report('F', loop.conn, loop.buffer);
      break;
    case 'R':
      trace_type("REFRESH");
      if (quor_refresh(loop.conn, request_text(loop)) == 1) quor_abnormal_shutdown(quor_registration(), true);
      break;
    case 'C':
      trace_type("CLEANUP");
      quor_garbage_collect(1);
      break;
    case 'I':
      trace_type("LOGININFO");
      if (quor_login_info(header, loop.conn.inquiry) == 1) fail_fatally(loop, 1);
      break;
    case 'L':
    case 'O':
    case 'S':
    case 'U':
      trace_type("SMCDFLAG");
      switch (quor_command_request(header, request_text(loop), loop.conn)) {
        case 1:
          fail_fatally(loop, 1);
        case 3:
          quor_error_reply(1, quor_capture_output(3), loop.conn);
          break;
        default:
          break;
      }
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
      if (quor_debug()) quor_msg_log(203, 0);
      break;
  }
}
