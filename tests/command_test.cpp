// Command requests and the security model under attack, end to end: the
// real daemon, the real transport and real agents (quorprobe records what it
// was given). The attacker's side is run by a real unprivileged process under
// a throw-away account; each of its attacks must fail.
#include <gtest/gtest.h>
#include <pwd.h>

#include <cstdlib>
#include <map>

#include "agent_fixture.h"
#include "ctl_commands.h"
#include "ctl_files.h"
#include "momsg.h"
#include "quorpnfn.h"
#include "quorusers.h"

using testutil::Probe;
using testutil::read_file;
namespace fs = std::filesystem;

namespace {

// A daemon whose agents can be watched, and an attacker: an account made
// for the test and removed with every process it ran.
class Security : public testutil::AgentDaemonTest {
 protected:
  // A PROBE request carrying `csv` as a table (or list), from a file in the root.
  CtlBuild table_request(const std::string& csv) {
    CtlBuild spec;
    spec.object = "PROBE";
    spec.data = CtlBuild::Data::Table;
    spec.source = csv_path();
    std::ofstream(spec.source) << csv;
    return spec;
  }
  std::string csv_path() const { return daemon_->root().str() + "/t.csv"; }

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

  std::string attacker_ = "qatk" + std::to_string(getpid() % 100000);
  uid_t uid_ = 0;
  int ready_[2] = {-1, -1};  // where an attacker's child says it is ready
};

// With logins not required, requests run as the default login account. A
// request starts only the agent its type may start; root's agents serve only
// their own kind. An agent gets a write-only standard error of its own
// (logged), no descriptor of the daemon's, a clean environment. A client's
// unfinished requests are bounded; a second login for a pair under way is
// refused.
TEST_F(Security, WithoutLoginsRequestsRunAsTheDefaultLoginAndAgentsOnlyForTheirType) {
  const passwd* nobody = getpwnam("nobody");
  if (nobody == nullptr) GTEST_SKIP() << "no account 'nobody'";
  const std::string nobody_uid = std::to_string(nobody->pw_uid), nobody_gid = std::to_string(nobody->pw_gid);
  start("LOGIN_REQUIRED: 0\nDEFAULT_LOGIN_NAME: nobody\n",
        "PROBE quorprobe\nBROKEN notrunnable\nMOUTIL quorutil\nLOGON quorprobe\n", [](const fs::path& root) {
          std::ofstream(root / "quor/bin/notrunnable") << "#!/bin/sh\n";
          fs::permissions(root / "quor/bin/notrunnable", fs::perms::owner_read | fs::perms::owner_write);
        });
  std::string pid = std::to_string(daemon_->pid());
  std::string login = read_file("/proc/" + pid + "/task/" + pid + "/children");
  ASSERT_NE(login, "") << "no default login program";
  login = login.substr(0, login.find(' '));

  // An object missing from the map, a program that cannot be executed, or a
  // damaged table is refused with an error reply and starts nothing; so is
  // a table whose CSV turns out wrong after buffers of it went out: quorctl
  // withdraws it.
  CtlBuild spec = table_request("a,b\n");
  for (const char* object : {"NOSUCH", "BROKEN"}) {
    spec.object = object;
    EXPECT_EQ(error_text(send(spec, true)).substr(0, 2), "1 ") << object;
  }
  auto damaged = testutil::sealed_request("S", {}, [](OutBuf& out) {
    testutil::put_segment(out, "ZZZHDR", {"OBJ", "PROBE", "FN", "Y"});
    testutil::put_segment(out, "ZZZRDW", {"0"});
  });
  EXPECT_EQ(error_text(TevClient().call(kServerName, damaged, 5000)),
            "1 The request failed on the host. See the host's message log for details.");
  std::string rows;
  for (int i = 0; i < 5000; ++i) rows += std::to_string(i) + ",row " + std::to_string(i) + "\n";
  std::ofstream(csv_path()) << rows << "last\n";
  spec.object = "PROBE";
  CtlOutcome withdrawn = ctl_agent_request(CtlTarget{}, spec, false);
  EXPECT_EQ(withdrawn.status, kCtlUsage);
  EXPECT_EQ(withdrawn.error, csv_path() + ": row 5001 has another number of values (the request was withdrawn)");
  EXPECT_TRUE(logged("QUOR0115E Object NOSUCH is not in the object map.")) << daemon_->log();
  EXPECT_TRUE(logged("QUOR0121E"));
  EXPECT_EQ(as_attacker([&] {
    testutil::EnvGuard claim("MOX_QUORUSER", "root");
    for (auto [type, object] : {std::pair{"L", "PROBE"}, {"S", "MOUTIL"}, {"S", "LOGON"}, {"O", "MOUTIL"}})
      if (error_text(request(type, object, "EXIT0", true)).find("cannot serve") == std::string::npos) return 1;
    return 0;
  }), 0);
  EXPECT_FALSE(next_probe(15)) << "an agent ran";
  EXPECT_EQ(counts(), users(0)) << "refusals left entries";

  // A service request with a selection list, a table over several buffers
  // and an environment runs its agent as the account, with the segment id as
  // its argument; the agent's answer reaches the client.
  std::string csv;
  for (int i = 0; i < 4000; ++i) csv += std::to_string(i) + ",name " + std::to_string(i) + "\n";
  spec = table_request(csv);
  spec.command = "ANSWER";
  spec.format = "P";
  spec.date_format = "DD.MM.YYYY";
  spec.language = "english";
  spec.selections = {{"K", "<", "abc"}};
  CtlOutcome answer = ctl_agent_request(CtlTarget{}, spec, false);
  EXPECT_EQ(answer.status, kCtlOk) << answer.error << daemon_->output();
  EXPECT_NE(answer.out.find("\nMOX_DATEFMT=DD.MM.YYYY\n"), std::string::npos) << answer.out;
  std::optional<Probe> probe = next_probe();
  ASSERT_TRUE(probe) << daemon_->output();
  for (auto [key, value] : std::map<std::string, std::string>{
           {"uid", nobody_uid}, {"euid", nobody_uid}, {"gid", nobody_gid}, {"argc", "2"}, {"argv0", "quorprobe"},
           {"MOX_DATEFMT", "DD.MM.YYYY"}, {"MO_MOXMESSAGE", daemon_->root().str() + "/messages/english"}})
    EXPECT_EQ(probe->info[key], value) << key;
  ASSERT_EQ(probe->segment.size(), kShmSize);
  for (auto [field, value] : {std::pair{smc::username, "nobody"}, {smc::object, "PROBE"}, {smc::command, "ANSWER"},
                              {smc::source, "MOQuor"}, {smc::csl_count, "1"}, {smc::slot(smc::csl_name, 0), "K"},
                              {smc::slot(smc::csl_oper, 0), "<"}, {smc::slot(smc::csl_value, 0), "abc"}})
    EXPECT_EQ(probe->field(field), value) << "field at " << field.offset;
  EXPECT_EQ(probe->record()[smc::format.offset], 64);
  EXPECT_EQ(std::string(probe->segment.data() + 1, 64).c_str(), std::string(mo_nodename())) << "daemon's identity";
  EXPECT_EQ(std::string(probe->segment.data() + 174, 8).c_str(), std::string("UNIX1"));
  std::ofstream(daemon_->root().str() + "/copy.rdw", std::ios::binary) << probe->data;
  EXPECT_EQ(ctl_table_to_csv(daemon_->root().str() + "/copy.rdw").out, csv) << "the table arrived whole";
  request("S", "PROBE", "STDERR", false);
  probe = next_probe();
  ASSERT_TRUE(probe) << daemon_->output();
  EXPECT_EQ(probe->info["fds"], "0,1,2");
  EXPECT_EQ(probe->info["stderr"].rfind((daemon_->root().path() / "tmp/AGT").string(), 0), 0u) << probe->info["stderr"];
  EXPECT_TRUE(probe->info["stderr"].ends_with(" w"));
  EXPECT_EQ(probe->info["env"],
            "PATH,HOME,USER,LOGNAME,SHELL,MOXGLBL0000,TMPDIR,TEV_DIR,QUORPROBE_DIR,QUOR_CLIENT_UID,QUOR_CLIENT_PID");
  EXPECT_EQ(settle(users(0)), users(0));  // the agent's end, swept
  std::string agent = std::to_string(probe->pid);
  EXPECT_TRUE(logged("QUOR0302E Standard error of agent pid " + agent + " of uid 0: quorprobe wrote this"));

  // A logoff from a client that never logged in still runs its agent and
  // stops nothing else: the default login program goes on.
  request("O", "PROBE", "", false);
  ASSERT_TRUE(next_probe()) << daemon_->output();
  EXPECT_EQ(settle(users(0)), users(0));
  std::string stat = read_file("/proc/" + login + "/stat");
  EXPECT_EQ(stat.substr(stat.rfind(')') + 2, 1), "S") << "the default login program was stopped: " << stat;

  // A utility request runs its commands as written, as the account, through
  // the utility agent, whose answer (split over several buffers when long)
  // reaches the client; a failing command gives its status. Only for object
  // FILEVERSION does a RESTORE command have its "NAME=<" file replaced.
  CtlBuild restore;
  restore.type = "U";
  restore.object = "MOUTIL";
  restore.command = "RESTORE";
  restore.data = CtlBuild::Data::Commands;
  restore.commands = {"id -u; echo 'NAME=<kept'; exit 3"};
  CtlOutcome failing = ctl_agent_request(CtlTarget{}, restore, true);
  EXPECT_EQ(failing.status, kCtlDaemonError) << failing.error << daemon_->output();
  EXPECT_EQ(failing.out, "{\"rc\":3,\"message\":\"the commands ended with status 3\",\"output\":\"" + nobody_uid +
                             "\\nNAME=<kept\\n\"}\n");
  CtlOutcome many = ctl_util(CtlTarget{}, {"seq 1 20000"}, false);
  std::string expected;
  for (int i = 1; i <= 20000; ++i) expected += std::to_string(i) + "\n";
  EXPECT_EQ(many.status, kCtlOk) << many.error;
  EXPECT_EQ(many.out, expected);
  settle(users(0));
  EXPECT_EQ(files_left(), "") << "data, command or output files left behind";

  // The utility agent reads as root only the command file the daemon made,
  // whatever a later buffer's selection list puts in its slot.
  fs::path secret = daemon_->root().path() / "secret";
  std::ofstream(secret) << "echo LEAKED\n";
  fs::permissions(secret, fs::perms::owner_read | fs::perms::owner_write);
  // Two buffers of one utility request, the second with a selection list.
  auto buffer = [](const char* continuation, const char* more, std::string selection) {
    auto header = [&](TransactionHeader& h) { h.continuation = continuation; };
    return testutil::sealed_request("U", header, [&](OutBuf& out) {
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
  {
    testutil::EnvGuard user("MOX_QUORUSER", "somebody");
    request("L", "LOGON", "SLEEP5", false);
    std::string refused = "1 A login for user somebody from " + std::string(mo_nodename()) + " is already in progress.";
    EXPECT_EQ(error_text(request("L", "LOGON", "SLEEP5", true)), refused);
  }

  // Once the default login program has ended, a utility request is refused.
  kill(std::stoi(login), SIGKILL);
  ASSERT_TRUE(testutil::eventually([&] { return !testutil::processes(daemon_->pid(), "quoruserpgm", true).empty(); }));
  EXPECT_EQ(ctl_util(CtlTarget{}, {"id"}, false).error, "RC 1: The request's trailer does not announce more data.");
}

// With logins required: a request needs a login of an account of this host;
// a session serves only the client that logged it in; a login needs the
// password of an account the client is not (root's only when the logon agent
// allows it). Only root controls the daemon, no client holds it up or floods
// its log, and while it is down a password never goes to whoever holds its
// name. (Wrong passwords and a session's status line: the remote-host tests.)
TEST_F(Security, RequestsNeedALoginASessionIsItsOwnersAndOnlyRootControlsTheDaemon) {
  const int saved = 150;  // users restored at start-up
  // The impostor holds the name in the shared directory (and a "root" directory of its
  // own) from before the daemon starts: the first thing to reach it must be the "end".
  auto impostor = [&](const std::string& dir) {
    bool become = become_attacker();
    setenv("TEV_DIR", dir.c_str(), 1);
    mkdir((dir + "/root").c_str(), 0777);
    TevIdentity id;
    id.set_app_name(kServerName);
    TevFeedback fb;
    bool registered = become && TevInit(fb, id, kTevModeNormal) == 0;
    (void)!write(ready_[1], registered ? "y" : "n", 1);
    std::array<char, 65536> buf{};
    TevIdentity from;
    TevInquiry inquiry;
    if (!registered || TevRecvTimed(fb, id, from, buf.data(), buf.size(), inquiry, 60000) != 0) return 2;
    return std::string_view(buf.data()) == "end" ? 0 : 1;
  };
  std::unique_ptr<testutil::Child> squatter;
  testutil::TempDir dumps;
  fs::permissions(dumps.path(), fs::perms::all | fs::perms::sticky_bit);
  fs::path target = dumps.path() / "precious";
  std::ofstream(target) << "keep\n";
  ASSERT_EQ(as_attacker([&] { return symlink(target.c_str(), (dumps.path() / "quordump.out").c_str()); }), 0);
  start("LOGIN_REQUIRED: 1\n", "LOGON quorlogon\nMOUTIL quorutil\nPROBE quorprobe\n", [&](const fs::path& root) {
    testutil::EnvGuard env("MOXGLBL0000", root.string());
    for (int i = 0; i < saved; ++i)  // a full report of several buffers
      quor_user_new() = UserEntry{"user" + std::to_string(i), std::string(200, 'n'), "nobody", "65534",
                                  std::time(nullptr), 0, {}};
    ASSERT_EQ(quor_users_save(), 0);
    quor_users().clear();
    squatter = std::make_unique<testutil::Child>([&] { return impostor((root / "tev").string()); });
    char c = 0;
    ASSERT_EQ(read(ready_[0], &c, 1), 1);
    ASSERT_EQ(c, 'y') << "the impostor could not register";
  }, {{"MOXQUORDUMP", dumps.str()}});
  const std::string no_login = "The request's trailer does not announce more data.";

  // A request without a login is refused once its last buffer has arrived;
  // a continuation nobody is waiting for is refused at once.
  std::string names;
  for (int i = 0; i < 5000; ++i) names += "name number " + std::to_string(i) + "\n";
  CtlBuild spec = table_request(names);
  spec.data = CtlBuild::Data::List;
  EXPECT_EQ(error_text(send(spec, true)), "1 " + no_login);
  auto continuation = testutil::sealed_request("S", [](TransactionHeader& h) { h.continuation = "Y"; });
  EXPECT_EQ(error_text(TevClient().call(kServerName, continuation, 5000)).substr(0, 2), "1 ");
  EXPECT_TRUE(logged("QUOR0118E"));
  EXPECT_FALSE(next_probe(15)) << "an agent ran";

  // Logins for an unknown account, or for root while the logon agent does
  // not allow it, are refused and leave nobody logged in.
  for (std::string account : {"nosuchaccount", "root"}) {
    testutil::EnvGuard user("MOX_QUORUSER", account);
    EXPECT_EQ(ctl_login(CtlTarget{}, std::nullopt, false).error, "RC 1: login refused for " + account);
  }
  EXPECT_EQ(settle(users(saved)), users(saved)) << "a refused login or a refusal stayed";
  std::ofstream(daemon_->root().path() / "quor/etc/quorlogon.config") << "ALLOW_ROOT_LOGIN: 1\n";
  for (const char* account : {"nobody", "root"}) {
    testutil::EnvGuard user("MOX_QUORUSER", account);
    ASSERT_EQ(ctl_login(CtlTarget{}, std::nullopt, false).status, kCtlOk) << account << daemon_->output();
  }
  // The attacker can neither use nor end another's session, log in as another account
  // without its password, nor have its session's agent report root's login.
  EXPECT_EQ(as_attacker([&] {
    testutil::EnvGuard victim("MOX_QUORUSER", "nobody");
    if (ctl_util(CtlTarget{}, {"id -un"}, false).error != "RC 1: " + no_login) return 1;
    if (ctl_logoff(CtlTarget{}, false).status != kCtlDaemonError) return 2;
    testutil::EnvGuard claim("MOX_QUORUSER", "daemon");
    if (ctl_login(CtlTarget{}, std::nullopt, false).error != "RC 1: login refused for daemon") return 3;
    testutil::EnvGuard own("MOX_QUORUSER", attacker_);
    if (ctl_login(CtlTarget{}, std::nullopt, false).status != kCtlOk) return 4;
    request("S", "PROBE", "LOGININFO:root", false);
    return 0;
  }), 0);
  std::optional<Probe> reporter = next_probe();
  ASSERT_TRUE(reporter) << "the session's agent did not run";
  kill(reporter->pid, SIGTERM);  // it waits as a login process would
  EXPECT_TRUE(logged("QUOR0309E"));
  std::vector<std::string> full = daemon_->status("F");
  std::string line = "    User " + attacker_ + " from node " + mo_nodename() + " logged in as ";
  EXPECT_EQ(std::count(full.begin(), full.end(), line + attacker_ + ".\n"), 1);
  EXPECT_EQ(std::count(full.begin(), full.end(), line + "root.\n"), 0);
  {
    // The victim's session runs its commands as the account until its logoff.
    testutil::EnvGuard victim("MOX_QUORUSER", "nobody");
    EXPECT_EQ(ctl_util(CtlTarget{}, {"id -un"}, false).out, "nobody\n");
    EXPECT_EQ(ctl_logoff(CtlTarget{}, false).status, kCtlOk);
    EXPECT_EQ(settle(users(saved + 2)), users(saved + 2));
    EXPECT_EQ(ctl_util(CtlTarget{}, {"id -un"}, false).error, "RC 1: " + no_login);
  }

  // A login reported (by the probe as logon agent) for an account this host
  // does not have: requests under it are refused, and nothing starts as
  // anyone else.
  testutil::EnvGuard unknown("MOX_QUORUSER", "nosuchaccount");
  std::ofstream(daemon_->root().path() / "quor/etc/quorobj.map")
      << "PROBE quorprobe\nLOGON quorprobe\nMOUTIL quorutil\n";
  ASSERT_EQ(ctl_refresh(CtlTarget{}, std::nullopt, false).status, kCtlOk);
  request("L", "LOGON", "LOGININFO", false);
  ASSERT_TRUE(next_probe()) << daemon_->output();
  settle(users(saved + 3));
  EXPECT_EQ(error_text(request("S", "PROBE", "", true)).substr(0, 2), "1 ");
  EXPECT_TRUE(logged("QUOR0301E")) << daemon_->log();
  EXPECT_FALSE(next_probe(15)) << "an agent ran";
  EXPECT_EQ(counts(), users(saved + 3));

  // Control requests and a refresh from the attacker are refused; so is a refresh of a
  // file that is not a regular file of root's. The dump file is not written through a link.
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
  {
    // An agent still running when the daemon is told to end with K ends with it.
    testutil::EnvGuard root_user("MOX_QUORUSER", "root");
    request("S", "PROBE", "SLEEP60", false);
    ASSERT_TRUE(next_probe()) << "the last agent did not start";
  }
  ASSERT_EQ(ctl_notify(CtlTarget{}, 'K', false).status, kCtlOk);
  ASSERT_EQ(daemon_->wait_exit(), 0);
  EXPECT_NE(daemon_->output().find("\nquordaemon:  message type KILLALL\n"), std::string::npos);
  EXPECT_TRUE(testutil::eventually([&] {
    return testutil::processes(0, {}, false, (daemon_->root().path() / "quor/bin/").string()).empty();
  })) << "a login program or an agent outlived the daemon";
  testutil::EnvGuard user("MOX_QUORUSER", "nobody");
  EXPECT_EQ(ctl_login(CtlTarget{}, std::string("secret"), false).status, kCtlNotRunning);
  TevClient().call(kServerName, std::vector<std::uint8_t>{'e', 'n', 'd'}, 0, false);
  EXPECT_EQ(squatter->wait(), 0) << "the password reached the impostor, or the end did not";
  std::string log = daemon_->log();
  std::size_t lines = 0;
  for (std::size_t at = log.find("QUOR0008S"); at != std::string::npos; at = log.find("QUOR0008S", at + 1)) ++lines;
  EXPECT_EQ(lines, static_cast<std::size_t>(kMoLogBurst));
  std::string left_out = "QUOR0308E Left out of the log: " + std::to_string(180 - lost) + " more of message 8";
  EXPECT_NE(log.find(left_out), std::string::npos) << log;
}

}  // namespace
