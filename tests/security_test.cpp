// The security model under attack: the real daemon, the real transport, and
// the attacker's side run by a real unprivileged process under a throw-away
// account. Each test is one attack that must fail.

#include <cstdlib>

#include "agent_fixture.h"
#include "ctl_commands.h"
#include "momsg.h"
#include "quorpnfn.h"
#include "quorusers.h"

using testutil::Probe;
using testutil::read_file;
namespace fs = std::filesystem;

namespace {

class Security : public testutil::AgentDaemonTest {
 protected:
  void SetUp() override {
    AgentDaemonTest::SetUp();
    ASSERT_EQ(pipe(ready_), 0);
    if (geteuid() != 0) GTEST_SKIP() << "needs root: the attacker runs under a throw-away account";
    std::string add = "useradd -M -N -r -s /usr/sbin/nologin -d /nonexistent " + attacker_ + " >/dev/null 2>&1";
    const passwd* pw = std::system(add.c_str()) == 0 ? getpwnam(attacker_.c_str()) : nullptr;
    ASSERT_NE(pw, nullptr) << "cannot make a throw-away account";
    uid_ = pw->pw_uid;
  }
  void TearDown() override {
    daemon_.reset();  // its programs go before the account does
    std::string remove = "pkill -KILL -u " + attacker_ + " >/dev/null 2>&1; userdel " + attacker_ + " >/dev/null 2>&1";
    if (uid_ != 0) (void)!std::system(remove.c_str());
    close(ready_[0]);
    close(ready_[1]);
  }

  // Runs `body` as the attacker: its result (0 when all went as it should).
  int as_attacker(const std::function<int()>& body) { return testutil::run_as(attacker_, body); }
  // Makes this (forked) process the attacker.
  bool become_attacker() const { return setgroups(0, nullptr) == 0 && setgid(65534) == 0 && setuid(uid_) == 0; }

