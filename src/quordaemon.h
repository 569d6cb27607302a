// The daemon core: the receive loop and its dispatch on the message type.
//
// The loop is strictly sequential: one request is received, handled and
// answered before the next receive. It ends when the running flag is found
// cleared at the top of a pass (a KILLALL or TERMINATE request, or a
// termination signal), and hands the type of the last request to shutdown.
#pragma once

#include <array>
#include <csignal>
#include <ctime>
#include <optional>
#include <span>
#include <string>

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

// What start-up records for the rest of the daemon's life.
struct RunState {
  std::time_t start_time = 0;              // taken after detaching
  std::string pid_file;                    // <root>/tmp/quordaemon.pid
  std::optional<std::string> config_path;  // given with -c
};
RunState& quor_run_state();

// Abnormal shutdown: deregisters, drops process-less child entries and stops
// the login programs. With `exit_flag` it also removes the pid file, logs
// message 201 and exits with status 1; without it, it returns.
void quor_abnormal_shutdown(Registration& reg, bool exit_flag);

// Orderly shutdown after the loop ended with `last_type`: deregisters, saves
// the user table, stops the agents (after 'K' only) and the login programs,
// removes the pid file, logs message 401 and exits with status 0.
[[noreturn]] void quor_orderly_shutdown(Registration& reg, char last_type);

// Handlers for fatal signals (log 17, abnormal shutdown, exit with the
// signal number) and termination signals (end the loop); SIGHUP, SIGINT and
// SIGUSR2 are ignored. Termination signals interrupt a blocked receive.
void quor_install_signals();
