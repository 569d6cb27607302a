// The daemon's children and users: the garbage-collection sweep with real
// child processes (what happens to agents, login programs and users when
// their processes end, overdue agents, idle users, and that nothing is left
// behind), the login report (LOGININFO) sent by real agent processes through
// the real transport, and who a client is and what it may use.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <functional>

#include "core_util.h"
#include "momsg.h"
#include "quoraccess.h"
#include "quoraccount.h"
#include "quorconfig.h"
#include "quordaemon.h"
#include "quorkids.h"
#include "quorsweep.h"
#include "quorusers.h"
#include "tev_client.h"

namespace {

int g_term_fd = -1;  // where a counting child reports each SIGTERM

// Blocks until `pid` has ended, leaving it to be reaped.
void wait_ended(pid_t pid) {
  siginfo_t info{};
  waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
}

// `pid` is still one of our children, running or not yet reaped.
bool ours(pid_t pid) {
  siginfo_t info{};
  return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

int new_segment() { return shmget(IPC_PRIVATE, 4096, IPC_CREAT | 0600); }

bool segment_exists(int shm) {
  shmid_ds ds{};
  return shmctl(shm, IPC_STAT, &ds) == 0;
}

// Whether a byte arrives on `fd` within `ms` milliseconds (it is read).
bool byte_within(int fd, int ms) {
  char c;
  pollfd readable{fd, POLLIN, 0};
  return poll(&readable, 1, ms) == 1 && read(fd, &c, 1) == 1;
}

class Sweep : public ::testing::Test {
 protected:
  void TearDown() override {
    // Only children not reaped yet: a reaped pid may be someone else's now.
    for (pid_t pid : started_)
      if (ours(pid)) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
      }
    for (int fd : pipes_) close(fd);
    quor_reap_disowned();
    quor_children().clear();
    quor_users().clear();
    quor_config() = QuorConfig{};
  }

  pid_t start(std::function<int()> body) {
    pid_t pid = fork();
    if (pid == 0) testutil::child_exit(body());
    started_.push_back(pid);
    return pid;
  }
  // A child that has already exited with `status`.
  pid_t exited(int status) {
    pid_t pid = start([status] { return status; });
    wait_ended(pid);
    return pid;
  }
  // A child that runs `first`, then until a signal ends it.
  pid_t waiting(std::function<void()> first = [] {}) {
    return start([first] {
      first();
      for (;;) pause();
      return 0;
    });
  }
  // A child that survives SIGTERM and writes a byte for each one; it is
  // ready when this returns. Returns the pid and the reading end of the pipe.
  std::pair<pid_t, int> counting() {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    pid_t pid = start([fds] {
      g_term_fd = fds[1];
      signal(SIGTERM, [](int) { (void)!write(g_term_fd, "t", 1); });
      (void)!write(fds[1], "r", 1);
      for (;;) pause();
      return 0;
    });
    close(fds[1]);
    pipes_.push_back(fds[0]);
    EXPECT_TRUE(byte_within(fds[0], 5000));
    return {pid, fds[0]};
  }

  static ChildEntry& agent(pid_t pid, int kind, std::uint32_t flags = kChildRunning, UserEntry* user = nullptr) {
    ChildEntry& e = quor_child_new();
    e.agent_pid = pid;
    e.kind = kind;
    e.flags = flags;
    e.user = user;
    return e;
  }
  static UserEntry& user(std::string name, std::time_t activity = 0, pid_t login = 0, ClientId owner = {}) {
    return quor_user_new() = UserEntry{std::move(name), "far", "", "", activity, login, owner};
  }
  // The names of the users left, newest first.
  static std::string users_left() {
    std::string names;
    for (const UserEntry& u : quor_users()) names += u.user_name + " ";
    return names;
  }
  static const ChildEntry* entry(pid_t pid) {
    auto it = std::ranges::find(quor_children(), pid, &ChildEntry::agent_pid);
    return it == quor_children().end() ? nullptr : &*it;
  }

  std::vector<pid_t> started_;
  std::vector<int> pipes_;
};

// A login agent's clean exit keeps the entry (flags 0x10, unless 0x20) and
// the user; a failure or a signal logs the user out, as does a logoff agent's
// end (stopping the login program); a service agent's end touches no user.
// Only running (0x04) or reapable (0x20) entries end with their process. A
// user whose login program ended is logged out; transactions forget it.
TEST_F(Sweep, WhatTheEndOfAnAgentMeansForItsEntryAndUser) {
  pid_t ok = exited(0), failed = exited(3), no_keep = exited(0), logoff = exited(0), service = exited(5);
  pid_t unmarked = exited(0), program = exited(0), killed = waiting(), login = waiting();
  kill(killed, SIGKILL);
  wait_ended(killed);
  agent(ok, 2, kChildRunning, &user("ok"));
  agent(failed, 2, kChildRunning, &user("failed"));
  agent(killed, 2, kChildRunning, &user("killed"));
  agent(no_keep, 2, kChildRunning | kChildNoKeep, &user("no_keep"));
  agent(logoff, 3, kChildRunning, &user("leaving", 1000, login));
  agent(service, 1, kChildRunning, &user("service", 1000));
  agent(unmarked, 1, kChildContinuing);
  agent(0, 0, kChildNew);
  ChildEntry& transaction = agent(waiting(), 1, kChildRunning, &user("gone", 1000, program));

  quor_garbage_collect(0);

  EXPECT_EQ(transaction.user, nullptr);
  ASSERT_EQ(quor_child_count(), 4);
  ASSERT_TRUE(entry(ok) && entry(unmarked) && entry(0)) << "an entry that stays went";
  EXPECT_EQ(entry(ok)->flags, kChildKept);
  EXPECT_EQ(users_left(), "service no_keep ok ");
  EXPECT_FALSE(ours(login)) << "the logged-off user's login program was not stopped and reaped";
  for (pid_t pid : {ok, failed, killed, no_keep, logoff, service, program}) EXPECT_FALSE(ours(pid)) << pid;

  // The kept entry is not reaped again, and stays until its report comes.
  quor_garbage_collect(1);
  EXPECT_EQ(quor_child_count(), 4);
  EXPECT_EQ(users_left(), "service no_keep ok ");
}

// An agent older than the transaction time-out gets SIGTERM on every sweep
// until it ends; a young one, an exempt one (0x40), a kept login agent (it
// was reaped, so its pid is no longer ours to signal) and any under a
// time-out of 0 never do.
TEST_F(Sweep, OverdueAgentsGetSigtermOnEverySweep) {
  quor_config().transaction_timeout = 5;
  auto [overdue, overdue_terms] = counting();
  auto [exempt, exempt_terms] = counting();
  auto [kept, kept_terms] = counting();
  auto [young, young_terms] = counting();
  agent(overdue, 1).created -= 6;
  agent(exempt, 1, kChildRunning | kChildNoTimeout).created -= 100;
  agent(kept, 2, kChildKept, &user("waiting")).created -= 100;
  agent(young, 1);  // the newest: the walk from the oldest stops here

  for (int sweep = 1; sweep <= 3; ++sweep) {
    quor_garbage_collect(0);
    EXPECT_TRUE(byte_within(overdue_terms, 5000)) << "sweep " << sweep;
  }
  EXPECT_FALSE(byte_within(exempt_terms, 200) || byte_within(kept_terms, 0) || byte_within(young_terms, 0))
      << "an exempt, kept or young agent was signalled";
  EXPECT_EQ(quor_child_count(), 4) << "a signalled agent stays until it has ended";
  quor_config().transaction_timeout = 0;  // no time-out at all
  quor_garbage_collect(0);
  EXPECT_FALSE(byte_within(overdue_terms, 200));

  // A kill-all stops agents that ignore SIGTERM with SIGKILL, and never
  // signals the pid of a kept entry (here: a process it does not own any
  // more, as a reused pid would be).
  quor_children_kill_all();
  EXPECT_TRUE(byte_within(overdue_terms, 0)) << "no SIGTERM first";
  for (pid_t pid : {overdue, exempt, young}) EXPECT_FALSE(ours(pid)) << "an agent was not killed and reaped";
  EXPECT_FALSE(byte_within(kept_terms, 0)) << "a kept entry's pid was signalled";
}

// A failed start (pid -1), a transaction whose next buffer is overdue and a
// login agent that ended without its report go with their segments and
// pending session; an idle user is logged out (never without a time-out).
// A shutdown then drops the transactions whose agent has not started, with
// their segments, leaving the running ones to the kill-all.
TEST_F(Sweep, UnfinishedTransactionsExpireAndGoAtAShutdown) {
  int failed_shm = new_segment(), stale_shm = new_segment(), recent_shm = new_segment();
  agent(-1, 0, kChildContinuing).shm_id = failed_shm;
  ChildEntry& stale = agent(0, 0, kChildContinuing, &user("pending"));
  stale.shm_id = stale_shm;
  stale.type = 'L';
  stale.last_buffer -= kPendingExpirySeconds + 1;
  agent(exited(0), 2, kChildKept).last_buffer -= kPendingExpirySeconds + 1;
  agent(0, 0, kChildContinuing).last_buffer -= kPendingExpirySeconds - 5;
  pid_t running = waiting();
  agent(running, 1, kChildRunning, &user("busy", std::time(nullptr)));
  quor_config().login_timeout = 60;
  pid_t idle_program = waiting();
  ChildEntry& idle = agent(waiting(), 1, kChildRunning, &user("idle", std::time(nullptr) - 61, idle_program));

  std::vector<std::string> logged;
  mo_set_log_sink([&](std::uint32_t id, std::string_view) { logged.push_back(mo_tag(id)); });
  quor_garbage_collect(0);
  mo_set_log_sink({});
  // The two unfinished transactions are logged as dropped; the failed start was already.
  EXPECT_EQ(std::count(logged.begin(), logged.end(), "QUOR0307E"), 2);
  EXPECT_EQ(quor_child_count(), 3) << "only the recent transaction and the running agents stay";
  EXPECT_EQ(idle.user, nullptr);
  EXPECT_FALSE(ours(idle_program)) << "the idle user's login program was not stopped and reaped";
  EXPECT_EQ(users_left(), "busy ");
  EXPECT_FALSE(segment_exists(failed_shm) || segment_exists(stale_shm)) << "a segment stayed";
  quor_config().login_timeout = 0;  // nobody is idle
  user("ancient", 1);
  quor_garbage_collect(0);
  EXPECT_EQ(users_left(), "ancient busy ");

  agent(0, 0, kChildNew).shm_id = recent_shm;  // not yet in any index
  quor_abnormal_shutdown(quor_registration(), false);
  EXPECT_EQ(quor_child_count(), 2);
  EXPECT_TRUE(entry(running));
  EXPECT_FALSE(segment_exists(recent_shm)) << "the segment stayed";
}

// A login report names its agent by pid: the pid is read as a number, the
// node must be this host and the entry's flags must share a bit with the mask.
TEST_F(Sweep, LoginReportsFindTheirAgentByPidOnThisHost) {
  ChildEntry& running = agent(123, 0);
  ChildEntry& kept = agent(456, 2, kChildKept);
  const std::string local = mo_nodename();
  auto find = [](std::string pid, std::string node, std::uint32_t mask = kChildRunning | kChildKept) {
    TransactionHeader h;
    h.pid = std::move(pid);
    h.node = std::move(node);
    return quor_child_find_agent(h, mask);
  };
  for (const char* pid : {"123", "0123", " +123"}) EXPECT_EQ(find(pid, local), &running) << pid;
  EXPECT_EQ(find("456", local), &kept);
  EXPECT_EQ(find("456", local, kChildRunning), nullptr);
  EXPECT_EQ(find("123", local + "x"), nullptr);
  for (const char* pid : {"", "x123", "-123", "99999999999999999999"}) EXPECT_EQ(find(pid, local), nullptr) << pid;
}


// Sends a login report as an agent does ("PID" naming `named`, "USR" the
// account) to the test's server.
int send_report(pid_t named, const std::string& account) {
  TevClient client;
  auto report = testutil::sealed_request("I", [&](TransactionHeader& h) {
    h.pid = std::to_string(named);
    h.user = account;
  });
  return client.call("TEST.LOGIN", report, 0, false).rc == 0 ? 0 : 1;
}

// The receiving side of a daemon registered in the test process: each
// report is received and dispatched as the receive loop does.
class LoginReport : public Sweep {
 protected:
  void SetUp() override { ASSERT_EQ(quor_tev_register(loop_.conn.local, loop_.conn.fb, "TEST.LOGIN"), 0); }
  void TearDown() override {
    quor_tev_deregister(loop_.conn.local, loop_.conn.fb);
    Sweep::TearDown();
  }

