// Starting an agent program from the daemon.
//
// The daemon starts agents with vfork and exec: the child borrows the
// daemon's memory until it execs, so no page tables are copied and nothing
// is copied on write, which makes a start roughly as cheap as the exec
// itself. The price is that the child may only make system calls: the
// argument vector, the environment and the account are all made ready
// before the vfork, and the child tells the daemon how far it got through
// the memory they share, not through the log or any library state.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "quoraccount.h"

struct SpawnRequest {
  std::string program;                 // path of the program to execute
  std::vector<std::string> args;       // its argument vector, argv[0] included
  std::vector<std::string> env;        // its whole environment, "NAME=value" entries
  const Account* account = nullptr;    // identity to take on before the exec; none keeps the daemon's
  int shm_id = -1;                     // segment handed to the account before the change (owner uid, the
                                       // daemon's group, mode 0600); removed by the child when it fails
  std::string data_file;               // a file handed to the account too, when it exists
  int stderr_fd = -1;                  // the program's standard error; -1 keeps the daemon's
};

struct SpawnResult {
  enum Failure { kNone, kIdentity, kExec };
  pid_t pid = -1;           // the child, which ends with status 99 when it failed; -1 when vfork failed
  Failure failure = kNone;  // how far the child got: known as soon as quor_spawn returns
  int err = 0;              // errno of the step that failed
};

// Exit status of a child that could not take on the account or exec.
inline constexpr int kSpawnFailedStatus = 99;

// Starts the program. The child keeps only standard input, output and
// error: every other descriptor the daemon holds, inherited ones included,
// is closed before the exec.
SpawnResult quor_spawn(const SpawnRequest& request);

// Sets the daemon's disposition of `signo` (a handler, SIG_IGN or SIG_DFL;
// flags as sigaction's, no signals blocked while the handler runs). Every
// handler the daemon installs goes through here: a starting program shares
// the daemon's memory until it execs, so it resets exactly the signals
// caught this way to their default first (asking the kernel for each of the
// 64 dispositions would take a tenth of a start).
void quor_catch_signal(int signo, void (*handler)(int), int flags);

// The environment every program the daemon starts gets, for the account it
// runs as (none: the daemon's own):
//
//   PATH     /usr/local/bin:/usr/bin:/bin
//   HOME, USER, LOGNAME, SHELL   of that account
//   MOXGLBL0000, TMPDIR, TZ, LANG, LC_*, TEV_*   as the daemon has them
//   the variables MOXQUORKEEPENV names (blank-separated), as the daemon has them
//
// Nothing else of the daemon's environment passes.
std::vector<std::string> quor_spawn_environment(const Account* account);
