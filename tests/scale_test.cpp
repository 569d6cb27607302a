// The sweep with hundreds of users and agents, through the real daemon:
// which agents end up dropped or stopped, which users are logged out, the
// order of the lists that remain, and that no ended child stays a zombie.
// A restored user whose login program cannot start is kept and saved.
#include <gtest/gtest.h>
#include <signal.h>

#include <ctime>
#include <ranges>

#include "agent_fixture.h"
#include "quorusers.h"

namespace {

using testutil::Daemon;
namespace fs = std::filesystem;

// The running children of `parent` whose command is `name` (pid and
// argument vector), and how many of all its children are zombies.
struct Children {
  std::map<pid_t, std::vector<std::string>> named;
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
    found.zombies += state == 'Z';
    if (state == 'Z' || stat.find("(" + std::string(name) + ")") == std::string::npos) continue;
    std::vector<std::string>& args = found.named[static_cast<pid_t>(std::stol(e.path().filename().string()))];
    std::istringstream cmdline(testutil::read_file(e.path() / "cmdline"));
    for (std::string arg; std::getline(cmdline, arg, '\0');) args.push_back(arg);
  }
  return found;
}

// The lines of a full status report that start with `prefix`, in order.
std::vector<std::string> report_lines(const Daemon& d, std::string_view prefix) {
  std::vector<std::string> lines;
  for (const std::string& item : d.status("F"))
    if (item.starts_with(prefix)) lines.push_back(item);
  return lines;
}

// Saves `count` users logged in as "nobody", user<i> from node<i>, listed
// in that order in the file; those below `idle` last active two hours ago.
void save_users(const fs::path& root, int count, int idle) {
  fs::permissions(root, fs::perms::others_exec | fs::perms::group_exec, fs::perm_options::add);
  testutil::EnvGuard env("MOXGLBL0000", root.string());
  for (int i = count - 1; i >= 0; --i)
    quor_user_new() = UserEntry{"user" + std::to_string(i), "node" + std::to_string(i), "nobody", "65534",
                                std::time(nullptr) - (i < idle ? 7200 : 0), 0, {}};
  ASSERT_EQ(quor_users_save(), 0);
  quor_users().clear();
}

// Stops the daemon in order; the user names its save file then holds.
std::vector<std::string> terminate_and_read_save(Daemon& d) {
  TevClient client;
  client.call(kServerName, Daemon::request("T"), 0, false);
  EXPECT_EQ(d.wait_exit(), 0) << d.output();
  testutil::EnvGuard env("MOXGLBL0000", d.root().str());
  std::vector<std::string> names;
  quor_records_read(quor_users_path(), 5, [&](const std::vector<std::string>& s) { names.push_back(s[0]); });
  return names;
}

std::string counts_of(int users, int transactions) {
  return "    " + std::to_string(users) + " users logged into quor\n    " + std::to_string(transactions) +
         " transactions in progress.\n";
}

class Scale : public testutil::AgentDaemonTest {
 protected:
  // Asks for an agent that sleeps until stopped.
  void start_agent() {
    CtlBuild spec;
    spec.object = "PROBE";
    spec.command = "SLEEP600";
    send(spec, false);
  }
  std::set<pid_t> agents() {
    std::set<pid_t> pids;
    for (auto& [pid, args] : children_of(daemon_->pid(), "quorprobe").named) pids.insert(pid);
    return pids;
  }
  // Waits until the status counts read `want`; the counts last read.
  std::string settle(const std::string& want) {
    for (int i = 0; i < 250 && counts() != want; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return counts();
  }
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
  std::set<pid_t> old = agents();
  for (pid_t pid : old | std::views::take(60)) kill(pid, SIGKILL);  // the daemon's running children
  EXPECT_EQ(settle(counts_of(0, 100)), counts_of(0, 100)) << "killed agents were not dropped";
  if (std::chrono::steady_clock::now() - started >= std::chrono::seconds(kTimeout))
    GTEST_SKIP() << "the agents took longer than the time-out to start: which are overdue cannot be told";

  std::this_thread::sleep_until(started + std::chrono::seconds(kTimeout + 2));  // the rest is now overdue
  std::vector<pid_t> young;  // in the order they started
  for (int i = 0; i < 40; ++i) {
    std::set<pid_t> before = agents();
    start_agent();
    for (int wait = 0; wait < 250 && young.size() <= static_cast<std::size_t>(i); ++wait) {
      for (pid_t pid : agents())
        if (!before.contains(pid)) young.push_back(pid);
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (young.size() <= static_cast<std::size_t>(i)) break;
  }
  ASSERT_EQ(young.size(), 40u) << "agents that did not start; the status: " << counts();
  // The sweep of each request stops the overdue agents; once they have
  // ended, only the young ones are left, still running.
  EXPECT_EQ(settle(counts_of(0, 40)), counts_of(0, 40));
  Children children = children_of(daemon_->pid(), "quorprobe");
  EXPECT_EQ(agents(), std::set<pid_t>(young.begin(), young.end())) << "an overdue agent ran on, or a young one stopped";
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
  EXPECT_EQ(counts(), counts_of(200, 0)) << "idle users were not logged out";

  // Each login program names its user's node: user<i> from node<i>.
  Children programs = children_of(daemon_->pid(), "quoruserpgm");
  std::map<int, pid_t> program_of;
  for (auto& [pid, args] : programs.named)
    if (args.size() >= 3 && args[2].starts_with("node")) program_of[std::stoi(args[2].substr(4))] = pid;
  ASSERT_EQ(program_of.size(), 200u) << "the idle users' login programs were not stopped\n" << daemon_->log();
  EXPECT_EQ(program_of.begin()->first, 100);
  EXPECT_EQ(programs.zombies, 0);

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
  EXPECT_EQ(children_of(daemon_->pid(), "quoruserpgm").zombies, 0);
  EXPECT_EQ(terminate_and_read_save(*daemon_), saved);
}

// A restored user whose login program cannot start (here: it cannot be
// executed) is logged, kept logged in, and saved again at shutdown.
TEST_F(Scale, ARestoredUserWhoseProgramCannotStartIsKept) {
  REQUIRE_ROOT();
  start("LOGIN_REQUIRED: 1\n", "PROBE quorprobe\n", [](const fs::path& root) {
    save_users(root, 20, 0);
    fs::permissions(root / "quor/bin/quoruserpgm", fs::perms::owner_read | fs::perms::owner_write);
  });
  EXPECT_EQ(settle(counts_of(20, 0)), counts_of(20, 0));
  EXPECT_NE(daemon_->log().find("Cannot start a process for nobody (exec"), std::string::npos) << daemon_->log();
  EXPECT_EQ(children_of(daemon_->pid(), "quoruserpgm").zombies, 0);
  EXPECT_EQ(terminate_and_read_save(*daemon_).size(), 20u);
}

}  // namespace
