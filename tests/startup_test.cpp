// Start-up, shutdown, signals and the refresh request of the real daemon in
// a temporary installation root, through the real transport.
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "agent_fixture.h"
#include "ctl_commands.h"
#include "momsg.h"
#include "quorusers.h"

using namespace testutil;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

fs::path pid_file(const Daemon& d) { return d.root().path() / "tmp/quordaemon.pid"; }

// Runs the daemon binary to its end in `root` (none when empty; debug mode,
// so it does not detach) and returns its exit status.
int run_to_end(const fs::path& root, const fs::path& tev_dir, std::vector<std::string> args) {
  return exec_child(QUORDAEMON_PATH, args,
                    {root.empty() ? "MOXGLBL0000" : "MOXGLBL0000=" + root.string(), "TEV_DIR=" + tev_dir.string(),
                     "MOXQUORDEBUG=1"})
      ->wait();
}

// Start-up stops without an installation root, without a place for the pid
// file, or (the pid file written) at "-c" without its value. A pid file
// naming no live process does not block it, nor one that cannot be opened
// at all (a socket). An unknown argument is reported and skipped; the last
// -c wins; a spinning daemon waits for a debugger before serving.
TEST(StartUp, CommandLine) {
  TempDir root;
  Daemon::install(root.path());
  const fs::path log = root.path() / "quor/log/quordaemon.log", pid = root.path() / "tmp/quordaemon.pid";
  for (std::string stale : {"0\n", "-1\n", "", "999999999\n", "socket"}) {
    write_file(pid, stale);
    if (stale == "socket") {
      fs::remove(pid);
      int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
      sockaddr_un a{};
      a.sun_family = AF_UNIX;
      pid.string().copy(a.sun_path, sizeof a.sun_path - 1);
      ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
      close(fd);
    }
    fs::remove(log);
    EXPECT_EQ(run_to_end(root.path(), root.path() / "tev", {"-c"}), 1) << stale;
    EXPECT_THAT(read_file(log), HasSubstr("QUOR0019S")) << stale;
    EXPECT_THAT(read_file(pid), MatchesRegex("[1-9][0-9]*\n")) << stale;
  }
  // "ALT" is relative to the daemon's working directory, so its load fails.
  EXPECT_EQ(run_to_end(root.path(), root.path() / "tev", {"-x", "-c", "/nonexistent", "-cjoined", "-c", "ALT"}), 1);
  for (const char* logged : {"QUOR0200T Ignoring unknown command-line argument -x.", "-cjoined",
                             "QUOR0016S Cannot load the configuration ALT"})
    EXPECT_THAT(read_file(log), HasSubstr(logged));
  EXPECT_EQ(run_to_end({}, root.path() / "tev", {}), 1);
  fs::remove_all(root.path() / "tmp");
  EXPECT_EQ(run_to_end(root.path(), root.path() / "tev", {}), 1);
  EXPECT_THAT(read_file(log), HasSubstr("QUOR0106E Cannot create or open " + pid.string()));

  std::string alt = (root.path() / "alt.config").string();
  write_file(alt, "TRANSACTION_TIMEOUT: 5\n");
  Daemon spinning({"-x", "-c", alt}, /*debug=*/true, {{"MOXQUORSPIN", "1"}});
  ASSERT_TRUE(spinning.wait_ready()) << spinning.log();
  std::string expected = "quordaemon waiting in spin loop, pid=" + std::to_string(spinning.pid()) + "\n";
  EXPECT_TRUE(eventually([&] { return spinning.output().find(expected) != std::string::npos; })) << spinning.output();
  EXPECT_NE(TevClient().call(kServerName, Daemon::request("B"), 300).rc, 0) << "answered while spinning";
}

