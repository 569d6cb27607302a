// Command requests end to end: the real daemon, the real transport and a
// real agent (quorprobe), which records what it was given. One daemon per
// login rule serves a sequence of requests.
#include <gtest/gtest.h>
#include <pwd.h>

#include <map>

#include "agent_fixture.h"
#include "ctl_commands.h"
#include "ctl_files.h"
#include "momsg.h"

using testutil::Probe;
using testutil::read_file;
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
  // The error reply to one sealed buffer.
  static std::string refusal(const std::vector<std::uint8_t>& request) {
    TevClient client;  // one client per process at a time
    return error_text(client.call(kServerName, request, 5000));
  }
};

// With logins not required, requests run as the default login account.
TEST_F(Commands, RequestsRunAsTheDefaultLogin) {
  REQUIRE_ROOT();
  const passwd* nobody = getpwnam("nobody");
  if (nobody == nullptr) GTEST_SKIP() << "no account 'nobody'";
  const std::string nobody_uid = std::to_string(nobody->pw_uid), nobody_gid = std::to_string(nobody->pw_gid);
  start("LOGIN_REQUIRED: 0\nDEFAULT_LOGIN_NAME: nobody\n", "PROBE quorprobe\nBROKEN notrunnable\nMOUTIL quorutil\n",
        [](const fs::path& root) {
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
  EXPECT_EQ(refusal(testutil::sealed_request("S", {},
                                             [](OutBuf& out) {
                                               testutil::put_segment(out, "ZZZHDR", {"OBJ", "PROBE", "FN", "Y"});
                                               testutil::put_segment(out, "ZZZRDW", {"0"});
                                             })),
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
  EXPECT_EQ(table_of(*probe), csv) << "the table arrived whole in the data file";

  // A logoff from a client that never logged in still runs its agent and
  // stops nothing else: the default login program goes on.
  request("O", "PROBE", "", false);
  ASSERT_TRUE(next_probe()) << daemon_->output();
  EXPECT_EQ(settle(users(0)), users(0));
  std::string stat = read_file("/proc/" + login + "/stat");
  EXPECT_EQ(stat.substr(stat.rfind(')') + 2, 1), "S") << "the default login program was stopped: " << stat;

  // A utility request runs its command as the account through the utility
  // agent, whose answer (split over several buffers when long) reaches the
  // client; a failing command gives its status.
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
  settle(users(0));
  EXPECT_EQ(files_left(), "") << "data, command or output files left behind";

  // Once the default login program has ended, a utility request is refused.
  kill(std::stoi(login), SIGKILL);
  ASSERT_TRUE(testutil::eventually([&] { return !testutil::processes(daemon_->pid(), "quoruserpgm", true).empty(); }));
  EXPECT_EQ(ctl_util(CtlTarget{}, {"id"}, false).error, "RC 1: The request's trailer does not announce more data.");
}

// With logins required, requests need a login of an account of this host.
TEST_F(Commands, RequestsNeedALoginOfAnAccountOfThisHost) {
  REQUIRE_ROOT();
  if (getpwnam("nobody") == nullptr) GTEST_SKIP() << "no account 'nobody'";
  start("LOGIN_REQUIRED: 1\n", "PROBE quorprobe\nLOGON quorlogon\nMOUTIL quorutil\n");
  const std::string no_login = "The request's trailer does not announce more data.";

  // A request without a login is refused once its last buffer has arrived;
  // a continuation nobody is waiting for is refused at once.
  std::string names;
  for (int i = 0; i < 5000; ++i) names += "name number " + std::to_string(i) + "\n";
  std::ofstream(csv_path()) << names;
  CtlBuild spec;
  spec.object = "PROBE";
  spec.data = CtlBuild::Data::List;
  spec.source = csv_path();
  spec.type = "S";
  EXPECT_EQ(error_text(send(spec, true)), "1 " + no_login);
  auto continuation = testutil::sealed_request("S", [](TransactionHeader& h) { h.continuation = "Y"; });
  EXPECT_EQ(refusal(continuation).substr(0, 2), "1 ");
  EXPECT_TRUE(logged("QUOR0118E"));
  EXPECT_EQ(counts(), users(0)) << "refusals left entries";

  // Through the logon agent: a login for an unknown account is refused and
  // leaves nobody logged in; a login runs commands as the account until its
  // logoff (logins refused for other accounts, wrong passwords and the status
  // line of a session: the security and remote-host tests).
  testutil::EnvGuard unknown("MOX_QUORUSER", "nosuchaccount");
  EXPECT_EQ(ctl_login(CtlTarget{}, std::nullopt, false).error, "RC 1: login refused for nosuchaccount");
  EXPECT_EQ(settle(users(0)), users(0)) << "a refused login stayed";
  {
    testutil::EnvGuard user("MOX_QUORUSER", "nobody");
    EXPECT_EQ(ctl_login(CtlTarget{}, std::nullopt, false).out, "logged in\n") << daemon_->output();
    EXPECT_EQ(ctl_util(CtlTarget{}, {"id -un"}, false).out, "nobody\n");
    EXPECT_EQ(ctl_logoff(CtlTarget{}, false).status, kCtlOk);
    EXPECT_EQ(settle(users(0)), users(0));
    EXPECT_EQ(ctl_util(CtlTarget{}, {"id -un"}, false).error, "RC 1: " + no_login);
  }
  EXPECT_FALSE(next_probe(15)) << "an agent ran";

  // A login reported (by the probe as logon agent) for an account this host
  // does not have: requests under it are refused, and nothing starts as
  // anyone else.
  std::ofstream(daemon_->root().path() / "quor/etc/quorobj.map") << "PROBE quorprobe\nLOGON quorprobe\n";
  ASSERT_EQ(ctl_refresh(CtlTarget{}, std::nullopt, false).status, kCtlOk);
  request("L", "LOGON", "LOGININFO", false);
  ASSERT_TRUE(next_probe()) << daemon_->output();
  settle(users(1));
  EXPECT_EQ(error_text(request("S", "PROBE", "", true)).substr(0, 2), "1 ");
  EXPECT_TRUE(logged("QUOR0301E")) << daemon_->log();
  EXPECT_FALSE(next_probe(15)) << "an agent ran";
  EXPECT_EQ(counts(), users(1));
}

}  // namespace
