// quorlogon: the sample logon agent (object "LOGON").
//
//   quorlogon SEGMENT-ID
//
// Started as root for a login request ('L'). The user to log in is the
// record's user name (the client's); the request may carry a password as
// the selection entry "PASSWORD". The account must exist, and the system's
// PAM stack (service "quorlogon") must accept the password for it, unless
// the client needs none: a local client process that already runs as that
// account, or as root (a gateway that authenticated its own users), as the
// daemon learnt from the kernel (QUOR_CLIENT_UID). A client on another host
// always needs the password. An account with uid 0 is refused outright
// unless quor/etc/quorlogon.config holds "ALLOW_ROOT_LOGIN: 1".
//
// An accepted user is reported to the daemon with a LOGININFO request, the
// client is answered "RC 0", and the agent stays as the user's login
// process until it is sent SIGTERM (logoff, idle time-out, daemon stop). A
// refused user gets "RC 1" with the reason, and the agent exits 1, which
// logs the user out again.
//
// With the command "LOGOFF" (a logoff request, 'O'), it only answers the
// client: the daemon stops the login process itself.
#include <security/pam_appl.h>
#include <pwd.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "agentlib.h"
#include "textlines.h"

namespace {

// Answers PAM's password prompts with the password from the request.
int converse(int count, const pam_message** messages, pam_response** responses, void* data) {
  auto* replies = static_cast<pam_response*>(std::calloc(static_cast<std::size_t>(count), sizeof(pam_response)));
  if (replies == nullptr) return PAM_BUF_ERR;
  for (int i = 0; i < count; ++i)
    if (messages[i]->msg_style == PAM_PROMPT_ECHO_OFF || messages[i]->msg_style == PAM_PROMPT_ECHO_ON)
      replies[i].resp = strdup(static_cast<const char*>(data));
  *responses = replies;
  return PAM_SUCCESS;
}

bool password_accepted(const std::string& account, const std::string& password) {
  pam_conv conversation{converse, const_cast<char*>(password.c_str())};
  pam_handle_t* pam = nullptr;
  if (pam_start("quorlogon", account.c_str(), &conversation, &pam) != PAM_SUCCESS) return false;
  int rc = pam_authenticate(pam, PAM_DISALLOW_NULL_AUTHTOK);
  if (rc == PAM_SUCCESS) rc = pam_acct_mgmt(pam, 0);
  pam_end(pam, rc);
  return rc == PAM_SUCCESS;
}

// "ALLOW_ROOT_LOGIN: 1" in the agent's own configuration file, which is
// read only when the daemon would trust it (see textlines.h).
bool root_login_allowed() {
  const char* root = std::getenv("MOXGLBL0000");
  TextLines lines(std::string(root != nullptr ? root : "") + "/quor/etc/quorlogon.config");
  bool allowed = false;
  std::string_view line;
  while (lines.next(line)) {
    if (!line.starts_with("ALLOW_ROOT_LOGIN")) continue;
    std::size_t colon = line.find(':');
    std::string_view value = colon == std::string_view::npos ? "" : line.substr(colon + 1);
    value.remove_prefix(std::min(value.find_first_not_of(" \t"), value.size()));
    allowed = value.starts_with('1');
  }
  return allowed;
}

// Whether the client may log in as the account without a password: it is
// that account already, or root, on this host.
bool vouched_for(uid_t account_uid) {
  AgentClient client = agent_client();
  return client.host.empty() && client.uid && (*client.uid == 0 || *client.uid == account_uid);
}

// Waits for SIGTERM, taken synchronously.
void hold_session() {
  sigset_t term;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  sigprocmask(SIG_BLOCK, &term, nullptr);
  int signo = 0;
  while (sigwait(&term, &signo) != 0 || signo != SIGTERM) {
  }
}

}  // namespace

int main(int argc, char** argv) {
  openlog("quorlogon", LOG_PID, LOG_AUTH);
  AgentRequest request;
  if (argc < 2) return 2;
  if (!agent_take_request(std::atoi(argv[1]), request)) {
    std::fprintf(stderr, "quorlogon: cannot take the request segment %s: %s\n", argv[1], std::strerror(errno));
    return 1;
  }
  AgentAnswer answer;
  if (!answer.open(request, "QUORLOGON")) {
    std::fprintf(stderr, "quorlogon: cannot register with the transport\n");
    return 1;
  }
  std::string account = request.field(smc::username);
  std::string client = request.field(smc::node);

  if (request.field(smc::command) == "LOGOFF") {
    answer.send("", 0, "logged off");
    return 0;
  }
  const passwd* pw = getpwnam(account.c_str());
  bool known = pw != nullptr;
  std::string gid = known ? std::to_string(pw->pw_gid) : "";  // before PAM reuses the entry
  uid_t uid = known ? pw->pw_uid : static_cast<uid_t>(-1);
  std::string password = request.selection("PASSWORD");
  bool accepted = known && (uid != 0 || root_login_allowed()) &&
                  (vouched_for(uid) || (!password.empty() && password_accepted(account, password)));
  if (!accepted) {
    syslog(LOG_NOTICE, "login of %s from %s refused", account.c_str(), client.c_str());
    if (answer.send("", 1, "login refused for " + account) != 0)
      std::fprintf(stderr, "quorlogon: cannot answer the client\n");
    return 1;
  }
  if (agent_report_login(account, gid) != 0) {
    answer.send("", 1, "cannot report the login to the daemon");
    return 1;
  }
  syslog(LOG_INFO, "login of %s from %s accepted", account.c_str(), client.c_str());
  answer.send("", 0, "logged in as " + account);
  hold_session();
  syslog(LOG_INFO, "session of %s from %s ended", account.c_str(), client.c_str());
  return 0;
}
