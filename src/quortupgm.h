// Login processes: the program "quoruserpgm", run under a user's account,
// that holds a login session for a user restored at start-up and for the
// default login user when logins are not required.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

// $MOXGLBL0000 followed directly by "/quor/bin/quoruserpgm".
std::string quor_login_program();

// Starts the login program for `login_name`, with `client` (the client's
// node name, or "DEFAULT_LOGIN") and `flag` as its arguments, under the
// account's uid, gid and supplementary groups, the way agents are started
// (quorspawn.h: a child that only makes system calls, a clean environment,
// no inherited descriptors; standard error goes to /dev/null). Returns the
// child's pid, or 0 when the account is unknown or no process could be
// made. A child whose change of identity or exec fails ends with status 99;
// it never runs the program as root on behalf of another account.
pid_t quor_login_start(std::string_view login_name, std::string_view client, int flag);

// quor_login_start for a user restored at start-up: a child that could not
// take on the account or exec is reaped at once (it has ended by the time
// the start returns) and 0 returned, with `why` saying what failed, so that
// the caller keeps the user without a login process.
pid_t quor_login_restore(std::string_view login_name, std::string_view client, std::string& why);

// The LOGININFO request: the agent that a login started reports the local
// account it accepted the user as. The header names the agent ("PID", which
// must be a running or cleanly ended login agent of this host, "NOD") and
// the account ("USR", "GID"). The user entry of the agent's transaction is
// completed and the agent becomes the user's login process; an earlier
// login process under another account is stopped first.
//
// A report is believed only from the agent of a login (kind 2) for the
// session that login was started for, sent by the agent itself or a process
// it started on this host, as the kernel reports the sender; any other
// report is ignored and logged, so that no local user can make another
// process somebody's login, or an agent make its user somebody else.
// Returns 0 (also when the report was ignored), or 1 when memory ran out.
struct TevInquiry;
struct TransactionHeader;
int quor_login_info(const TransactionHeader& header, const TevInquiry& sender);
