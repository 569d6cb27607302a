// Who a client is and what it may use, finding transactions by client and
// by agent, and the login report (LOGININFO) sent by real agent processes
// through the real transport.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core_util.h"
#include "momsg.h"
#include "quoraccess.h"
#include "quoraccount.h"
#include "quordaemon.h"
#include "quorkids.h"
#include "quorsweep.h"
#include "quorusers.h"
#include "tev_client.h"

using testutil::EnvGuard;
using testutil::TempDir;

namespace {

TransactionHeader from(std::string pid, std::string node) {
  TransactionHeader h;
  h.pid = std::move(pid);
  h.node = std::move(node);
  return h;
}

// By client, pid (as text) and node match and the flags share a bit with
// the mask: a second first buffer makes a second transaction. By agent, the
// pid is read as a number and the node must be this host.
TEST(ChildLookup, ByClientAndByAgent) {
  ChildEntry* first = quor_child_find(from("42", "far"), kChildContinuing, false);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->flags, kChildNew);
  EXPECT_EQ(first->client_pid + first->client_node, "42far");
  EXPECT_EQ(quor_child_find(from("42", "far"), kChildContinuing, true), nullptr);
  EXPECT_EQ(quor_child_find(from("42", "far"), kChildNew, true), first);
  EXPECT_NE(quor_child_find(from("42", "far"), kChildContinuing, false), first);
  first->flags = kChildContinuing;
  EXPECT_EQ(quor_child_find(from("42", "far"), kChildContinuing, true), first);
  for (auto [pid, node] : {std::pair{"042", "far"}, {"42", "near"}})
    EXPECT_EQ(quor_child_find(from(pid, node), kChildContinuing, true), nullptr) << pid << node;
  quor_children().clear();

  const std::string local = mo_nodename();
  ChildEntry& running = quor_child_new();
  running.agent_pid = 123;
  running.flags = kChildRunning;
  ChildEntry& kept = quor_child_new();
  kept.agent_pid = 456;
  kept.flags = kChildKept;
  const std::uint32_t mask = kChildRunning | kChildKept;
  for (const char* pid : {"123", "0123", " +123"}) EXPECT_EQ(quor_child_find_agent(from(pid, local), mask), &running) << pid;
  EXPECT_EQ(quor_child_find_agent(from("456", local), mask), &kept);
  EXPECT_EQ(quor_child_find_agent(from("456", local), kChildRunning), nullptr);
  EXPECT_EQ(quor_child_find_agent(from("123", local + "x"), mask), nullptr);
  for (const char* pid : {"", "x123", "-123", "99999999999999999999"})
    EXPECT_EQ(quor_child_find_agent(from(pid, local), mask), nullptr) << pid;
  EXPECT_EQ(quor_child_count(), 2);
  quor_children().clear();
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
class LoginReport : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(quor_tev_register(loop_.conn.local, loop_.conn.fb, "TEST.LOGIN"), 0); }
  void TearDown() override {
    quor_tev_deregister(loop_.conn.local, loop_.conn.fb);
    for (pid_t pid : agents_)
      if (waitpid(pid, nullptr, WNOHANG) == 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
      }
    quor_reap_disowned();
    quor_children().clear();
    quor_users().clear();
  }

  // An agent process of a pending login for `user`: `body` runs in it, and
  // it then waits to be stopped, as a login process does.
  template <class Body>
  ChildEntry& login_agent(UserEntry& user, Body body) {
    pid_t pid = fork();
    if (pid == 0) {
      body();
      for (;;) pause();
    }
    agents_.push_back(pid);
    ChildEntry& child = quor_child_new();
    child.agent_pid = pid;
    child.kind = 2;
    child.flags = kChildRunning;
    child.user = &user;
    return child;
  }
  // A login agent for `user` that reports `account` itself, served. A slow
  // one takes two seconds to end on SIGTERM.
  pid_t report_own(UserEntry& user, std::string account, bool slow = false) {
    pid_t pid = login_agent(user, [&] {
      if (slow) signal(SIGTERM, [](int) {
          sleep(2);
          _exit(0);
        });
      send_report(getpid(), account);
    }).agent_pid;
    serve();
    return pid;
  }
  static UserEntry& pending(std::string name) { return quor_user_new() = UserEntry{std::move(name), "far", "", "", 0, 0, {}}; }
  // Receives one report and serves it.
  void serve() {
    loop_.buffer.fill(0);
    ASSERT_EQ(quor_tev_receive(loop_.conn, loop_.buffer), 0) << loop_.conn.fb.FB_ErrorText;
    quor_dispatch(loop_);
  }
  std::string log() const { return testutil::read_file(dir_.path() / "quor/log/quordaemon.log"); }

  TempDir dir_;
  EnvGuard tev_{"TEV_DIR", dir_.str()};
  EnvGuard root_{"MOXGLBL0000", dir_.str()};
  DaemonLoop loop_;
  std::vector<pid_t> agents_;
};

