// Start-up, shutdown, signals and the refresh request of the real daemon in
// a temporary installation root, through the real transport.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <thread>

#include "daemon_util.h"
#include "forked_server.h"
#include "momsg.h"
#include "quorusers.h"

using testutil::Daemon;
using testutil::eventually;
using testutil::read_file;
using testutil::TempDir;
using testutil::write_file;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;
namespace fs = std::filesystem;

namespace {

fs::path pid_file(const Daemon& d) { return d.root().path() / "tmp/quordaemon.pid"; }

// Runs the daemon binary to its end in `root` (none when empty; debug mode,
// so it does not detach) and returns its exit status.
int run_to_end(const fs::path& root, const fs::path& tev_dir, std::vector<std::string> args) {
  return testutil::exec_child(QUORDAEMON_PATH, args,
                              {root.empty() ? "MOXGLBL0000" : "MOXGLBL0000=" + root.string(),
                               "TEV_DIR=" + tev_dir.string(), "MOXQUORDEBUG=1"})
      ->wait();
}

// Sends REFRESH, with a "ZZZFIL" segment naming `path` when given, and
// returns the reply's "RC" and "RM" values.
std::pair<std::string, std::string> refresh(std::optional<std::string> path) {
  TevClient client;
  TevCallResult r = client.call(kServerName, testutil::sealed_request("R", {}, [&](OutBuf& out) {
                                  if (path) testutil::put_segment(out, "ZZZFIL", {*path});
                                }), 5000);
  if (r.rc != 0 || r.replies.empty()) return {"no reply", ""};
  std::vector<std::string> ret = Daemon::reply_items(r.replies.back().payload, "ZZZRET");
  if (ret.size() != 4) return {"bad reply", ""};
  return {ret[1], ret[3]};
}

#define REQUIRE_ROOT() \
  if (geteuid() != 0) GTEST_SKIP() << "needs root: the daemon detaches only as root"

// Sends TERMINATE (or KILLALL) and returns the daemon's exit status.
int terminate(Daemon& d, std::string_view type = "T") {
  TevClient client;
  client.call(kServerName, Daemon::request(type), 0, false);
  return d.wait_exit();
}

// A second daemon stops with status 1 while the first is alive: with
// message 21 in the same installation (the pid file is left alone), with
// message 20 from another installation that wants the same server name.
TEST(StartUp, ASecondStartWhileTheFirstIsAliveStopsWithMessage21Or20) {
  Daemon d;
  ASSERT_TRUE(d.wait_ready()) << d.output();
  std::string recorded = read_file(pid_file(d));
  EXPECT_EQ(recorded, std::to_string(d.pid()) + "\n");

  EXPECT_EQ(run_to_end(d.root().path(), d.tev_dir(), {}), 1);
  EXPECT_THAT(d.log(), HasSubstr("QUOR0021S"));
  EXPECT_EQ(read_file(pid_file(d)), recorded);

  TempDir other;
  Daemon::install(other.path());
  EXPECT_EQ(run_to_end(other.path(), d.tev_dir(), {}), 1);
  EXPECT_THAT(read_file(other.path() / "quor/log/quordaemon.log"), HasSubstr("QUOR0020S"));
  EXPECT_TRUE(d.alive());
}

TEST(StartUp, APidFileNamingNoLiveProcessDoesNotBlock) {
  for (std::string stale : {"0\n", "not a number\n", "-1\n", "", "999999999\n"}) {
    Daemon d([&](const fs::path& root) { write_file(root / "tmp/quordaemon.pid", stale); }, {});
    ASSERT_TRUE(d.wait_ready()) << "pid file '" << stale << "': " << d.log();
    EXPECT_EQ(read_file(pid_file(d)), std::to_string(d.pid()) + "\n");
  }
  // Nor does one that cannot be opened at all (a socket).
  Daemon d([](const fs::path& root) {
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    (root / "tmp/quordaemon.pid").string().copy(a.sun_path, sizeof a.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    close(fd);
  }, {});
  EXPECT_TRUE(d.wait_ready()) << d.log();
}

TEST(StartUp, CommandLine) {
  TempDir root;
  Daemon::install(root.path());
  // "-c" without its value stops start-up after the pid file was written.
  EXPECT_EQ(run_to_end(root.path(), root.path() / "tev", {"-c"}), 1);
  const fs::path log = root.path() / "quor/log/quordaemon.log";
  EXPECT_THAT(read_file(log), HasSubstr("QUOR0019S"));
  EXPECT_TRUE(fs::exists(root.path() / "tmp/quordaemon.pid"));
  // Without an installation root nothing is started.
  EXPECT_EQ(run_to_end({}, root.path() / "tev", {}), 1);
  // Nor without a place for the pid file.
  fs::remove_all(root.path() / "tmp");
  EXPECT_EQ(run_to_end(root.path(), root.path() / "tev", {}), 1);
  EXPECT_THAT(read_file(log), HasSubstr("QUOR0106E Cannot create or open " + root.str() + "/tmp/quordaemon.pid"));

  // An unknown argument is reported and skipped; the last -c wins.
  Daemon d(
      [](const fs::path& r) { write_file(r / "alt.config", "TRANSACTION_TIMEOUT: 5\n"); },
      {"-x", "-c", "/nonexistent", "-cjoined", "-c", "ALT"});
  // "ALT" is relative to the daemon's working directory; the test names the
  // real path below instead, so here the load fails.
  EXPECT_EQ(d.wait_exit(), 1);
  for (const char* logged : {"QUOR0200T Ignoring unknown command-line argument -x.", "-cjoined",
                             "QUOR0016S Cannot load the configuration ALT"})
    EXPECT_THAT(d.log(), HasSubstr(logged));

  TempDir other;
  std::string alt = (other.path() / "alt.config").string();
  write_file(alt, "TRANSACTION_TIMEOUT: 5\n");
  Daemon good({"-x", "-c", alt});
  ASSERT_TRUE(good.wait_ready()) << good.log();
  std::vector<std::string> status = good.status("B");
  ASSERT_GE(status.size(), 3u);
  EXPECT_EQ(status[2], "    Config path is " + alt + "\n");
}

TEST(StartUp, SpinModeWaitsForADebuggerBeforeServing) {
  Daemon d({}, /*debug=*/true, {{"MOXQUORSPIN", "1"}});
  ASSERT_TRUE(d.wait_ready()) << d.output();
  std::string expected = "quordaemon waiting in spin loop, pid=" + std::to_string(d.pid()) + "\n";
  EXPECT_TRUE(eventually([&] { return d.output().find(expected) != std::string::npos; })) << d.output();
  TevClient client;
  EXPECT_NE(client.call(kServerName, Daemon::request("B"), 300).rc, 0) << "answered while spinning";
}

// Hang-up, interrupt and SIGUSR2 change nothing; SIGTERM and SIGQUIT end a
// waiting daemon at once and in order.
TEST(Signals, HangupAndInterruptChangeNothingTerminationSignalsEndTheDaemonInOrder) {
  REQUIRE_ROOT();
  for (int signo : {SIGTERM, SIGQUIT}) {
    Daemon d({}, /*debug=*/false);
    ASSERT_TRUE(d.wait_ready()) << d.log();
    // Standard error is captured in an unpredictable file under TMPDIR.
    auto captures = [&] {
      int n = 0;
      for (const auto& e : fs::directory_iterator(d.root().path() / "tmp"))
        n += e.path().filename().string().rfind("DMN", 0) == 0;
      return n;
    };
    EXPECT_EQ(captures(), 1);
    for (int ignored : {SIGHUP, SIGINT, SIGUSR2}) ASSERT_EQ(kill(d.pid(), ignored), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_TRUE(d.alive()) << strsignal(signo);
    EXPECT_EQ(d.status("B").size(), 6u);
    EXPECT_THAT(d.log(), Not(HasSubstr("QUOR0008S")));

    auto sent = std::chrono::steady_clock::now();
    ASSERT_EQ(kill(d.pid(), signo), 0);
    EXPECT_EQ(d.wait_exit(), 0) << d.log();
    EXPECT_LT(std::chrono::steady_clock::now() - sent, std::chrono::milliseconds(1800)) << strsignal(signo);
    EXPECT_THAT(d.log(), HasSubstr("QUOR0401I"));
    EXPECT_FALSE(fs::exists(pid_file(d)));
    EXPECT_EQ(captures(), 0) << "capture file left behind";
  }
}

TEST(Signals, AFatalSignalLogsAndExitsWithItsNumberLeavingThePidFile) {
  REQUIRE_ROOT();
  Daemon d({}, /*debug=*/false);
  ASSERT_TRUE(d.wait_ready()) << d.log();
  ASSERT_EQ(kill(d.pid(), SIGSEGV), 0);
  EXPECT_EQ(d.wait_exit(), SIGSEGV) << d.log();
  EXPECT_THAT(d.log(), HasSubstr("QUOR0017S Stopping after fatal signal 11."));
  EXPECT_TRUE(fs::exists(pid_file(d)));
  EXPECT_FALSE(fs::exists(d.server_socket()));
}

TEST(Refresh, ReloadsFromTheNamedOrDefaultFileAndReportsTheResult) {
  Daemon d;
  ASSERT_TRUE(d.wait_ready()) << d.output();
  std::vector<std::string> before = d.status("B");
  ASSERT_EQ(before.size(), 6u);
  EXPECT_EQ(before[2], "    Config path is " + d.root().str() + "/quor/etc/quor.config\n");

  auto [rc, text] = refresh(d.root().str() + "/missing.config");
  EXPECT_EQ(rc, "3");
  EXPECT_THAT(text, HasSubstr("was not reloaded"));
  EXPECT_THAT(d.log(), HasSubstr("QUOR0109E Cannot open the configuration file " + d.root().str() + "/missing.config"));
  EXPECT_EQ(d.status("B")[2], before[2]);
  EXPECT_EQ(refresh("").first, "3");

  std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // a later load time
  std::string alt = d.root().str() + "/alt.config";
  write_file(alt, "TRANSACTION_TIMEOUT: 9\n");
  EXPECT_EQ(refresh(alt), (std::pair<std::string, std::string>{"0", "The configuration was reloaded."}));
  std::vector<std::string> after = d.status("B");
  EXPECT_EQ(after[2], "    Config path is " + alt + "\n");
  EXPECT_NE(after[3], before[3]);

  // Without "ZZZFIL" the default file is read again, not the last one named.
  EXPECT_EQ(refresh(std::nullopt).first, "0");
  EXPECT_EQ(d.status("B")[2], before[2]);
}

TEST(Refresh, AFailureInAnyOfTheThreeFilesKeepsTheRunningConfiguration) {
  Daemon d;
  ASSERT_TRUE(d.wait_ready()) << d.output();
  std::vector<std::string> before = d.status("B");
  fs::path dir = d.root().path();
  write_file(dir / "empty.map", "# nothing\n");
  for (auto [what, config, rc] : {
           std::tuple<const char*, std::string, const char*>{
               "configuration", "LOGIN_REQUIRED: 0\nDEFAULT_LOGIN_NAME: no-such-user-q\n", "3"},
           {"object map", "OBJECT_MAP_FILE: " + (dir / "empty.map").string() + "\n", "3"},
           {"language map", "LANGUAGE_MAP_FILE: " + (dir / "absent.map").string() + "\n", "7"}}) {
    write_file(dir / "next.config", config);
    EXPECT_EQ(refresh((dir / "next.config").string()).first, rc) << what;
    std::vector<std::string> now = d.status("B");
    ASSERT_EQ(now.size(), 6u) << what;
    EXPECT_EQ(now[2], before[2]) << what;
    EXPECT_EQ(now[3], before[3]) << what;
  }
  EXPECT_TRUE(d.alive());
}

// Lets "nobody", the account of the restored users' login programs, reach
// the installation in `root` (a user whose program could not start would be
// swept out), and saves `users` there as the daemon's table.
void save_users(const fs::path& root, std::initializer_list<UserEntry> users) {
  fs::permissions(root, fs::perms::others_exec | fs::perms::group_exec, fs::perm_options::add);
  testutil::EnvGuard env("MOXGLBL0000", root.string());
  for (const UserEntry& u : users) quor_user_new() = u;
  ASSERT_EQ(quor_users_save(), 0);
  quor_users().clear();
}

// The login program of the default login user runs while logins are not
// required and is stopped at shutdown.
TEST(DefaultLogin, RunsUnderTheAccountAndStopsWithTheDaemon) {
  REQUIRE_ROOT();
  const passwd* account = getpwnam("nobody");
  if (account == nullptr) GTEST_SKIP() << "no account 'nobody' on this machine";
  Daemon d(
      [](const fs::path& root) {
        write_file(root / "quor/etc/quor.config", "LOGIN_REQUIRED: 0\n");
        // The account must be able to reach the program.
        fs::permissions(root, fs::perms::others_exec | fs::perms::group_exec, fs::perm_options::add);
      },
      {});
  ASSERT_TRUE(d.wait_ready()) << d.output();
  std::vector<pid_t> running;
  eventually([&] { return !(running = testutil::processes(d.pid(), "quoruserpgm")).empty(); });
  ASSERT_EQ(running.size(), 1u) << d.output();
  std::string status = read_file("/proc/" + std::to_string(running[0]) + "/status");
  EXPECT_THAT(status, HasSubstr("Uid:\t" + std::to_string(account->pw_uid) + "\t"));
  EXPECT_THAT(status, HasSubstr("Gid:\t" + std::to_string(account->pw_gid) + "\t"));
  EXPECT_EQ(terminate(d, "K"), 0) << d.output();
  EXPECT_TRUE(testutil::processes(d.pid(), "quoruserpgm").empty());
  EXPECT_THAT(d.output(), HasSubstr("\nquordaemon:  message type KILLALL\n"));
  EXPECT_FALSE(fs::exists(d.server_socket()));
  EXPECT_FALSE(fs::exists(pid_file(d)));
}

TEST(LoginProgram, HoldsTheSessionUntilSigtermAndRefusesUnknownAccounts) {
  const passwd* me = getpwuid(getuid());
  ASSERT_NE(me, nullptr);
  std::string name = me->pw_name;
  auto start = [](std::vector<std::string> args) { return testutil::exec_child(QUORUSERPGM_PATH, args); };
  auto held = start({name, "pc7", "0"});
  // Ready once it blocks SIGTERM to wait for it.
  auto blocks_sigterm = [](pid_t pid) {
    std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    std::size_t at = status.find("SigBlk:\t");
    return at != std::string::npos && (std::stoull(status.substr(at + 8, 16), nullptr, 16) & (1ULL << (SIGTERM - 1)));
  };
  testutil::eventually([&] { return blocks_sigterm(held->pid()); }, std::chrono::seconds(5));
  EXPECT_EQ(waitpid(held->pid(), nullptr, WNOHANG), 0) << "ended without being told";
  kill(held->pid(), SIGTERM);
  EXPECT_EQ(held->wait(), 0);

  EXPECT_EQ(start({"no-such-user-q", "pc7", "0"})->wait(), 1);
  EXPECT_EQ(start({name})->wait(), 1);
  // Started as root for another account, it holds nothing.
  if (getuid() == 0 && getpwnam("nobody") != nullptr) {
    EXPECT_EQ(start({"nobody", "pc7", "0"})->wait(), 1);
  }
}

TEST(SavedUsers, SurviveARestartAndOnlyRemoteRequestsCountAsActivity) {
  REQUIRE_ROOT();  // the restored users' login programs run as "nobody"
  std::time_t before = std::time(nullptr) - 100;
  std::string local = mo_nodename();
  Daemon d(
      [&](const fs::path& root) {
        write_file(root / "quor/etc/quor.config", "LOGIN_TIMEOUT: 60\n");
        save_users(root, {{"ann", "far", "nobody", "65534", before, 0, {}}, {"bob", local, "nobody", "65534", before, 0, {}}});
      },
      {});
  ASSERT_TRUE(d.wait_ready()) << d.output();
  std::vector<std::string> full = d.status("F");
  ASSERT_GE(full.size(), 8u);
  EXPECT_EQ(full[4], "    2 users logged into quor\n") << d.output();
  EXPECT_THAT(full, Contains("    User ann from node far logged in as nobody.\n"));

  {
    TevClient client;  // one client per process at a time
    for (auto [user, node] : {std::pair{"ann", "far"}, {"bob", local.c_str()}}) {
      // A status request that claims to come from `user` on `node`.
      auto request = testutil::sealed_request("B", [&](TransactionHeader& h) {
        h.user = user;
        h.node = node;
      });
      ASSERT_EQ(client.call(kServerName, request, 5000).rc, 0);
    }
  }
  ASSERT_EQ(terminate(d), 0) << d.output();

  // The saved records, read back without starting anything: ann's activity
  // is fresh, bob's unchanged.
  std::map<std::string, std::time_t> activity;
  ASSERT_EQ(quor_records_read(d.root().str() + "/tmp/quor.sav", 5,
                              [&](const std::vector<std::string>& r) { activity[r[0]] = std::atol(r[4].c_str()); }),
            0);
  ASSERT_EQ(activity.size(), 2u);
  EXPECT_GE(activity["ann"], before + 100);
  EXPECT_EQ(activity["bob"], before);
}

}  // namespace
