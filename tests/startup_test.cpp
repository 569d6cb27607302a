// Start-up, shutdown, signals and the refresh request of the real daemon in
// a temporary installation root, through the real transport.
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "daemon_util.h"
#include "forked_server.h"
#include "momsg.h"
#include "quorusers.h"

using testutil::Daemon;
using testutil::read_file;
using testutil::TempDir;
namespace fs = std::filesystem;

namespace {

void write(const fs::path& p, const std::string& text) { std::ofstream(p, std::ios::binary) << text; }

fs::path pid_file(const Daemon& d) { return d.root().path() / "tmp/quordaemon.pid"; }

// Runs the daemon binary to its end in `root` (debug mode, so it does not
// detach) and returns its exit status.
int run_to_end(const fs::path& root, const fs::path& tev_dir, std::vector<std::string> args,
               bool with_root = true) {
  testutil::Child child([&] {
    if (with_root)
      setenv("MOXGLBL0000", root.c_str(), 1);
    else
      unsetenv("MOXGLBL0000");
    setenv("TEV_DIR", tev_dir.c_str(), 1);
    setenv("MOXQUORDEBUG", "1", 1);
    int devnull = open("/dev/null", O_WRONLY);
    dup2(devnull, 1);
    std::vector<char*> argv = {const_cast<char*>(QUORDAEMON_PATH)};
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(QUORDAEMON_PATH, argv.data());
    return 127;
  });
  return child.wait();
}

// Sends REFRESH, with a "ZZZFIL" segment naming `path` when given, and
// returns the reply's "RC" and "RM" values.
std::pair<std::string, std::string> refresh(std::optional<std::string> path) {
  std::array<char, BUFFER_MAX> buf{};
  OutBuf out(buf);
  tran_header_put("R", "N", out);
  if (path) {
    std::size_t field = buf_begin_segment(out, "ZZZFIL");
    buf_add_item(out, *path);
    buf_end_segment(out, field);
  }
  quor_trl_put("N", out);
  std::size_t length = out.pos;
  quor_wire_seal(buf, length);
  TevClient client;
  TevCallResult r = client.call(kServerName, std::vector<std::uint8_t>(buf.begin(), buf.begin() + static_cast<long>(length)), 5000);
  if (r.rc != 0 || r.replies.empty()) return {"no reply", ""};
  std::vector<std::string> ret = Daemon::reply_items(r.replies.back().payload, "ZZZRET");
  if (ret.size() != 4) return {"bad reply", ""};
  return {ret[1], ret[3]};
}

bool skip_unless_root() { return geteuid() != 0; }
#define REQUIRE_ROOT()                                                                   \
  if (skip_unless_root()) GTEST_SKIP() << "needs root: the daemon detaches only as root"

TEST(StartUp, ASecondStartWhileTheFirstIsAliveStopsWithMessage21) {
  Daemon d;
  ASSERT_TRUE(d.wait_ready()) << d.output();
  std::string recorded = read_file(pid_file(d));
  EXPECT_EQ(recorded, std::to_string(d.pid()) + "\n");

  EXPECT_EQ(run_to_end(d.root().path(), d.tev_dir(), {}), 1);
  EXPECT_NE(d.log().find("QUOR0021S"), std::string::npos) << d.log();
  EXPECT_EQ(read_file(pid_file(d)), recorded);
  EXPECT_TRUE(d.alive());
}

TEST(StartUp, APidFileNamingNoLiveProcessDoesNotBlock) {
  for (std::string stale : {"0\n", "not a number\n", "-1\n", "", "999999999\n"}) {
    Daemon d([&](const fs::path& root) { write(root / "tmp/quordaemon.pid", stale); }, {});
    ASSERT_TRUE(d.wait_ready()) << "pid file '" << stale << "': " << d.log();
    EXPECT_EQ(read_file(pid_file(d)), std::to_string(d.pid()) + "\n");
  }
}

TEST(StartUp, CommandLine) {
  TempDir root;
  Daemon::install(root.path());
  // "-c" without its value stops start-up after the pid file was written.
  EXPECT_EQ(run_to_end(root.path(), root.path() / "tev", {"-c"}), 1);
  std::string log = read_file(root.path() / "quor/log/quordaemon.log");
  EXPECT_NE(log.find("QUOR0019S"), std::string::npos) << log;
  EXPECT_TRUE(fs::exists(root.path() / "tmp/quordaemon.pid"));
  // Without an installation root nothing is started.
  EXPECT_EQ(run_to_end(root.path(), root.path() / "tev", {}, /*with_root=*/false), 1);
  // Nor without a place for the pid file.
  fs::remove_all(root.path() / "tmp");
  EXPECT_EQ(run_to_end(root.path(), root.path() / "tev", {}), 1);
  log = read_file(root.path() / "quor/log/quordaemon.log");
  EXPECT_NE(log.find("QUOR0106E Cannot create or open " + root.str() + "/tmp/quordaemon.pid"), std::string::npos)
      << log;

  // An unknown argument is reported and skipped; the last -c wins.
  Daemon d(
      [](const fs::path& r) { write(r / "alt.config", "TRANSACTION_TIMEOUT: 5\n"); },
      {"-x", "-c", "/nonexistent", "-cjoined", "-c", "ALT"});
  // "ALT" is relative to the daemon's working directory; the test names the
  // real path below instead, so here the load fails.
  EXPECT_EQ(d.wait_exit(), 1);
  EXPECT_NE(d.log().find("QUOR0200T Ignoring unknown command-line argument -x."), std::string::npos) << d.log();
  EXPECT_NE(d.log().find("-cjoined"), std::string::npos);
  EXPECT_NE(d.log().find("QUOR0016S Cannot load the configuration ALT"), std::string::npos) << d.log();

  TempDir other;
  std::string alt = (other.path() / "alt.config").string();
  write(alt, "TRANSACTION_TIMEOUT: 5\n");
  Daemon good({"-x", "-c", alt});
  ASSERT_TRUE(good.wait_ready()) << good.log();
  std::vector<std::string> status = good.status("B");
  ASSERT_GE(status.size(), 3u);
  EXPECT_EQ(status[2], "    Config path is " + alt + "\n");
}

TEST(StartUp, AConfigurationThatCannotBeLoadedStopsStartUp) {
  Daemon d([](const fs::path& root) { write(root / "quor/etc/quorobj.map", "# empty\n"); }, {});
  EXPECT_EQ(d.wait_exit(), 1);
  EXPECT_NE(d.log().find("QUOR0114E"), std::string::npos) << d.log();
  EXPECT_NE(d.log().find("QUOR0016S"), std::string::npos) << d.log();
  EXPECT_FALSE(fs::exists(d.tev_dir() / std::string(kServerName)));
}

TEST(StartUp, SpinModeWaitsForADebuggerBeforeServing) {
  Daemon d({}, /*debug=*/true, {{"MOXQUORSPIN", "1"}});
  ASSERT_TRUE(d.wait_ready()) << d.output();
  std::string expected = "quordaemon waiting in spin loop, pid=" + std::to_string(d.pid()) + "\n";
  for (int i = 0; i < 100 && d.output().find(expected) == std::string::npos; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_NE(d.output().find(expected), std::string::npos) << d.output();
  TevClient client;
  EXPECT_NE(client.call(kServerName, Daemon::request("B"), 300).rc, 0) << "answered while spinning";
}

TEST(Shutdown, TerminateExitsZeroAndRemovesThePidFile) {
  Daemon d;
  ASSERT_TRUE(d.wait_ready()) << d.output();
  ASSERT_TRUE(fs::exists(pid_file(d)));
  TevClient client;
  client.call(kServerName, Daemon::request("T"), 0, false);
  EXPECT_EQ(d.wait_exit(), 0) << d.output();
  EXPECT_FALSE(fs::exists(pid_file(d)));
  EXPECT_NE(d.log().find("QUOR0401I"), std::string::npos);
}

TEST(Signals, TerminationSignalsEndAWaitingDaemonInOrder) {
  REQUIRE_ROOT();
  for (int signo : {SIGTERM, SIGQUIT}) {
    Daemon d({}, /*debug=*/false);
    ASSERT_TRUE(d.wait_ready()) << d.log();
    // Standard error is captured in an unpredictable file under TMPDIR.
    int captures = 0;
    for (const auto& e : fs::directory_iterator(d.root().path() / "tmp"))
      captures += e.path().filename().string().rfind("DMN", 0) == 0;
    EXPECT_EQ(captures, 1);

    auto sent = std::chrono::steady_clock::now();
    ASSERT_EQ(kill(d.pid(), signo), 0);
    while (d.log().find("QUOR0401I") == std::string::npos &&
           std::chrono::steady_clock::now() - sent < std::chrono::seconds(5))
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    auto took = std::chrono::steady_clock::now() - sent;
    EXPECT_LT(took, std::chrono::milliseconds(1800)) << strsignal(signo);
    EXPECT_EQ(d.wait_exit(), 0) << d.log();
    EXPECT_FALSE(fs::exists(pid_file(d)));
    for (const auto& e : fs::directory_iterator(d.root().path() / "tmp"))
      EXPECT_NE(e.path().filename().string().rfind("DMN", 0), 0u) << "capture file left behind";
  }
}

TEST(Signals, HangupAndInterruptChangeNothing) {
  REQUIRE_ROOT();
  Daemon d({}, /*debug=*/false);
  ASSERT_TRUE(d.wait_ready()) << d.log();
  for (int signo : {SIGHUP, SIGINT, SIGUSR2}) ASSERT_EQ(kill(d.pid(), signo), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_TRUE(d.alive());
  EXPECT_EQ(d.status("B").size(), 6u);
  EXPECT_EQ(d.log().find("QUOR0008S"), std::string::npos) << d.log();
}

TEST(Signals, AFatalSignalLogsAndExitsWithItsNumberLeavingThePidFile) {
  REQUIRE_ROOT();
  Daemon d({}, /*debug=*/false);
  ASSERT_TRUE(d.wait_ready()) << d.log();
  ASSERT_EQ(kill(d.pid(), SIGSEGV), 0);
  EXPECT_EQ(d.wait_exit(), SIGSEGV) << d.log();
  EXPECT_NE(d.log().find("QUOR0017S Stopping after fatal signal 11."), std::string::npos) << d.log();
  EXPECT_TRUE(fs::exists(pid_file(d)));
  EXPECT_FALSE(fs::exists(d.tev_dir() / std::string(kServerName)));
}

TEST(Refresh, ReloadsFromTheNamedOrDefaultFileAndReportsTheResult) {
  Daemon d;
  ASSERT_TRUE(d.wait_ready()) << d.output();
  std::string default_path = d.root().str() + "/quor/etc/quor.config";
  std::vector<std::string> before = d.status("B");
  ASSERT_EQ(before.size(), 6u);
  EXPECT_EQ(before[2], "    Config path is " + default_path + "\n");

  auto [rc, text] = refresh(d.root().str() + "/missing.config");
  EXPECT_EQ(rc, "3");
  EXPECT_NE(text.find("was not reloaded"), std::string::npos) << text;
  EXPECT_NE(d.log().find("QUOR0109E Cannot open the configuration file " + d.root().str() + "/missing.config"),
            std::string::npos);
  EXPECT_EQ(d.status("B")[2], before[2]);
  EXPECT_EQ(refresh("").first, "3");

  std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // a later load time
  std::string alt = d.root().str() + "/alt.config";
  write(alt, "TRANSACTION_TIMEOUT: 9\n");
  auto good = refresh(alt);
  EXPECT_EQ(good.first, "0");
  EXPECT_EQ(good.second, "The configuration was reloaded.");
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
  struct Case {
    const char* what;
    std::string config;
    std::string objmap;
    std::string rc;
  };
  const Case cases[] = {
      {"configuration", "LOGIN_REQUIRED: 0\nDEFAULT_LOGIN_NAME: no-such-user-q\n", "LIST lister\n", "3"},
      {"object map", "OBJECT_MAP_FILE: " + (dir / "empty.map").string() + "\n", "", "3"},
      {"language map", "LANGUAGE_MAP_FILE: " + (dir / "absent.map").string() + "\n", "", "7"},
  };
  write(dir / "empty.map", "# nothing\n");
  for (const Case& c : cases) {
    write(dir / "next.config", c.config);
    EXPECT_EQ(refresh((dir / "next.config").string()).first, c.rc) << c.what;
    std::vector<std::string> now = d.status("B");
    ASSERT_EQ(now.size(), 6u) << c.what;
    EXPECT_EQ(now[2], before[2]) << c.what;
    EXPECT_EQ(now[3], before[3]) << c.what;
  }
  EXPECT_TRUE(d.alive());
}

// The processes named `name` whose parent is `parent`: the running ones, or
// with `zombies` the ended ones that nobody has reaped yet.
std::vector<pid_t> children_of(pid_t parent, std::string_view name, bool zombies = false) {
  std::vector<pid_t> found;
  for (const auto& e : fs::directory_iterator("/proc")) {
    std::string stat = read_file(e.path() / "stat");
    std::size_t paren = stat.rfind(')');
    if (stat.find("(" + std::string(name) + ")") == std::string::npos || paren == std::string::npos) continue;
    int ppid = 0;
    char state = 0;
    if (std::sscanf(stat.c_str() + paren + 2, "%c %d", &state, &ppid) == 2 && ppid == parent &&
        (state == 'Z') == zombies)
      found.push_back(static_cast<pid_t>(std::stol(e.path().filename().string())));
  }
  return found;
}

// The login program of the default login user runs while logins are not
// required and is stopped at shutdown.
TEST(DefaultLogin, RunsUnderTheAccountAndStopsWithTheDaemon) {
  REQUIRE_ROOT();
  const passwd* account = getpwnam("nobody");
  if (account == nullptr) GTEST_SKIP() << "no account 'nobody' on this machine";
  Daemon d(
      [](const fs::path& root) {
        write(root / "quor/etc/quor.config", "LOGIN_REQUIRED: 0\n");
        // The account must be able to reach the program.
        fs::permissions(root, fs::perms::others_exec | fs::perms::group_exec, fs::perm_options::add);
      },
      {});
  ASSERT_TRUE(d.wait_ready()) << d.output();

  auto login_programs = [&] { return children_of(d.pid(), "quoruserpgm"); };
  std::vector<pid_t> running;
  for (int i = 0; i < 100 && running.empty(); ++i) {
    running = login_programs();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ASSERT_EQ(running.size(), 1u) << d.output();
  std::string status = read_file("/proc/" + std::to_string(running[0]) + "/status");
  EXPECT_NE(status.find("Uid:\t" + std::to_string(account->pw_uid) + "\t"), std::string::npos) << status;
  EXPECT_NE(status.find("Gid:\t" + std::to_string(account->pw_gid) + "\t"), std::string::npos) << status;

  TevClient client;
  client.call(kServerName, Daemon::request("T"), 0, false);
  EXPECT_EQ(d.wait_exit(), 0) << d.output();
  EXPECT_TRUE(login_programs().empty());
}

TEST(LoginProgram, HoldsTheSessionUntilSigtermAndRefusesUnknownAccounts) {
  const passwd* me = getpwuid(getuid());
  ASSERT_NE(me, nullptr);
  std::string name = me->pw_name;
  auto start = [](std::vector<std::string> args) {
    return std::make_unique<testutil::Child>([args]() mutable {
      std::vector<char*> argv = {const_cast<char*>("quoruserpgm")};
      for (auto& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      execv(QUORUSERPGM_PATH, argv.data());
      return 127;
    });
  };
  auto held = start({name, "pc7", "0"});
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(waitpid(held->pid(), nullptr, WNOHANG), 0) << "ended without being told";
  kill(held->pid(), SIGTERM);
  EXPECT_EQ(held->wait(), 0);

  EXPECT_EQ(start({"no-such-user-q", "pc7", "0"})->wait(), 1);
  EXPECT_EQ(start({name})->wait(), 1);
  if (getuid() != 0) return;
  // Started as root for another account, it holds nothing.
  if (getpwnam("nobody") != nullptr) {
    EXPECT_EQ(start({"nobody", "pc7", "0"})->wait(), 1);
  }
}

}  // namespace

namespace {

// A sealed BRIEFSTATUS request that claims to come from `user` on `node`.
std::vector<std::uint8_t> status_request_from(const std::string& user, const std::string& node) {
  return testutil::sealed_request("B", [&](TransactionHeader& h) {
    h.user = user;
    h.node = node;
  });
}

TEST(SavedUsers, SurviveARestartAndOnlyRemoteRequestsCountAsActivity) {
  REQUIRE_ROOT();  // the restored users' login programs run as "nobody"
  std::time_t before = std::time(nullptr) - 100;
  std::string local = mo_nodename();
  Daemon d(
      [&](const fs::path& root) {
        write(root / "quor/etc/quor.config", "LOGIN_TIMEOUT: 60\n");
        // Each restored user gets a login program, which the account must be
        // able to reach; a user whose program ended would be swept out.
        fs::permissions(root, fs::perms::others_exec | fs::perms::group_exec, fs::perm_options::add);
        testutil::EnvGuard env("MOXGLBL0000", root.string());
        for (auto [user, node] : {std::pair{"ann", "far"}, {"bob", local.c_str()}}) {
          UserEntry& e = quor_user_new();
          e = UserEntry{user, node, "nobody", "65534", before, 0};
        }
        ASSERT_EQ(quor_users_save(), 0);
        quor_users().clear();
      },
      {});
  ASSERT_TRUE(d.wait_ready()) << d.output();
  std::vector<std::string> full = d.status("F");
  ASSERT_GE(full.size(), 8u);
  EXPECT_EQ(full[4], "    2 users logged into quor\n") << d.output();
  EXPECT_NE(std::find(full.begin(), full.end(), "    User ann from node far logged in as nobody.\n"), full.end());

  TevClient client;
  for (auto [user, node] : {std::pair{"ann", "far"}, {"bob", local.c_str()}})
    ASSERT_EQ(client.call(kServerName, status_request_from(user, node), 5000).rc, 0);
  client.call(kServerName, Daemon::request("T"), 0, false);
  ASSERT_EQ(d.wait_exit(), 0) << d.output();

  // The saved table, read back: ann's activity is fresh, bob's unchanged.
  testutil::EnvGuard env("MOXGLBL0000", d.root().str());
  ASSERT_EQ(quor_users_load(), 0);
  std::map<std::string, std::time_t> activity;
  for (const UserEntry& e : quor_users()) activity[e.user_name] = e.last_activity;
  quor_users_stop_all();  // loading started a login program for each
  quor_users().clear();
  while (waitpid(-1, nullptr, WNOHANG) > 0) {
  }
  ASSERT_EQ(activity.size(), 2u);
  EXPECT_GE(activity["ann"], before + 100);
  EXPECT_EQ(activity["bob"], before);
}

}  // namespace

namespace {

// CLEANUP is answered with nothing and does the sweep at once: a restored
// user whose login program ended is logged out and the program reaped
// before any other request comes.
TEST(Cleanup, ReapsAnEndedLoginProgramAndLogsItsUserOut) {
  REQUIRE_ROOT();  // the login program runs as "nobody"
  Daemon d(
      [](const fs::path& root) {
        fs::permissions(root, fs::perms::others_exec | fs::perms::group_exec, fs::perm_options::add);
        testutil::EnvGuard env("MOXGLBL0000", root.string());
        quor_user_new() = UserEntry{"ann", "far", "nobody", "65534", std::time(nullptr), 0};
        ASSERT_EQ(quor_users_save(), 0);
        quor_users().clear();
      },
      {});
  ASSERT_TRUE(d.wait_ready()) << d.output();
  std::vector<pid_t> programs;
  for (int i = 0; i < 100 && programs.empty(); ++i) {
    programs = children_of(d.pid(), "quoruserpgm");
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ASSERT_EQ(programs.size(), 1u) << d.output();
  kill(programs[0], SIGKILL);
  for (int i = 0; i < 100 && children_of(d.pid(), "quoruserpgm", true).empty(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_EQ(children_of(d.pid(), "quoruserpgm", true), programs) << "the killed program is not a zombie";

  {
    TevClient client;  // one client per process at a time
    TevCallResult r = client.call(kServerName, Daemon::request("C"), 300);
    EXPECT_TRUE(r.replies.empty()) << "CLEANUP was answered";
  }
  for (int i = 0; i < 100 && !children_of(d.pid(), "quoruserpgm", true).empty(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_TRUE(children_of(d.pid(), "quoruserpgm", true).empty()) << "CLEANUP left the zombie";
  std::vector<std::string> brief = d.status("B");
  ASSERT_GE(brief.size(), 5u) << d.output();
  EXPECT_EQ(brief[4], "    0 users logged into quor\n");
  EXPECT_NE(d.output().find("message type CLEANUP"), std::string::npos) << d.output();
  TevClient client;
  client.call(kServerName, Daemon::request("T"), 0, false);
  EXPECT_EQ(d.wait_exit(), 0) << d.output();
}

}  // namespace
