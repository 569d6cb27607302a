// Linked into every program of a coverage build: a process ended by SIGTERM
// (a test stopping the daemon in debug mode, or an agent) writes its
// coverage counters first, which the default action would lose.
#include <signal.h>

extern "C" void __gcov_dump(void);

namespace {

void dump_and_end(int signo) {
  __gcov_dump();
  signal(signo, SIG_DFL);
  raise(signo);
}

struct Install {
  Install() {
    struct sigaction action {};
    action.sa_handler = dump_and_end;
    sigaction(SIGTERM, &action, nullptr);
  }
} install;

}  // namespace
