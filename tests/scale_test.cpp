// The sweep with hundreds of users and agents, through the real daemon:
// which agents end up dropped or stopped, which users are logged out, the
// order of the lists that remain, and that no ended child stays a zombie.
#include <gtest/gtest.h>
#include <signal.h>

#include <ctime>
#include <ranges>

#include "agent_fixture.h"
#include "quorusers.h"

namespace {

using testutil::Daemon;
using testutil::processes;
namespace fs = std::filesystem;

// The lines of a full status report that start with `prefix`, in order.
std::vector<std::string> report_lines(const Daemon& d, std::string_view prefix) {
  std::vector<std::string> lines;
  for (const std::string& item : d.status("F"))
    if (item.starts_with(prefix)) lines.push_back(item);
  return lines;
}

std::string counts_of(int users, int transactions) {
  return "    " + std::to_string(users) + " users logged into quor\n    " + std::to_string(transactions) +
         " transactions in progress.\n";
}

class Scale : public testutil::AgentDaemonTest {
 protected:
  // The daemon's running agents.
  std::set<pid_t> agents() {
    std::vector<pid_t> pids = processes(daemon_->pid(), "quorprobe");
    return std::set<pid_t>(pids.begin(), pids.end());
  }
  std::size_t zombies() { return processes(daemon_->pid(), {}, true).size(); }
  // Asks for an agent that sleeps until stopped.
  void start_agent() { request("S", "PROBE", "SLEEP600", false); }
};

// 200 agents: those that end (killed here) are dropped at the next request;
// those older than the transaction time-out get SIGTERM and go once they
// have ended; the young ones keep running and stay listed, newest first.
TEST_F(Scale, AgentsThatEndOrOutliveTheTimeOutGoTheRestStay) {
  REQUIRE_ROOT();
  constexpr int kTimeout = 10;  // room for starting the first agents on a busy machine
  start("LOGIN_REQUIRED: 0\nDEFAULT_LOGIN_NAME: nobody\nTRANSACTION_TIMEOUT: " + std::to_string(kTimeout) + "\n");
  auto started = std::chrono::steady_clock::now();
  for (int i = 0; i < 160; ++i) start_agent();
  EXPECT_EQ(settle(counts_of(0, 160)), counts_of(0, 160));
  for (pid_t pid : agents() | std::views::take(60)) kill(pid, SIGKILL);  // the daemon's running children
  EXPECT_EQ(settle(counts_of(0, 100)), counts_of(0, 100)) << "killed agents were not dropped";
  if (std::chrono::steady_clock::now() - started >= std::chrono::seconds(kTimeout))
    GTEST_SKIP() << "the agents took longer than the time-out to start: which are overdue cannot be told";

  std::this_thread::sleep_until(started + std::chrono::seconds(kTimeout + 2));  // the rest is now overdue
  std::vector<pid_t> young;  // in the order they started
  for (int i = 0; i < 40; ++i) {
    std::set<pid_t> before = agents();
    start_agent();
    bool started_one = testutil::eventually([&] {
      for (pid_t pid : agents())
        if (!before.contains(pid)) young.push_back(pid);
      return young.size() > static_cast<std::size_t>(i);
    });
    if (!started_one) break;
  }
  ASSERT_EQ(young.size(), 40u) << "agents that did not start; the status: " << counts();
  // The sweep of each request stops the overdue agents; once they have
  // ended, only the young ones are left, still running.
  EXPECT_EQ(settle(counts_of(0, 40)), counts_of(0, 40));
  EXPECT_EQ(agents(), std::set<pid_t>(young.begin(), young.end())) << "an overdue agent ran on, or a young one stopped";
  EXPECT_EQ(zombies(), 0u);

  std::vector<pid_t> listed;
  for (const std::string& line : report_lines(*daemon_, "    PID "))
    listed.push_back(static_cast<pid_t>(std::atol(line.c_str() + 8)));
  EXPECT_EQ(listed, std::vector<pid_t>(young.rbegin(), young.rend()));
}

// 300 restored users: those idle longer than the login time-out are logged
// out by the first sweep and their login programs stopped; users whose
// login program ends are logged out at the next request; the others stay,
// listed and saved again in the order the daemon's table holds them (the
// save file's, reversed, as loading puts each record at the front).
TEST_F(Scale, RestoredUsersIdleOrWithoutTheirProgramAreLoggedOut) {
  REQUIRE_ROOT();
  if (getpwnam("nobody") == nullptr) GTEST_SKIP() << "needs 'nobody'";
  start("LOGIN_REQUIRED: 1\nLOGIN_TIMEOUT: 60\n", "PROBE quorprobe\n", [](const fs::path& root) {
    // user<i> from node<i>, listed in that order, the first 100 idle for two hours.
    testutil::EnvGuard env("MOXGLBL0000", root.string());
    for (int i = 299; i >= 0; --i)
      quor_user_new() = UserEntry{"user" + std::to_string(i), "node" + std::to_string(i), "nobody", "65534",
                                  std::time(nullptr) - (i < 100 ? 7200 : 0), 0, {}};
    ASSERT_EQ(quor_users_save(), 0);
    quor_users().clear();
  });
  EXPECT_EQ(counts(), counts_of(200, 0)) << "idle users were not logged out";

  // Each login program names its user's node, "node<i>", as an argument.
  std::map<int, pid_t> program_of;
  for (pid_t pid : processes(daemon_->pid(), "quoruserpgm")) {
    std::string args = testutil::read_file("/proc/" + std::to_string(pid) + "/cmdline");
    if (std::size_t at = args.find(std::string("\0node", 5)); at != std::string::npos)
      program_of[std::atoi(args.c_str() + at + 5)] = pid;
  }
  ASSERT_EQ(program_of.size(), 200u) << "the idle users' login programs were not stopped\n" << daemon_->log();
  EXPECT_EQ(program_of.begin()->first, 100);
  EXPECT_EQ(zombies(), 0u);

  std::vector<std::string> listed, saved;
  for (auto& [user, pid] : std::ranges::reverse_view(program_of)) {
    if (user % 4 == 0) {
      kill(pid, SIGKILL);  // found running as the daemon's child just now
      continue;
    }
    std::string name = "user" + std::to_string(user);
    listed.push_back("    User " + name + " from node node" + std::to_string(user) + " logged in as nobody.\n");
    saved.push_back(name);
  }
  EXPECT_EQ(settle(counts_of(150, 0)), counts_of(150, 0));
  EXPECT_EQ(report_lines(*daemon_, "    User "), listed);
  EXPECT_EQ(zombies(), 0u);

  TevClient client;
  client.call(kServerName, Daemon::request("T"), 0, false);
  ASSERT_EQ(daemon_->wait_exit(), 0) << daemon_->output();
  testutil::EnvGuard env("MOXGLBL0000", daemon_->root().str());
  std::vector<std::string> names;
  quor_records_read(quor_users_path(), 5, [&](const std::vector<std::string>& s) { names.push_back(s[0]); });
  EXPECT_EQ(names, saved);
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

}  // namespace