  // An account made for the test and removed with every process it ran.
  std::string attacker_ = "qatk" + std::to_string(getpid() % 100000);
  uid_t uid_ = 0;
  int ready_[2] = {-1, -1};  // where an attacker's child says it is ready
};

// A session serves only the client that logged it in, for use or logoff. A
// login needs the password of an account the client is not (or root), root
// only when the logon agent allows it; a session's agent cannot report a
// login, least of all root's.
TEST_F(Security, ASessionIsItsOwnersAndALoginNeedsThePasswordOfAnotherAccount) {
  start("LOGIN_REQUIRED: 1\n", "LOGON quorlogon\nMOUTIL quorutil\nPROBE quorprobe\n");
  {
    testutil::EnvGuard victim("MOX_QUORUSER", "nobody");
    ASSERT_EQ(ctl_login(CtlTarget{}, std::nullopt, false).status, kCtlOk);
  }
  {
    testutil::EnvGuard root("MOX_QUORUSER", "root");
    EXPECT_EQ(ctl_login(CtlTarget{}, std::nullopt, false).error, "RC 1: login refused for root");
    ASSERT_EQ(settle(users(1)), users(1));
    std::ofstream(daemon_->root().path() / "quor/etc/quorlogon.config") << "ALLOW_ROOT_LOGIN: 1\n";
    EXPECT_EQ(ctl_login(CtlTarget{}, std::nullopt, false).status, kCtlOk);
  }
  EXPECT_EQ(as_attacker([&] {
    testutil::EnvGuard victim("MOX_QUORUSER", "nobody");
    if (ctl_util(CtlTarget{}, {"id -un"}, false).error.find("trailer does not announce") == std::string::npos)
      return 1;
    if (ctl_logoff(CtlTarget{}, false).status != kCtlDaemonError) return 2;
    testutil::EnvGuard claim("MOX_QUORUSER", "daemon");
    if (ctl_login(CtlTarget{}, std::nullopt, false).error != "RC 1: login refused for daemon") return 3;
    testutil::EnvGuard own("MOX_QUORUSER", attacker_);
    if (ctl_login(CtlTarget{}, std::nullopt, false).status != kCtlOk) return 4;
    request("S", "PROBE", "LOGININFO:root", false);
    return 0;
  }), 0);
  testutil::EnvGuard victim("MOX_QUORUSER", "nobody");
  EXPECT_EQ(ctl_util(CtlTarget{}, {"id -un"}, false).out, "nobody\n");
  EXPECT_TRUE(logged("QUOR0309E"));
  std::vector<std::string> full = daemon_->status("F");
  std::string line = "    User " + attacker_ + " from node " + mo_nodename() + " logged in as ";
  EXPECT_EQ(std::count(full.begin(), full.end(), line + attacker_ + ".\n"), 1);
  EXPECT_EQ(std::count(full.begin(), full.end(), line + "root.\n"), 0);
}

// Only root stops, refreshes or sweeps the daemon; a refresh reads only a
// regular file of root's. The dump file is never written through a planted
// link. Clients that never read replies or answer partial ones hold nobody
// up. A flood of bad messages logs a bounded number of lines and a count.
TEST_F(Security, OnlyRootControlsTheDaemonAndNoClientHoldsItOrFloodsTheLog) {
  testutil::TempDir dumps;
  fs::permissions(dumps.path(), fs::perms::all | fs::perms::sticky_bit);
  fs::path target = dumps.path() / "precious";
  std::ofstream(target) << "keep\n";
  ASSERT_EQ(as_attacker([&] { return symlink(target.c_str(), (dumps.path() / "quordump.out").c_str()); }), 0);
  start("LOGIN_REQUIRED: 1\n", "PROBE quorprobe\n", [](const fs::path& root) {
    testutil::EnvGuard env("MOXGLBL0000", root.string());
    for (int i = 0; i < 150; ++i)  // a full report of several buffers
      quor_user_new() = UserEntry{"user" + std::to_string(i), std::string(200, 'n'), "nobody", "65534",
                                  std::time(nullptr), 0, {}};
    ASSERT_EQ(quor_users_save(), 0);
    quor_users().clear();
  }, {{"MOXQUORDUMP", dumps.str()}});
  fs::path planted = daemon_->root().path() / "planted.config";
  std::ofstream(planted) << "OBJECT_MAP_FILE: " << (daemon_->root().path() / "planted.map").string() << "\n";
  ASSERT_EQ(chown(planted.c_str(), uid_, 0), 0);
  EXPECT_EQ(as_attacker([&] {
    for (std::string type : {"T", "K", "C"}) {
      TevClient client;
      TevCallResult r = client.call(kServerName, testutil::sealed_request(type), 3000);
      if (error_text(r).find("only root") == std::string::npos) return 1;
    }
    return ctl_refresh(CtlTarget{}, planted.string(), false).error == "refresh failed with RC 1" ? 0 : 2;
  }), 0);
  EXPECT_TRUE(logged("QUOR0304E"));
  for (std::string path : {planted.string(), std::string("/dev/zero")})
    EXPECT_EQ(ctl_refresh(CtlTarget{}, path, false).error, "refresh failed with RC 3") << path;
  EXPECT_TRUE(logged("QUOR0310E Refused to read " + planted.string() + ": owned by uid"));
  EXPECT_TRUE(logged("/dev/zero: not a regular file"));
  EXPECT_EQ(read_file(target), "keep\n");
  EXPECT_NE(read_file(dumps.path() / "quordump.out").find("Entering DumpBuffer"), std::string::npos);

  {
    // One client asks for the full report and never answers its partial
    // replies; another sends requests and never reads the replies.
    auto stall = [&](const char* type, int count) {
      return [&, type, count] {
        if (!become_attacker()) return 126;
        TevClient client;
        for (int i = 0; i < count; ++i) client.call(kServerName, testutil::sealed_request(type), 0, false);
        (void)!write(ready_[1], "y", 1);
        sleep(30);
        return 0;
      };
    };
    testutil::Child unanswered(stall("F", 1)), unread(stall("B", 40));
    char c[2] = {};
    ASSERT_EQ(read(ready_[0], &c[0], 1) + read(ready_[0], &c[1], 1), 2);
    EXPECT_EQ(daemon_->status("B").size(), 6u) << "the daemon was held up";
  }

  // The daemon's queue holds a few datagrams: on a loaded machine a send may
  // wait out its time-out and be lost. The attacker says how many were.
  int lost = as_attacker([] {
    TevClient client;
    std::vector<std::uint8_t> bad(20, 'x');
    int failed = 0;
    for (int i = 0; i < 200; ++i) failed += client.call(kServerName, bad, 0, false).rc != 0;
    return failed;
  });
  ASSERT_TRUE(lost >= 0 && lost < 100) << lost;
  EXPECT_EQ(daemon_->status("B").size(), 6u);
  ASSERT_EQ(ctl_notify(CtlTarget{}, 'T', false).status, kCtlOk);
  ASSERT_EQ(daemon_->wait_exit(), 0);
  std::string log = daemon_->log();
  std::size_t lines = 0;
  for (std::size_t at = log.find("QUOR0008S"); at != std::string::npos; at = log.find("QUOR0008S", at + 1)) ++lines;
  EXPECT_EQ(lines, static_cast<std::size_t>(kMoLogBurst));
  std::string left_out = "QUOR0308E Left out of the log: " + std::to_string(180 - lost) + " more of message 8";
  EXPECT_NE(log.find(left_out), std::string::npos) << log;
}

// A request starts only the agent its type may start; root's agents serve
// only their own kind. An agent gets a write-only standard error of its own
// (logged), no descriptor of the daemon's, a clean environment. A client's
// unfinished requests are bounded; a second login for a pair under way is
// refused.
TEST_F(Security, AgentsStartOnlyForTheirTypeWithNothingOfTheDaemonsAndInBoundedNumbers) {
  start("LOGIN_REQUIRED: 0\nDEFAULT_LOGIN_NAME: nobody\n", "PROBE quorprobe\nLOGON quorprobe\nMOUTIL quorutil\n");
  EXPECT_EQ(as_attacker([&] {
    testutil::EnvGuard claim("MOX_QUORUSER", "root");
    for (auto [type, object] : {std::pair{"L", "PROBE"}, {"S", "MOUTIL"}, {"S", "LOGON"}, {"O", "MOUTIL"}})
      if (error_text(request(type, object, "EXIT0", true)).find("cannot serve") == std::string::npos) return 1;
    return 0;
  }), 0);
  EXPECT_FALSE(next_probe(10)) << "an agent ran";

  request("S", "PROBE", "STDERR", false);
  std::optional<Probe> probe = next_probe();
  ASSERT_TRUE(probe) << daemon_->output();
  EXPECT_EQ(probe->info["fds"], "0,1,2");
  EXPECT_EQ(probe->info["stderr"].rfind((daemon_->root().path() / "tmp/AGT").string(), 0), 0u) << probe->info["stderr"];
  EXPECT_TRUE(probe->info["stderr"].ends_with(" w"));
  EXPECT_EQ(probe->info["env"],
            "PATH,HOME,USER,LOGNAME,SHELL,MOXGLBL0000,TMPDIR,TEV_DIR,QUORPROBE_DIR,QUOR_CLIENT_UID,QUOR_CLIENT_PID");
  EXPECT_EQ(settle(users(0)), users(0));
  EXPECT_TRUE(logged("QUOR0302E Standard error of agent pid " + std::to_string(probe->pid) + " of uid 0: quorprobe wrote this"));

  // The utility agent reads as root only the command file the daemon made,
  // whatever a later buffer's selection list puts in its slot.
  fs::path secret = daemon_->root().path() / "secret";
  std::ofstream(secret) << "echo LEAKED\n";
  fs::permissions(secret, fs::perms::owner_read | fs::perms::owner_write);
  // Two buffers of one utility request, the second with a selection list.
  auto buffer = [](const char* continuation, const char* more, std::string selection) {
    return testutil::sealed_request("U", [&](TransactionHeader& h) { h.continuation = continuation; }, [&](OutBuf& out) {
      testutil::put_segment(out, "ZZZHDR", {"OBJ", "MOUTIL"});
      if (!selection.empty()) testutil::put_segment(out, kPndTag, {"1", "X", "=", selection});
      testutil::put_segment(out, "ZZZCMD", {"echo fine"});
    }, more);
  };
  EXPECT_EQ(as_attacker([&] {
    TevClient client;
    client.call(kServerName, buffer("N", "Y", ""), 0, false);
    TevCallResult r = client.call(kServerName, buffer("Y", "N", secret.string()), 0, false);
    r = client.wait_reply(10000);
    std::string all;
    for (const TevReply& reply : r.replies)
      for (const std::string& item : testutil::Daemon::reply_items(reply.payload, "ZZZLST")) all += item;
    return all == "fine\nfine\n" ? 0 : 1;
  }), 0);
  EXPECT_EQ(read_file(secret), "echo LEAKED\n") << "root read or removed the file a client named";

  // First buffers that announce more, each claiming another client pid.
  auto first = [](int i) {
    return testutil::sealed_request("S", [&](TransactionHeader& h) { h.pid = std::to_string(100000 + i); },
                                    [](OutBuf& out) { testutil::put_segment(out, "ZZZHDR", {"OBJ", "PROBE"}); }, "Y");
  };
  EXPECT_EQ(as_attacker([&] {
    TevClient client;
    for (int i = 0; i < kPendingPerClient + 4; ++i) client.call(kServerName, first(i), 0, false);
    int refused = 0;
    for (TevCallResult r = client.wait_reply(1000); r.rc == 0; r = client.wait_reply(1000))
      refused += error_text(r).find("too many") != std::string::npos;
    return refused == 4 ? 0 : refused + 1;
  }), 0);
  std::string pending = "    0 users logged into quor\n    16 transactions in progress.\n";
  EXPECT_EQ(settle(pending), pending);
  testutil::EnvGuard user("MOX_QUORUSER", "somebody");
  request("L", "LOGON", "SLEEP5", false);
  std::string refusal = "1 A login for user somebody from " + std::string(mo_nodename()) + " is already in progress.";
  EXPECT_EQ(error_text(request("L", "LOGON", "SLEEP5", true)), refusal);
  EXPECT_TRUE(daemon_->alive());
}

// While the daemon is down, its name in the shared directory is anybody's,
// but root's names are not: the daemon starts regardless, and a password
// never goes to the impostor.
TEST_F(Security, RootsNamesCannotBeTakenAndPasswordsGoOnlyToRoot) {
  std::string dir;
  // The impostor counts what reaches it for three seconds.
  auto impostor = [&] {
    bool become = become_attacker();
    setenv("TEV_DIR", dir.c_str(), 1);
    mkdir((dir + "/root").c_str(), 0777);  // a "root" directory of its own, too
    TevIdentity id;
    id.set_app_name(kServerName);
    TevFeedback fb;
    bool registered = become && TevInit(fb, id, kTevModeNormal) == 0;
    (void)!write(ready_[1], registered ? "y" : "n", 1);
    if (!registered) return 125;
    std::array<char, 65536> buf;
    TevIdentity from;
    TevInquiry inquiry;
    return TevRecvTimed(fb, id, from, buf.data(), buf.size(), inquiry, 3000) == 0 ? 1 : 0;
  };
  std::unique_ptr<testutil::Child> squatter;
  start("LOGIN_REQUIRED: 1\n", "LOGON quorlogon\n", [&](const fs::path& root) {
    dir = (root / "tev").string();
    squatter = std::make_unique<testutil::Child>(impostor);
    char c = 0;
    ASSERT_EQ(read(ready_[0], &c, 1), 1);
    ASSERT_EQ(c, 'y') << "the impostor could not register";
  });
  ASSERT_TRUE(fs::exists(daemon_->server_socket())) << "the daemon did not get its name";
  ASSERT_EQ(ctl_notify(CtlTarget{}, 'T', false).status, kCtlOk);
  ASSERT_EQ(daemon_->wait_exit(), 0);
  testutil::EnvGuard user("MOX_QUORUSER", "nobody");
  EXPECT_EQ(ctl_login(CtlTarget{}, std::string("secret"), false).status, kCtlNotRunning);
  EXPECT_EQ(squatter->wait(), 0) << "the password reached the impostor";
}

}  // namespace