  // A login agent for `user` that reports `account` itself, served. A slow
  // one takes two seconds to end on SIGTERM.
  pid_t report_own(UserEntry& user, std::string account, bool slow = false) {
    pid_t pid = waiting([&] {
      if (slow) signal(SIGTERM, [](int) {
          sleep(2);
          _exit(0);
        });
      send_report(getpid(), account);
    });
    agent(pid, 2, kChildRunning, &user);
    serve();
    return pid;
  }
  // Receives one report and serves it.
  void serve() {
    loop_.buffer.fill(0);
    ASSERT_EQ(quor_tev_receive(loop_.conn, loop_.buffer), 0) << loop_.conn.fb.FB_ErrorText;
    quor_dispatch(loop_);
  }
  std::string log() const { return testutil::read_file(dir_.path() / "quor/log/quordaemon.log"); }

  testutil::TempDir dir_;
  testutil::EnvGuard tev_{"TEV_DIR", dir_.str()};
  testutil::EnvGuard root_{"MOXGLBL0000", dir_.str()};
  DaemonLoop loop_;
};

// The agent's report, or its child's, completes the login (account, group,
// activity, the agent as login process) and ends the transaction. Another
// report under the same account leaves the previous login process running
// unrecorded; under another account it stops it, dropped if it outlives the
// grace. Either is reaped by the first sweep after it ends.
TEST_F(LoginReport, ReportsFromTheAgentOrItsChildCompleteAndReplaceLogins) {
  UserEntry& ann = user("ann");
  pid_t first = report_own(ann, "acct");
  EXPECT_EQ(ann.login_name + " " + ann.group_id, "acct " + std::to_string(getgid()));
  EXPECT_GE(ann.last_activity, std::time(nullptr) - 5);
  EXPECT_EQ(ann.login_pid, first);
  EXPECT_EQ(quor_child_count(), 0);

  UserEntry& bob = user("bob");
  // The child stays (until the agent ends) so that its ancestry can be read.
  agent(waiting([] {
          pid_t agent = getpid();
          if (fork() == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            send_report(agent, "other");
            for (;;) pause();
          }
        }),
        2, kChildRunning, &bob);
  serve();
  EXPECT_EQ(bob.login_name, "other");
  EXPECT_EQ(quor_child_count(), 0);

  pid_t second = report_own(ann, "acct", true);
  EXPECT_EQ(ann.login_pid, second);
  EXPECT_EQ(waitpid(first, nullptr, WNOHANG), 0) << "the same account's earlier process was stopped";
  EXPECT_EQ(quor_disowned_count(), 1);

  pid_t third = report_own(ann, "changed");  // stops the second process: one second
  EXPECT_EQ(ann.login_pid, third);
  EXPECT_EQ(quor_disowned_count(), 2) << "the second process outlived the grace and was dropped";
  kill(first, SIGKILL);
  wait_ended(first);
  wait_ended(second);  // it ends only on SIGTERM
  quor_garbage_collect(0);
  EXPECT_EQ(quor_disowned_count(), 0);
  EXPECT_FALSE(ours(first) || ours(second)) << "an ended process was not reaped";
}

// A report naming an agent but sent by anyone else (here the agent's parent)
// is ignored and logged; so is one naming a process that is no login agent.
TEST_F(LoginReport, FromAnyoneElseIsIgnoredAndLogged) {
  UserEntry& ann = user("ann");
  pid_t agent_pid = agent(waiting(), 2, kChildRunning, &ann).agent_pid;
  testutil::Child sender([&] { return send_report(agent_pid, "root"); });
  std::string sent_by = " sent by process " + std::to_string(sender.pid());
  ASSERT_EQ(sender.wait(), 0);
  serve();
  EXPECT_TRUE(ann.login_name.empty() && ann.login_pid == 0);
  EXPECT_EQ(quor_child_count(), 1);
  EXPECT_NE(log().find("QUOR0300E"), std::string::npos) << log();
  EXPECT_NE(log().find("PID " + std::to_string(agent_pid) + sent_by), std::string::npos) << log();

  testutil::Child stranger([] { return send_report(getpid(), "root"); });
  ASSERT_EQ(stranger.wait(), 0);
  serve();
  EXPECT_EQ(quor_user_count(), 1);
}

}  // namespace

