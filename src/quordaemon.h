// The daemon core: the receive loop and its dispatch on the message type.
//
// The loop is strictly sequential: one request is received, handled and
// answered before the next receive. It ends when the running flag is found
// cleared at the top of a pass (a KILLALL or TERMINATE request, or a
// termination signal), and hands the type of the last request to shutdown.
#pragma once

#include <array>
#include <csignal>
#include <span>

#include "quortev.h"
#include "quortran.h"
#include "quorutl.h"

// Non-zero while the loop should go on; cleared by 'K', 'T' and the
// termination-signal handler.
extern volatile std::sig_atomic_t running;

// Consecutive failed receives that end the daemon.
inline constexpr int kMaxReceiveFailures = 5;

// What the loop owns for its whole run.
struct DaemonLoop {
  ConnRecord conn;                          // local identity copied from the registration
  std::array<char, BUFFER_MAX> buffer{};    // request in, reply built in place
  char last_type = 0;                       // type of the last request dispatched
  int failures = 0;                         // consecutive failed receives
};

// The loop's ties to the outside, replaceable by tests.
struct LoopHooks {
  int (*receive)(ConnRecord&, std::span<char>) = quor_tev_receive;
  // Abnormal shutdown with its exit flag: does not return in the daemon.
  void (*fatal)(ConnRecord&) = nullptr;
  unsigned (*pause)(unsigned seconds) = nullptr;  // sleep between failed receives
};

// Runs until the running flag is cleared; returns the last message type.
char quor_receive_loop(DaemonLoop& loop, const LoopHooks& hooks);

// Serves one received request (the buffer holds its decoded bytes).
void quor_dispatch(DaemonLoop& loop);

// The registration with the transport, used to register and deregister.
struct Registration {
  TevIdentity id;
  TevFeedback fb;
};
Registration& quor_registration();

// Abnormal shutdown: deregisters and, with `exit_flag`, logs message 201
// and exits with status 1.
void quor_abnormal_shutdown(Registration& reg, bool exit_flag);
