/* quoruserpgm: holds a user's login session on the host.
 *
 *   quoruserpgm LOGIN CLIENT FLAG
 *
 * The daemon starts it under the account LOGIN (already switched to the
 * account's uid and groups) for every user it restores at start-up, with
 * the client's node name as CLIENT, and for the default login user when
 * logins are not required, with CLIENT "DEFAULT_LOGIN". It records the start
 * and the end of the session in syslog and waits until it is sent SIGTERM,
 * which is how the daemon ends the session.
 *
 * A daemon restoring thousands of users starts thousands of these at once,
 * so the program makes a handful of system calls and is linked statically
 * against a small C library when the build has one. It does not read the
 * account database (with many local accounts every start would scan a large
 * file, and the daemon found the account, through every source the host's
 * account services know, before it switched to it); its one check is that
 * it does not hold a session as root for anybody but root.
 *
 * Exit statuses: 0 the session was ended by SIGTERM; 1 wrong arguments, or
 * running as root (or with mixed real and effective uids) for another
 * account: then nothing is held.
 */
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

int main(int argc, char** argv) {
  openlog("quoruserpgm", LOG_PID, LOG_AUTH);
  if (argc != 4) {
    fputs("usage: quoruserpgm LOGIN CLIENT FLAG\n", stderr);
    return 1;
  }
  const char* login = argv[1];
  const char* client = argv[2];

  uid_t uid = getuid();
  if (uid != geteuid() || (uid == 0 && strcmp(login, "root") != 0)) {
    syslog(LOG_WARNING, "no session for %s from %s: running as uid %d, not as the user", login, client,
           (int)geteuid());
    return 1;
  }

  /* Wait for SIGTERM without a handler: block it and take it synchronously. */
  sigset_t wanted;
  sigemptyset(&wanted);
  sigaddset(&wanted, SIGTERM);
  sigprocmask(SIG_BLOCK, &wanted, NULL);

  syslog(LOG_INFO, "session of %s from %s started", login, client);
  int signo = 0;
  while (sigwait(&wanted, &signo) != 0 || signo != SIGTERM) {
  }
  syslog(LOG_INFO, "session of %s from %s ended", login, client);
  closelog();
  return 0;
}
