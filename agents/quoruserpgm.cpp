// quoruserpgm: holds a user's login session on the host.
//
//   quoruserpgm LOGIN CLIENT FLAG
//
// The daemon starts it under the account LOGIN (already switched to the
// account's uid and groups) for every user it restores at start-up, with
// the client's node name as CLIENT, and for the default login user when
// logins are not required, with CLIENT "DEFAULT_LOGIN". It records the start
// and the end of the session in syslog and waits until it is sent SIGTERM,
// which is how the daemon ends the session.
//
// Exit statuses: 0 the session was ended by SIGTERM; 1 wrong arguments, an
// unknown account, or not running as that account (then nothing is held).
#include <pwd.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
  openlog("quoruserpgm", LOG_PID, LOG_AUTH);
  if (argc != 4) {
    std::fprintf(stderr, "usage: quoruserpgm LOGIN CLIENT FLAG\n");
    return 1;
  }
  const char* login = argv[1];
  const char* client = argv[2];

  const passwd* account = getpwnam(login);
  if (account == nullptr) {
    syslog(LOG_WARNING, "no session for unknown user %s from %s", login, client);
    return 1;
  }
  if (getuid() != account->pw_uid || geteuid() != account->pw_uid) {
    syslog(LOG_WARNING, "no session for %s from %s: running as uid %d, not as the user", login, client,
           static_cast<int>(getuid()));
    return 1;
  }

  // Wait for SIGTERM without a handler: block it and take it synchronously.
  sigset_t wanted;
  sigemptyset(&wanted);
  sigaddset(&wanted, SIGTERM);
  sigprocmask(SIG_BLOCK, &wanted, nullptr);

  syslog(LOG_INFO, "session of %s from %s started", login, client);
  int signo = 0;
  while (sigwait(&wanted, &signo) != 0 || signo != SIGTERM) {
  }
  syslog(LOG_INFO, "session of %s from %s ended", login, client);
  closelog();
  return 0;
}