// Hang-up, interrupt and SIGUSR2 change nothing; SIGTERM and SIGQUIT end the
// daemon at once and in order, saving its users; a fatal signal ends it with
// its number, logged, leaving the pid file and the standard error capture.
// Restored users are kept even when their login program cannot start (here:
// it cannot be executed); only a request from another node counts as their
// activity.
TEST(Signals, OnlyTerminationAndFatalSignalsEndTheDaemon) {
  REQUIRE_ROOT();
  std::time_t before = std::time(nullptr) - 100;
  std::string local = mo_nodename();
  // The signal, the exit status, the message logged, and whether the pid file and capture are left.
  for (auto [signo, exit_status, logged, files_left] :
       {std::tuple{SIGTERM, 0, "QUOR0401I", false}, std::tuple{SIGQUIT, 0, "QUOR0401I", false},
        std::tuple{SIGSEGV, SIGSEGV, "QUOR0017S Stopping after fatal signal 11.", true}}) {
    SCOPED_TRACE(strsignal(signo));
    Daemon d([&](const fs::path& root) {
      write_file(root / "quor/etc/quor.config", "LOGIN_TIMEOUT: 60\n");
      EnvGuard env("MOXGLBL0000", root.string());
      quor_user_new() = UserEntry{"ann", "far", "nobody", "65534", before, 0, {}};
      quor_user_new() = UserEntry{"bob", local, "nobody", "65534", before, 0, {}};
      ASSERT_EQ(quor_users_save(), 0);
      quor_users().clear();
      fs::permissions(root / "quor/bin/quoruserpgm", fs::perms::owner_read | fs::perms::owner_write);
    }, {}, /*debug=*/false);
    ASSERT_TRUE(d.wait_ready()) << d.log();
    // Standard error is captured in an unpredictable file under TMPDIR.
    auto captures = [&] {
      return std::ranges::count_if(fs::directory_iterator(d.root().path() / "tmp"),
                                   [](const auto& e) { return e.path().filename().string().starts_with("DMN"); });
    };
    EXPECT_EQ(captures(), 1);
    for (int ignored : {SIGHUP, SIGINT, SIGUSR2}) ASSERT_EQ(kill(d.pid(), ignored), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::vector<std::string> full = d.status("F");
    EXPECT_THAT(full, Contains("    2 users logged into quor\n")) << d.log();
    EXPECT_THAT(full, Contains("    User ann from node far logged in as nobody.\n"));
    EXPECT_THAT(d.log(), HasSubstr("Cannot start a process for nobody (exec"));
    EXPECT_THAT(d.log(), Not(HasSubstr("QUOR0008S")));
    EXPECT_TRUE(processes(d.pid(), {}, true).empty()) << "a zombie";
    // Status requests that claim to come from each user on its node.
    for (auto [user, node] : {std::pair{"ann", "far"}, {"bob", local.c_str()}}) {
      auto claim = [&](TransactionHeader& h) {
        h.user = user;
        h.node = node;
      };
      EXPECT_EQ(TevClient().call(kServerName, sealed_request("B", claim), 5000).rc, 0);
    }

    auto sent = std::chrono::steady_clock::now();
    ASSERT_EQ(kill(d.pid(), signo), 0);
    EXPECT_EQ(d.wait_exit(), exit_status) << d.log();
    EXPECT_LT(std::chrono::steady_clock::now() - sent, std::chrono::milliseconds(1800));
    EXPECT_THAT(d.log(), HasSubstr(logged));
    EXPECT_EQ(fs::exists(pid_file(d)), files_left);
    EXPECT_EQ(captures(), files_left ? 1 : 0);
    EXPECT_FALSE(fs::exists(d.server_socket()));
    // The saved records, read back without starting anything: after an
    // orderly end, ann's activity is fresh; bob's is unchanged.
    std::map<std::string, std::time_t> activity;
    ASSERT_EQ(quor_records_read(d.root().str() + "/tmp/quor.sav", 5,
                                [&](const std::vector<std::string>& r) { activity[r[0]] = std::atol(r[4].c_str()); }),
              0);
    ASSERT_EQ(activity.size(), 2u);
    EXPECT_EQ(activity["ann"] >= before + 100, !files_left);
    EXPECT_EQ(activity["bob"], before);
  }
}

// One daemon: a second start in the same installation stops with message
// 21 (the pid file left alone), one from another installation that wants
// the same server name with message 20. Then refreshes, and what they leave.
TEST(Refresh, ReplacesTheConfigurationOnlyWhenAllItsFilesLoad) {
  REQUIRE_ROOT();  // the default login program runs as "nobody"
  const passwd* nobody = getpwnam("nobody");
  if (nobody == nullptr) GTEST_SKIP() << "no account 'nobody' on this machine";
  // The account must be able to reach the login program.
  Daemon d([](const fs::path& root) { fs::permissions(root, fs::perms::others_exec, fs::perm_options::add); }, {});
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

  std::vector<std::string> before = d.status("B");
  ASSERT_EQ(before.size(), 6u);
  const std::string root = d.root().str();
  EXPECT_EQ(before[2], "    Config path is " + root + "/quor/etc/quor.config\n");
  write_file(root + "/empty.map", "# nothing\n");
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // a later load time
  // Each refresh: the file it names (none: the default) after `contents` is
  // written there, and its return code. A file that fails to load, or names
  // a map that fails, keeps the running configuration; one that loads
  // replaces it; no file reads the default one again, not the last.
  struct Case {
    std::optional<std::string> file;
    std::string contents;
    std::string rc;
  };
  for (const Case& c : std::vector<Case>{
           {root + "/missing.config", "", "3"},
           {"", "", "3"},
           {root + "/1.config", "LOGIN_REQUIRED: 0\nDEFAULT_LOGIN_NAME: no-such-user-q\n", "3"},
           {root + "/2.config", "OBJECT_MAP_FILE: " + root + "/empty.map\n", "3"},
           {root + "/3.config", "LANGUAGE_MAP_FILE: " + root + "/absent.map\n", "7"},
           {root + "/4.config", "TRANSACTION_TIMEOUT: 9\n", "0"},
           {std::nullopt, "", "0"},
           {root + "/5.config", "LOGIN_REQUIRED: 0\n", "0"}}) {
    SCOPED_TRACE(c.file.value_or("no file") + ": " + c.contents);
    if (!c.contents.empty()) write_file(*c.file, c.contents);
    std::string reply = ctl_refresh(CtlTarget{}, c.file, false).out;
    EXPECT_THAT(reply, StartsWith("RC " + c.rc + ": "));
    EXPECT_THAT(reply, HasSubstr(c.rc == "0" ? "The configuration was reloaded." : "was not reloaded"));
    std::vector<std::string> now = d.status("B");
    ASSERT_EQ(now.size(), 6u);
    EXPECT_EQ(now[2], c.rc == "0" && c.file ? "    Config path is " + *c.file + "\n" : before[2]);
    EXPECT_EQ(now[3] == before[3], c.rc != "0") << "the load time";
  }
  EXPECT_THAT(d.log(), HasSubstr("QUOR0109E Cannot open the configuration file " + root + "/missing.config"));
  // Brief reports in a row (the later ones from the cached bytes) were all
  // sent: no reply failure is logged.
  for (int i = 0; i < 3; ++i) EXPECT_EQ(d.status("B"), d.status("B"));
  EXPECT_THAT(d.log(), Not(HasSubstr("QUOR0009")));

  // Without logins, the default login program runs under its account. A
  // request that cannot be served for want of a resource (here: no file can
  // be made in the temporary directory) is answered; then the daemon, its
  // name and its login program go at once.
  std::vector<pid_t> running;
  eventually([&] { return !(running = processes(d.pid(), "quoruserpgm")).empty(); });
  ASSERT_EQ(running.size(), 1u) << d.output();
  std::string status = read_file("/proc/" + std::to_string(running[0]) + "/status");
  EXPECT_THAT(status, HasSubstr("Uid:\t" + std::to_string(nobody->pw_uid) + "\t"));
  EXPECT_THAT(status, HasSubstr("Gid:\t" + std::to_string(nobody->pw_gid) + "\t"));
  fs::rename(d.root().path() / "tmp", d.root().path() / "tmp.old");
  fs::create_directory_symlink("/proc/self", d.root().path() / "tmp");
  EXPECT_THAT(ctl_util(CtlTarget{}, {"echo never"}, false).error, HasSubstr("ran out of memory"));
  EXPECT_EQ(d.wait_exit(), 1) << d.log();
  EXPECT_THAT(d.log(), HasSubstr("QUOR0201"));
  EXPECT_TRUE(eventually([&] { return processes(0, {}, false, (d.root().path() / "quor/bin/").string()).empty(); }))
      << "a login program outlived the daemon";
  EXPECT_FALSE(fs::exists(d.server_socket()));
}

TEST(LoginProgram, HoldsTheSessionUntilSigtermAndNeverAsRootForAnother) {
  std::string name = getpwuid(getuid())->pw_name;
  auto start = [](std::vector<std::string> args) { return exec_child(QUORUSERPGM_PATH, args); };
  auto held = start({name, "pc7", "0"});
  // Ready once it waits for SIGTERM (which it has blocked to take it there).
  std::string wchan = "/proc/" + std::to_string(held->pid()) + "/wchan";
  eventually([&] { return read_file(wchan).starts_with("do_sigtimedwait"); }, std::chrono::seconds(5));
  EXPECT_EQ(waitpid(held->pid(), nullptr, WNOHANG), 0) << "ended without being told";
  kill(held->pid(), SIGTERM);
  EXPECT_EQ(held->wait(), 0);

  // A missing argument, and (as root) any account but root's: refused.
  std::vector<std::vector<std::string>> refused{{name}};
  if (getuid() == 0) refused.insert(refused.end(), {{"nobody", "pc7", "0"}, {"no-such-user-q", "pc7", "0"}});
  for (const std::vector<std::string>& args : refused) EXPECT_EQ(start(args)->wait(), 1) << args[0];
}

}  // namespace