// Stopping no process (a user whose login program never started has pid 0)
// signals nothing and does not wait the second a real stop waits.
TEST(Terminate, NoProcessMeansNoWait) {
  auto start = std::chrono::steady_clock::now();
  const pid_t none[] = {0, -1};
  quor_terminate_pids(none);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
}

// An account whose login shell field is empty gets /bin/sh, as login does
// (agents run with SHELL set from it).
TEST(Accounts, AnEmptyShellFieldMeansTheStandardShell) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to make a throw-away account";
  std::string name = "qsh" + std::to_string(getpid() % 100000);
  ASSERT_EQ(std::system(("useradd -M -N -r -s '' -d /nonexistent " + name + " >/dev/null 2>&1").c_str()), 0);
  std::optional<Account> account = quor_account(name);
  (void)!std::system(("userdel " + name + " >/dev/null 2>&1").c_str());
  ASSERT_TRUE(account);
  EXPECT_EQ(account->home + " " + account->shell, "/nonexistent /bin/sh");
}

// Who a client is, as the owners file keeps it (the round trip is the users
// fuzz target's; what the identity may do, the security tests').
TEST(ClientIdentity, TextReadsBackAndBadTextIsRefused) {
  const ClientId user{true, 1000, ""}, remote{true, static_cast<uid_t>(-1), "far"};
  EXPECT_EQ(quor_client_text(user) + "," + quor_client_text(remote), "uid 1000,host far");
  EXPECT_EQ(quor_client_parse("uid 1000"), user);
  for (const char* bad : {"uid", "uid x", "uid 12x", "uid -1", "host ", "nobody", ""})
    EXPECT_FALSE(quor_client_parse(bad)) << bad;
}

