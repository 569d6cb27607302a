// Command requests end to end: the real daemon, the real transport and a
// real agent (quorprobe), which records what it was given.
#include <gtest/gtest.h>
#include <pwd.h>

#include <map>

#include "agent_fixture.h"
#include "ctl_commands.h"
#include "ctl_files.h"
#include "ctl_text.h"
#include "momsg.h"

using testutil::Daemon;
using testutil::read_file;
using testutil::Probe;
namespace fs = std::filesystem;

namespace {

class Commands : public testutil::AgentDaemonTest {
 protected:
  // A PROBE request carrying `csv` as a table, from a file in the root.
  CtlBuild table_request(const std::string& csv) {
    CtlBuild spec;
    spec.object = "PROBE";
    spec.data = CtlBuild::Data::Table;
    spec.source = csv_path();
    std::ofstream(spec.source) << csv;
    return spec;
  }
  std::string csv_path() const { return daemon_->root().str() + "/t.csv"; }
  // The table the probe agent was given, as CSV.
  std::string table_of(const Probe& probe) const {
    std::string path = daemon_->root().str() + "/copy.rdw";
    std::ofstream(path, std::ios::binary) << probe.data;
    return ctl_table_to_csv(path).out;
  }
};

// With logins not required, a service request carrying a selection list, a
// table over several buffers and an environment runs its agent as the
// default login account, with the segment id as its argument.
TEST_F(Commands, AServiceRequestRunsItsAgentAsTheDefaultLogin) {
  REQUIRE_ROOT();
  const passwd* nobody = getpwnam("nobody");
  if (nobody == nullptr) GTEST_SKIP() << "no account 'nobody'";
  const std::string nobody_uid = std::to_string(nobody->pw_uid), nobody_gid = std::to_string(nobody->pw_gid);
  start("LOGIN_REQUIRED: 0\nDEFAULT_LOGIN_NAME: nobody\n");

  std::string csv;
  for (int i = 0; i < 4000; ++i) csv += std::to_string(i) + ",name " + std::to_string(i) + "\n";
  CtlBuild spec = table_request(csv);
  spec.command = "LIST";
  spec.selections = {{"NAME", "=", "abc"}};
  spec.date_format = "DD.MM.YYYY";
  spec.language = "english";
  EXPECT_EQ(send(spec, false).rc, 0);

  std::optional<Probe> probe = next_probe();
  ASSERT_TRUE(probe) << daemon_->output();
  for (auto [key, value] : std::map<std::string, std::string>{
           {"uid", nobody_uid}, {"euid", nobody_uid}, {"gid", nobody_gid}, {"argc", "2"}, {"argv0", "quorprobe"},
           {"MOX_DATEFMT", "DD.MM.YYYY"}, {"MO_MOXMESSAGE", daemon_->root().str() + "/messages/english"}})
    EXPECT_EQ(probe->info[key], value) << key;
  ASSERT_EQ(probe->segment.size(), kShmSize);
  for (auto [field, value] : {std::pair{smc::username, "nobody"}, {smc::object, "PROBE"}, {smc::command, "LIST"},
                              {smc::source, "MOQuor"}, {smc::csl_count, "1"}, {smc::slot(smc::csl_value, 0), "abc"}})
    EXPECT_EQ(probe->field(field), value) << "field at " << field.offset;
  EXPECT_EQ(std::string(probe->segment.data() + 1, 64).c_str(), std::string(mo_nodename())) << "daemon's identity";
  EXPECT_EQ(std::string(probe->segment.data() + 174, 8).c_str(), std::string("UNIX1"));

  // The table arrived whole in the data file.
  EXPECT_EQ(table_of(*probe), csv);

  // The sweep reaps the agent: nothing stays behind.
  EXPECT_EQ(settle(users(0)), users(0));
}

// With logins required, a request without a login is refused once its last
// buffer has arrived, and no agent runs; a continuation nobody is waiting
// for is refused at once.
TEST_F(Commands, RequestsWithoutALoginOrATransactionAreRefused) {
  REQUIRE_ROOT();
  start("LOGIN_REQUIRED: 1\n");
  std::string list_path = (daemon_->root().path() / "names").string();
  std::string names;
  for (int i = 0; i < 5000; ++i) names += "name number " + std::to_string(i) + "\n";
  std::ofstream(list_path) << names;
  CtlBuild spec;
  spec.object = "PROBE";
  spec.data = CtlBuild::Data::List;
  spec.source = list_path;
  spec.type = "S";
  EXPECT_EQ(error_text(send(spec, true)), "1 The request's trailer does not announce more data.");
  {
    TevClient client;  // one client per process at a time
    auto continuation = testutil::sealed_request("S", [](TransactionHeader& h) { h.continuation = "Y"; });
    EXPECT_EQ(error_text(client.call(kServerName, continuation, 5000)).substr(0, 2), "1 ");
  }
  EXPECT_NE(daemon_->log().find("QUOR0118E"), std::string::npos);
  EXPECT_FALSE(next_probe(15)) << "an agent ran";
  EXPECT_EQ(counts(), users(0)) << "refusals left entries";
}

// An object missing from the map, a program that cannot be executed, or a
// damaged table is refused with an error reply and starts nothing; the
// transaction's segment and data file go with it. So does a table whose CSV
// turns out wrong after buffers of it went out: quorctl withdraws it.
TEST_F(Commands, RefusedRequestsStartNothingAndLeaveNothing) {
  REQUIRE_ROOT();
  if (getpwnam("nobody") == nullptr) GTEST_SKIP() << "no account 'nobody'";
  start("LOGIN_REQUIRED: 0\nDEFAULT_LOGIN_NAME: nobody\n", "PROBE quorprobe\nBROKEN notrunnable\n");
  std::ofstream(daemon_->root().path() / "quor/bin/notrunnable") << "#!/bin/sh\n";
  fs::permissions(daemon_->root().path() / "quor/bin/notrunnable", fs::perms::owner_read | fs::perms::owner_write);
  CtlBuild spec = table_request("a,b\n");
  spec.object = "NOSUCH";
  EXPECT_EQ(error_text(send(spec, true)).substr(0, 2), "1 ");
  spec.object = "BROKEN";
  EXPECT_EQ(error_text(send(spec, true)).substr(0, 2), "1 ");
  std::vector<char> damaged =
      ctl_parse_text("header S\nsegment ZZZHDR\nitem OBJ PROBE\nitem FN Y\nend\nsegment ZZZRDW\nstring 0\nend\n"
                     "trailer N\n").bytes;
  ASSERT_EQ(quor_wire_seal(damaged, damaged.size()), 0);
  {
    TevClient client;
    EXPECT_EQ(error_text(client.call(kServerName, std::vector<std::uint8_t>(damaged.begin(), damaged.end()), 5000)),
              "1 The request failed on the host. See the host's message log for details.");
  }
  std::string rows;
  for (int i = 0; i < 5000; ++i) rows += std::to_string(i) + ",row " + std::to_string(i) + "\n";
  std::ofstream(csv_path()) << rows << "last\n";
  spec.object = "PROBE";
  CtlOutcome withdrawn = ctl_agent_request(CtlTarget{}, spec, false);
  EXPECT_EQ(withdrawn.status, kCtlUsage);
  EXPECT_EQ(withdrawn.error, csv_path() + ": row 5001 has another number of values (the request was withdrawn)");
  EXPECT_NE(daemon_->log().find("QUOR0115E Object NOSUCH is not in the object map."), std::string::npos)
      << daemon_->log();
  EXPECT_NE(daemon_->log().find("QUOR0121E"), std::string::npos);
  EXPECT_FALSE(next_probe(15)) << "an agent ran";
  EXPECT_EQ(counts(), users(0));
  EXPECT_EQ(files_left(), "") << "data files left behind";
}

// A login reported for an account this host does not have: requests under
// it are refused with an error reply, and nothing starts as anyone else.
TEST_F(Commands, RequestsUnderAnAccountThatDoesNotExistStartNothing) {
  REQUIRE_ROOT();
  start("LOGIN_REQUIRED: 1\n");
  testutil::EnvGuard user("MOX_QUORUSER", "nosuchaccount");
  request("L", "LOGON", "LOGININFO", false);
  ASSERT_TRUE(next_probe()) << daemon_->output();
  settle(users(1));

  EXPECT_EQ(error_text(request("S", "PROBE", "", true)).substr(0, 2), "1 ");
  EXPECT_NE(daemon_->log().find("QUOR0301E"), std::string::npos) << daemon_->log();
  EXPECT_FALSE(next_probe(15)) << "an agent ran";
  EXPECT_EQ(counts(), users(1));
}

// A logoff from a client that never logged in still runs its agent (as the
// default login) and stops nothing else: the default login program goes on.
TEST_F(Commands, ALogoffWithoutALoginStopsNothing) {
  REQUIRE_ROOT();
  if (getpwnam("nobody") == nullptr) GTEST_SKIP() << "no account 'nobody'";
  start("LOGIN_REQUIRED: 0\nDEFAULT_LOGIN_NAME: nobody\n");
  auto children = [&] {
    std::string pid = std::to_string(daemon_->pid());
    return read_file("/proc/" + pid + "/task/" + pid + "/children");
  };
  std::string login = children();
  ASSERT_NE(login, "") << "no default login program";
  login = login.substr(0, login.find(' '));
  request("O", "PROBE", "", false);
  ASSERT_TRUE(next_probe()) << daemon_->output();
  EXPECT_EQ(settle(users(0)), users(0));
  std::string stat = read_file("/proc/" + login + "/stat");
  EXPECT_EQ(stat.substr(stat.rfind(')') + 2, 1), "S") << "the default login program was stopped: " << stat;
}

// A utility request runs its command as the account through the utility
// agent, whose answer (split over several buffers when long) reaches the
// client; a failing command gives its status; without a login the daemon's
// refusal comes back instead.
TEST_F(Commands, UtilityRequestsAnswerWithTheCommandsOutput) {
  REQUIRE_ROOT();
  const passwd* nobody = getpwnam("nobody");
  if (nobody == nullptr) GTEST_SKIP() << "no account 'nobody'";
  const std::string nobody_uid = std::to_string(nobody->pw_uid);
  start("LOGIN_REQUIRED: 0\nDEFAULT_LOGIN_NAME: nobody\n", "MOUTIL quorutil\n");
  CtlTarget target;
  target.timeout_ms = 10000;

  CtlOutcome id = ctl_util(target, {"id -u; echo hello"}, false);
  EXPECT_EQ(id.status, kCtlOk) << id.error << daemon_->output();
  EXPECT_EQ(id.out, nobody_uid + "\nhello\n");

  CtlOutcome failing = ctl_util(target, {"echo partial; exit 3"}, true);
  EXPECT_EQ(failing.status, kCtlDaemonError);
  EXPECT_EQ(failing.out, "{\"rc\":3,\"message\":\"the commands ended with status 3\",\"output\":\"partial\\n\"}\n");

  CtlOutcome many = ctl_util(target, {"seq 1 20000"}, false);
  std::string expected;
  for (int i = 1; i <= 20000; ++i) expected += std::to_string(i) + "\n";
  EXPECT_EQ(many.status, kCtlOk) << many.error;
  EXPECT_EQ(many.out, expected);
  // Once the agents are reaped, nothing of theirs stays behind.
  settle(users(0));
  EXPECT_EQ(files_left(), "") << "command or output files left behind";
}

// Without a login a utility request is refused: when logins are required,
// and when they are not but the default login program has ended.
TEST_F(Commands, UtilityRequestsNeedALoginOrADefaultLoginProgram) {
  REQUIRE_ROOT();
  const std::string refused = "RC 1: The request's trailer does not announce more data.";
  start("LOGIN_REQUIRED: 1\n", "MOUTIL quorutil\n");
  CtlOutcome r = ctl_util(CtlTarget{}, {"id"}, false);
  EXPECT_EQ(r.status, kCtlDaemonError);
  EXPECT_EQ(r.error, refused);

  if (getpwnam("nobody") == nullptr) GTEST_SKIP() << "no account 'nobody'";
  daemon_.reset();
  start("LOGIN_REQUIRED: 0\nDEFAULT_LOGIN_NAME: nobody\n", "MOUTIL quorutil\n");
  std::vector<pid_t> login;
  ASSERT_TRUE(testutil::eventually([&] { return !(login = testutil::processes(daemon_->pid(), "quoruserpgm")).empty(); }));
  kill(login[0], SIGKILL);
  ASSERT_TRUE(testutil::eventually([&] { return !testutil::processes(daemon_->pid(), "quoruserpgm", true).empty(); }));
  EXPECT_EQ(ctl_util(CtlTarget{}, {"id"}, false).error, refused);
}

// The whole flow with the sample agents: log in through the logon agent,
// run a command as the account, log off; a login for an unknown account or
// with a wrong password is refused and leaves nobody logged in.
TEST_F(Commands, LoginUtilityAndLogoffWithTheSampleAgents) {
  REQUIRE_ROOT();
  if (getpwnam("nobody") == nullptr || getpwnam("daemon") == nullptr) GTEST_SKIP() << "needs 'nobody' and 'daemon'";
  start("LOGIN_REQUIRED: 1\n", "LOGON quorlogon\nMOUTIL quorutil\n");
  {
    testutil::EnvGuard user("MOX_QUORUSER", "nosuchaccount");
    CtlOutcome refused = ctl_login(CtlTarget{}, std::nullopt, false);
    EXPECT_EQ(refused.status, kCtlDaemonError);
    EXPECT_EQ(refused.error, "RC 1: login refused for nosuchaccount");
  }
  // An unprivileged client needs the account's password; a wrong one fails.
  EXPECT_EQ(testutil::run_as("nobody",
                             [] {
                               testutil::EnvGuard user("MOX_QUORUSER", "daemon");
                               CtlOutcome refused = ctl_login(CtlTarget{}, std::string("not the password"), false);
                               return refused.error == "RC 1: login refused for daemon" ? 0 : 1;
                             }),
            0);
  EXPECT_EQ(settle(users(0)), users(0)) << "refused logins stayed";

  testutil::EnvGuard user("MOX_QUORUSER", "nobody");
  CtlOutcome login = ctl_login(CtlTarget{}, std::nullopt, false);
  EXPECT_EQ(login.status, kCtlOk) << login.error << daemon_->output();
  EXPECT_EQ(login.out, "logged in\n");
  std::vector<std::string> full = daemon_->status("F");
  EXPECT_NE(std::find(full.begin(), full.end(),
                      "    User nobody from node " + std::string(mo_nodename()) + " logged in as nobody.\n"),
            full.end());
  CtlOutcome who = ctl_util(CtlTarget{}, {"id -un"}, false);
  EXPECT_EQ(who.out, "nobody\n") << who.error;

  CtlOutcome logoff = ctl_logoff(CtlTarget{}, false);
  EXPECT_EQ(logoff.status, kCtlOk) << logoff.error;
  EXPECT_EQ(settle(users(0)), users(0));
  EXPECT_EQ(ctl_util(CtlTarget{}, {"id -un"}, false).error, "RC 1: The request's trailer does not announce more data.");
}

// A service request with every option quorctl run offers reaches the agent,
// whose answer comes back to the client.
TEST_F(Commands, ServiceRequestsAnsweredByTheirAgent) {
  REQUIRE_ROOT();
  if (getpwnam("nobody") == nullptr) GTEST_SKIP() << "no account 'nobody'";
  start("LOGIN_REQUIRED: 0\nDEFAULT_LOGIN_NAME: nobody\n");
  CtlBuild spec = table_request("a,b\nc,d\n");
  spec.command = "ANSWER";
  spec.format = "P";
  spec.date_format = "YYYY-MM-DD";
  spec.language = "english";
  spec.selections = {{"K", "<", "9"}};
  CtlOutcome answer = ctl_agent_request(CtlTarget{}, spec, false);
  EXPECT_EQ(answer.status, kCtlOk) << answer.error << daemon_->output();
  EXPECT_NE(answer.out.find("argv0=quorprobe\n"), std::string::npos) << answer.out;
  EXPECT_NE(answer.out.find("MOX_DATEFMT=YYYY-MM-DD\n"), std::string::npos) << answer.out;
  std::optional<Probe> probe = next_probe();
  ASSERT_TRUE(probe);
  EXPECT_EQ(probe->record()[smc::format.offset], 64);
  EXPECT_EQ(probe->field(smc::slot(smc::csl_name, 0)), "K");
  EXPECT_EQ(table_of(*probe), "a,b\nc,d\n");
}

}  // namespace
