// quornull: the smallest agent, for measuring agent launch. Removes the
// segment it is handed and, when QUORNULL_FIFO names a FIFO, writes one
// byte to it so that the benchmark knows it ran. With QUORNULL_WAIT set it
// then runs until SIGTERM, as a long-running agent would.
#include <fcntl.h>
#include <signal.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstdlib>

int main(int argc, char** argv) {
  if (argc > 1 && std::atoi(argv[1]) >= 0) shmctl(std::atoi(argv[1]), IPC_RMID, nullptr);
  if (const char* fifo = std::getenv("QUORNULL_FIFO")) {
    int fd = open(fifo, O_WRONLY | O_CLOEXEC);
    if (fd >= 0) {
      (void)!write(fd, "x", 1);
      close(fd);
    }
  }
  if (std::getenv("QUORNULL_WAIT") != nullptr) {
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    sigprocmask(SIG_BLOCK, &term, nullptr);
    int signo = 0;
    while (sigwait(&term, &signo) != 0 || signo != SIGTERM) {
    }
  }
  return 0;
}