// The sessions a client holds (its limit at login) follow entries as they
// are made, before any lookup, and as they go, one by one or together.
TEST_F(Sweep, SessionsOfAClientFollowEntriesAsTheyComeAndGo) {
  const ClientId alice{true, 1000, ""}, bob{true, 1001, ""}, far{true, static_cast<uid_t>(-1), "far"};
  std::vector<UserEntry*> made;
  for (int i = 0; i < 6; ++i) made.push_back(&user("u" + std::to_string(i), 0, 0, i < 3 ? alice : i < 5 ? bob : far));
  auto counts = [&] {
    return std::vector{quor_user_count_owned(alice), quor_user_count_owned(bob), quor_user_count_owned(far)};
  };
  EXPECT_EQ(counts(), (std::vector{3, 2, 1}));
  quor_user_remove_ended(made[0]);
  quor_users_remove_ended(std::span(made).subspan(3, 2));
  EXPECT_EQ(counts(), (std::vector{2, 0, 1}));
  quor_user_new().owner = bob;
  EXPECT_EQ(counts(), (std::vector{2, 1, 1}));
  quor_user_remove_ended(&quor_users().front());
  EXPECT_EQ(counts(), (std::vector{2, 0, 1}));
  quor_users().clear();
  EXPECT_EQ(counts(), (std::vector{0, 0, 0}));
}