// The agent's report, or its child's, completes the login (account, group,
// activity, the agent as login process) and ends the transaction. Another
// report under the same account leaves the previous login process running
// unrecorded; under another account it stops it, dropped if it outlives the
// grace. Either is reaped by the first sweep after it ends.
TEST_F(LoginReport, ReportsFromTheAgentOrItsChildCompleteAndReplaceLogins) {
  UserEntry& ann = pending("ann");
  pid_t first = report_own(ann, "acct");
  EXPECT_EQ(ann.login_name, "acct");
  EXPECT_EQ(ann.group_id, std::to_string(getgid()));
  EXPECT_GE(ann.last_activity, std::time(nullptr) - 5);
  EXPECT_EQ(ann.login_pid, first);
  EXPECT_EQ(quor_child_count(), 0);

  UserEntry& bob = pending("bob");
  // The child stays (until the agent ends) so that its ancestry can be read.
  login_agent(bob, [] {
    pid_t agent = getpid();
    if (fork() == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      send_report(agent, "other");
      for (;;) pause();
    }
  });
  serve();
  EXPECT_EQ(bob.login_name, "other");
  EXPECT_EQ(quor_child_count(), 0);
  EXPECT_EQ(log().find("QUOR0300"), std::string::npos) << log();

  pid_t second = report_own(ann, "acct", true);
  EXPECT_EQ(ann.login_pid, second);
  EXPECT_EQ(waitpid(first, nullptr, WNOHANG), 0) << "the same account's earlier process was stopped";
  EXPECT_EQ(quor_disowned_count(), 1);

  pid_t third = report_own(ann, "changed");  // stops the second process: one second
  EXPECT_EQ(ann.login_name, "changed");
  EXPECT_EQ(ann.login_pid, third);
  EXPECT_EQ(quor_disowned_count(), 2) << "the second process outlived the grace and was dropped";
  kill(first, SIGKILL);
  for (pid_t pid : {first, second})  // the second ends only on SIGTERM
    EXPECT_TRUE(testutil::eventually([pid] {
      siginfo_t info{};
      return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == pid;
    })) << pid;
  quor_garbage_collect(0);
  EXPECT_EQ(quor_disowned_count(), 0);
  for (pid_t pid : {first, second}) EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1) << "ended process not reaped";
}

// A report naming an agent but sent by anyone else (here the agent's parent)
// is ignored and logged; so is one naming a process that is no login agent.
TEST_F(LoginReport, FromAnyoneElseIsIgnoredAndLogged) {
  UserEntry& ann = pending("ann");
  ChildEntry& agent = login_agent(ann, [] {});
  testutil::Child sender([&] { return send_report(agent.agent_pid, "root"); });
  std::string sent_by = " sent by process " + std::to_string(sender.pid());
  ASSERT_EQ(sender.wait(), 0);
  serve();
  EXPECT_TRUE(ann.login_name.empty() && ann.login_pid == 0);
  EXPECT_EQ(quor_child_count(), 1);
  EXPECT_NE(log().find("QUOR0300E"), std::string::npos) << log();
  EXPECT_NE(log().find("PID " + std::to_string(agent.agent_pid) + sent_by), std::string::npos) << log();

  testutil::Child stranger([] { return send_report(getpid(), "root"); });
  ASSERT_EQ(stranger.wait(), 0);
  serve();
  EXPECT_EQ(ann.login_name, "");
  EXPECT_EQ(quor_user_count(), 1);
}

}  // namespace

// An account whose login shell field is empty gets /bin/sh, as login does
// (agents run with SHELL set from it); one that does not exist is not found.
TEST(Accounts, AnEmptyShellFieldMeansTheStandardShell) {
  EXPECT_FALSE(quor_account("no such account here"));
  if (geteuid() != 0) GTEST_SKIP() << "needs root to make a throw-away account";
  std::string name = "qsh" + std::to_string(getpid() % 100000);
  ASSERT_EQ(std::system(("useradd -M -N -r -s '' -d /nonexistent " + name + " >/dev/null 2>&1").c_str()), 0);
  std::optional<Account> account = quor_account(name);
  (void)!std::system(("userdel " + name + " >/dev/null 2>&1").c_str());
  ASSERT_TRUE(account);
  EXPECT_EQ(account->home + " " + account->shell, "/nonexistent /bin/sh");
}

// Who a client is, as the owners file keeps it (the round trip is the users
// fuzz target's), and what that identity may do.
TEST(ClientIdentity, TextReadsBackAndDecidesTrustAndUse) {
  const ClientId user{true, 1000, ""}, other{true, 1001, ""}, root{true, 0, ""}, self{true, geteuid(), ""},
      remote{true, static_cast<uid_t>(-1), "far"}, remote_root{true, 0, "far"}, unknown{};
  EXPECT_EQ(quor_client_text(user) + "," + quor_client_text(remote), "uid 1000,host far");
  EXPECT_EQ(quor_client_parse("uid 1000"), user);
  for (const char* bad : {"uid", "uid x", "uid 12x", "uid -1", "host ", "nobody", ""})
    EXPECT_FALSE(quor_client_parse(bad)) << bad;

  EXPECT_TRUE(quor_client_trusted(root) && quor_client_trusted(self));
  EXPECT_FALSE(quor_client_trusted(remote_root) || quor_client_trusted(unknown));
  EXPECT_TRUE(quor_client_may_use(user, user) && quor_client_may_use(user, root));
  EXPECT_FALSE(quor_client_may_use(user, other) || quor_client_may_use(unknown, unknown) ||
               quor_client_may_use(user, remote));
}

// The sessions a client holds (its limit at login) follow entries as they
// are made, before any lookup, and as they go, one by one or together.
TEST(SessionCount, FollowsEntriesAsTheyComeAndGo) {
  quor_users().clear();
  const ClientId alice{true, 1000, ""}, bob{true, 1001, ""}, far{true, static_cast<uid_t>(-1), "far"};
  std::vector<UserEntry*> made;
  for (int i = 0; i < 6; ++i) {
    made.push_back(&quor_user_new());
    *made.back() = UserEntry{"u" + std::to_string(i), "n", "", "", 0, 0, i < 3 ? alice : i < 5 ? bob : far};
  }
  auto counts = [&] { return std::vector{quor_user_count_owned(alice), quor_user_count_owned(bob), quor_user_count_owned(far)}; };
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
