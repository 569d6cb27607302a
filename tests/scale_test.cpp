// The sweep with hundreds of users and agents, through the real daemon:
// which agents end up dropped or stopped, which users are logged out, the
// order of the lists that remain, and that no ended child stays a zombie.
// A restored user whose login program cannot start is kept and saved.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <ranges>
#include <ctime>
#include <set>

#include "agent_fixture.h"
#include "quorusers.h"

namespace {

using testutil::Daemon;
namespace fs = std::filesystem;

// The daemon's children whose command is `name`, and how many of all its
// children are zombies.
struct Children {
  std::set<pid_t> named;
  int zombies = 0;
};

Children children_of(pid_t parent, std::string_view name) {
  Children found;
  for (const auto& e : fs::directory_iterator("/proc")) {
    std::string stat = testutil::read_file(e.path() / "stat");
    std::size_t paren = stat.rfind(')');
    int ppid = 0;
    char state = 0;
    if (paren == std::string::npos || std::sscanf(stat.c_str() + paren + 2, "%c %d", &state, &ppid) != 2 ||
        ppid != parent)
      continue;
    if (state == 'Z') ++found.zombies;
    if (stat.find("(" + std::string(name) + ")") != std::string::npos && state != 'Z')
      found.named.insert(static_cast<pid_t>(std::stol(e.path().filename().string())));
  }
  return found;
}

// The argument vector of a process.
std::vector<std::string> arguments(pid_t pid) {
  std::string text = testutil::read_file("/proc/" + std::to_string(pid) + "/cmdline");
  std::vector<std::string> args;
  for (std::size_t at = 0; at < text.size();) {
    std::size_t end = text.find('\0', at);
    if (end == std::string::npos) end = text.size();
    args.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return args;
}

// The lines of a full status report that start with `prefix`, in order.
std::vector<std::string> report_lines(const Daemon& d, std::string_view prefix) {
  std::vector<std::string> lines;
  for (const std::string& item : d.status("F"))
    if (item.starts_with(prefix)) lines.push_back(item);
  return lines;
}

// Saves `count` users logged in as "nobody", user<i> from node<i>, in that
// order of the file's table; those below `idle` last active two hours ago.
void save_users(const fs::path& root, int count, int idle) {
  fs::permissions(root, fs::perms::others_exec | fs::perms::group_exec, fs::perm_options::add);
  testutil::EnvGuard env("MOXGLBL0000", root.string());
  std::time_t now = std::time(nullptr);
  for (int i = count - 1; i >= 0; --i) {
    UserEntry& u = quor_user_new();
    u.user_name = "user" + std::to_string(i);
    u.node_name = "node" + std::to_string(i);
    u.login_name = "nobody";
    u.group_id = "65534";
    u.last_activity = i < idle ? now - 7200 : now;
  }
  ASSERT_EQ(quor_users_save(), 0);
  quor_users().clear();
}

// The user names of the save file in `root`, in the file's order.
std::vector<std::string> saved_users(const fs::path& root) {
  testutil::EnvGuard env("MOXGLBL0000", root.string());
  std::vector<std::string> names;
  EXPECT_EQ(quor_records_read(quor_users_path(), 5, [&](const std::vector<std::string>& s) { names.push_back(s[0]); }),
            0);
  return names;
}

int terminate(Daemon& d) {
  TevClient client;
  client.call(kServerName, Daemon::request("T"), 0, false);
  return d.wait_exit();
}

class Scale : public testutil::AgentDaemonTest {
 protected:
  // Starts `count` agents that sleep until stopped; their pids in the order
  // they started. `in_turn`: each is started once the one before runs.
  std::vector<pid_t> start_agents(int count, bool in_turn = false) {
    CtlBuild spec;
    spec.object = "PROBE";
    spec.command = "SLEEP600";
    std::vector<pid_t> pids;
    for (int i = 0; i < count; ++i) {
      send(spec, false);
      if (!in_turn && i + 1 < count) continue;
      while (static_cast<int>(pids.size()) <= i) {
        std::optional<testutil::Probe> probe = next_probe();
        if (!probe) break;
        pids.push_back(probe->pid);
      }
    }
    EXPECT_EQ(static_cast<int>(pids.size()), count) << "agents that did not start";
    return pids;
  }
  std::string transactions(int count) {
    return "    0 users logged into quor\n    " + std::to_string(count) + " transactions in progress.\n";
  }
  // Waits until the status counts read `want`; the counts last read.
  std::string settle(const std::string& want) {
    for (int i = 0; i < 250 && counts() != want; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return counts();
  }
  bool logged(std::string_view text) {
    for (int i = 0; i < 100; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(20)))
      if (daemon_->log().find(text) != std::string::npos) return true;
    return false;
  }
};

// 300 agents: those that end (killed here) are dropped at the next request;
// those older than the transaction time-out get SIGTERM and go once they
// have ended; the young ones keep running and stay listed, newest first.
TEST_F(Scale, AgentsThatEndOrOutliveTheTimeOutGoTheRestStay) {
  REQUIRE_ROOT();
  start("LOGIN_REQUIRED: 0\nDEFAULT_LOGIN_NAME: nobody\nTRANSACTION_TIMEOUT: 3\n");
  std::vector<pid_t> old = start_agents(240);
  for (std::size_t i = 0; i < 80 && i < old.size(); ++i) kill(old[i], SIGKILL);
  EXPECT_EQ(settle(transactions(160)), transactions(160)) << "killed agents were not dropped";

  std::this_thread::sleep_for(std::chrono::seconds(4));  // the rest is now overdue
  std::vector<pid_t> young = start_agents(60, true);
  // The sweep of each request stops the overdue agents; once they have
  // ended, only the young ones are left, still running.
  EXPECT_EQ(settle(transactions(60)), transactions(60));
  Children children = children_of(daemon_->pid(), "quorprobe");
  EXPECT_EQ(children.named, std::set<pid_t>(young.begin(), young.end()))
      << "an overdue agent runs on, or a young one was stopped";
  EXPECT_EQ(children.zombies, 0);

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
  start("LOGIN_REQUIRED: 1\nLOGIN_TIMEOUT: 60\n", "PROBE quorprobe\n",
        [](const fs::path& root) { save_users(root, 300, 100); });
  std::vector<std::string> counts = daemon_->status("B");
  ASSERT_GE(counts.size(), 5u);
  EXPECT_EQ(counts[4], "    200 users logged into quor\n") << "idle users were not logged out";

  // Each login program names its user's node: user<i> from node<i>.
  std::map<int, pid_t> program_of;
  Children programs = children_of(daemon_->pid(), "quoruserpgm");
  for (pid_t pid : programs.named) {
    std::vector<std::string> args = arguments(pid);
    if (args.size() >= 3 && args[2].starts_with("node")) program_of[std::stoi(args[2].substr(4))] = pid;
  }
  ASSERT_EQ(program_of.size(), 200u) << "the idle users' login programs were not stopped";
  EXPECT_EQ(program_of.begin()->first, 100);
  EXPECT_EQ(programs.zombies, 0);

  std::vector<std::string> expected;
  for (auto& [user, pid] : std::ranges::reverse_view(program_of)) {
    if (user % 4 == 0)
      kill(pid, SIGKILL);
    else
      expected.push_back("    User user" + std::to_string(user) + " from node node" + std::to_string(user) +
                         " logged in as nobody.\n");
  }
  EXPECT_EQ(settle("    150 users logged into quor\n    0 transactions in progress.\n"),
            "    150 users logged into quor\n    0 transactions in progress.\n");
  EXPECT_EQ(report_lines(*daemon_, "    User "), expected);
  EXPECT_EQ(children_of(daemon_->pid(), "quoruserpgm").zombies, 0);

  ASSERT_EQ(terminate(*daemon_), 0) << daemon_->output();
  std::vector<std::string> saved = saved_users(daemon_->root().path());
  std::vector<std::string> names;
  for (auto& [user, pid] : std::ranges::reverse_view(program_of))
    if (user % 4 != 0) names.push_back("user" + std::to_string(user));
  EXPECT_EQ(saved, names);
}

// A restored user whose login program cannot start (here: it cannot be
// executed) is logged, kept logged in, and saved again at shutdown.
TEST_F(Scale, ARestoredUserWhoseProgramCannotStartIsKept) {
  REQUIRE_ROOT();
  start("LOGIN_REQUIRED: 1\n", "PROBE quorprobe\n", [](const fs::path& root) {
    save_users(root, 20, 0);
    fs::permissions(root / "quor/bin/quoruserpgm", fs::perms::owner_read | fs::perms::owner_write);
  });
  EXPECT_EQ(settle("    20 users logged into quor\n    0 transactions in progress.\n"),
            "    20 users logged into quor\n    0 transactions in progress.\n");
  EXPECT_TRUE(logged("Cannot start a process for nobody (exec")) << daemon_->log();
  EXPECT_EQ(children_of(daemon_->pid(), "quoruserpgm").zombies, 0);
  ASSERT_EQ(terminate(*daemon_), 0) << daemon_->output();
  EXPECT_EQ(saved_users(daemon_->root().path()).size(), 20u);
}

}  // namespace
