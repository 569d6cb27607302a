// Linked into every program of a coverage build: a process ended by SIGTERM
// (a test stopping the daemon in debug mode, or an agent) writes its
// coverage counters first, which the default action would lose. Counters
// are written world-writable, so that an agent running under another
// account can add its counts to a file a root process created first.
#include <signal.h>
#include <sys/stat.h>

#include <cstdlib>

extern "C" void __gcov_dump(void);

namespace {

void dump() {
  mode_t mask = umask(0);
  __gcov_dump();
  umask(mask);
}

void dump_and_end(int signo) {
  dump();
  signal(signo, SIG_DFL);
  raise(signo);
}

struct Install {
  Install() {
    struct sigaction action {};
    action.sa_handler = dump_and_end;
    sigaction(SIGTERM, &action, nullptr);
    std::atexit(dump);
  }
} install;

}  // namespace
