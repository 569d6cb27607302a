// Clients on another host, through a real broker (TLS, client certificates, the users etc/nats/make-host-users writes).
// This process takes host A's node name in a UTS namespace of its own and runs the daemon; host B is a child in another
// one (node "nodeb") running quorctl.
#include <arpa/inet.h>
#include <nats/nats.h>
#include <sched.h>
#include <sys/socket.h>

#include <cstring>
#include <ranges>

#include <gmock/gmock.h>

#include "agent_fixture.h"
#include "ctl_commands.h"
#include "ctl_text.h"
#include "tev_subject.h"
#include "tev_wire.h"

namespace {

namespace fs = std::filesystem;
using Env = std::map<std::string, std::string>;
using ::testing::HasSubstr;
using testutil::read_file;

// Host A's node name holds a dot, as a domain name does: subjects encode it.
constexpr const char* kNodeA = "nodea.example";
constexpr const char* kNodeB = "nodeb";
// An account of this process's own (tests may run in parallel processes).
const std::string kAccount = "qnt" + std::to_string(getpid());
constexpr const char* kPassword = "Remote-login-1";

bool run(const std::string& command) { return std::system(command.c_str()) == 0; }

// A free port on 127.0.0.1 (with `port` 0), or whether `port` accepts.
int loopback(int port) {
  sockaddr_in a{AF_INET, htons(static_cast<std::uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
  auto* address = reinterpret_cast<sockaddr*>(&a);
  socklen_t len = sizeof a;
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  bool done = port != 0 ? connect(fd, address, len) == 0
                        : bind(fd, address, len) == 0 && getsockname(fd, address, &len) == 0;
  close(fd);
  return port != 0 || !done ? done : ntohs(a.sin_port);
}

struct Outcome { int status = -1; std::string out; };  // quorctl's exit status, output and errors

class Fleet : public testutil::AgentDaemonTest {
 protected:
  static void SetUpTestSuite() {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: node names of their own (UTS namespaces) and accounts";
    if (!run("command -v nats-server openssl >/dev/null")) GTEST_SKIP() << "needs nats-server and openssl";
    if (unshare(CLONE_NEWUTS) != 0 || sethostname(kNodeA, std::strlen(kNodeA)) != 0)
      GTEST_SKIP() << "cannot take a node name of its own";
    dir_ = new testutil::TempDir;
    fs::permissions(dir_->path(), fs::perms::all);  // agents under other accounts read the credentials
    std::string d = dir_->str();
    std::string req = " && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 1";
    port_ = loopback(0);
    std::ofstream(d + "/broker.conf") << "listen: 127.0.0.1:" << port_ << "\ntls { cert_file: \"" << d
                                      << "/host.pem\"\n key_file: \"" << d << "/host.key\"\n ca_file: \"" << d
                                      << "/ca.pem\"\n verify: true }\ninclude \"hosts.conf\"\n";
    // A CA and one certificate for 127.0.0.1 that the broker and the hosts all use, the hosts' users, an account.
    if (!run("cd " + d + " && exec 2>/dev/null" + req + " -keyout ca.key -out ca.pem -subj /CN=ca" + req +
             " -keyout host.key -out host.pem -subj /CN=host -CA ca.pem -CAkey ca.key"
             " -addext subjectAltName=IP:127.0.0.1 -addext basicConstraints=CA:FALSE && chmod 0644 host.key && "
             QUOR_SOURCE_DIR "/etc/nats/make-host-users " + d + " " + kNodeA + " " + kNodeB +
             " && chmod 0644 *.password && useradd -M -s /usr/sbin/nologin " + kAccount + " && echo '" + kAccount +
             ":" + kPassword + "' | chpasswd") || !start_broker())
      GTEST_SKIP() << "cannot make the certificates, the account or start the broker";
  }
  static void TearDownTestSuite() {
    broker_.reset();
    delete dir_;
    if (geteuid() == 0) run("userdel " + kAccount + " 2>/dev/null");
  }
  // The broker (killed by its pid when reset); true once it accepts.
  static bool start_broker() {
    std::string d = dir_->str();
    broker_ = testutil::exec_child("/bin/sh",
                                   {"-c", "exec nats-server -c " + d + "/broker.conf -l " + d + "/broker.log"});
    return testutil::eventually([] { return loopback(port_) != 0; }, std::chrono::seconds(5));
  }

  // The broker settings of host `node`: its user, password file and client certificate.
  static Env host_env(const std::string& node) {
    std::string d = dir_->str();
    return {{"TEV_URL", "tls://127.0.0.1:" + std::to_string(port_)}, {"TEV_NATS_USER", node},
            {"TEV_NATS_PASSWORD_FILE", d + "/" + node + ".password"}, {"TEV_TLS_CA", d + "/ca.pem"},
            {"TEV_TLS_CERT", d + "/host.pem"}, {"TEV_TLS_KEY", d + "/host.key"}};
  }

  // quorctl on host B (or on host `node` with B's settings) addressing host A, with `changes` to
  // its environment (an empty value unsets) and `input` on its standard input.
  static Outcome to_a(std::vector<std::string> args, const Env& changes = {}, const std::string& node = kNodeB,
                      const std::string& input = "") {
    if (args[0] != "hosts") args.insert(args.begin(), {"--host", kNodeA, "--timeout", "3"});
    testutil::TempDir here;
    std::string out = here.str() + "/out", in = here.str() + "/in";
    std::ofstream(in) << input;
    Env env = changes;  // a merge keeps what is there
    env.merge(Env{{"TEV_DIR", here.str()}, {"MOX_QUORUSER", kAccount}});
    env.merge(host_env(kNodeB));
    testutil::Child child([&] {
      if (unshare(CLONE_NEWUTS) != 0 || sethostname(node.c_str(), node.size()) != 0) return 126;
      for (auto& [k, v] : env) v.empty() ? unsetenv(k.c_str()) : setenv(k.c_str(), v.c_str(), 1);
      std::string command = QUORCTL_PATH;
      for (const std::string& a : args) command += " '" + a + "'";  // none holds a quote
      int status = std::system((command + " <" + in + " >" + out + " 2>&1").c_str());
      return WIFEXITED(status) ? WEXITSTATUS(status) : 126;
    });
    return Outcome{child.wait(), read_file(out)};  // in this order
  }

  static inline testutil::TempDir* dir_ = nullptr;
  static inline std::unique_ptr<testutil::Child> broker_;
  static inline int port_ = 0;
};

// A raw request: a transaction header, then `more` for the trailer.
std::string raw_header(char code, int pid, const std::string& node, char more) {
  return "segment ZZZTRN\nitem COD " + std::string(1, code) + "\nitem PID " + std::to_string(pid) + "\nitem NOD " +
         node + "\nitem USR u\nitem GID 0\nitem ADD N\nitem OS UNIX1\nend\ntrailer " + more + "\n";
}

// One daemon on host A; what a remote host may do is the configuration's. The default login account is for local
// users only: a remote request needs a session, and a remote login the account's password (the client's own account
// counts for nothing from another host); a table then goes to an agent, which answers host B. A host in ADMIN_NODES
// may control the daemon (its refresh drops it from the list); then control requests and a request whose NOD names
// another node are refused, the reports (the full one in several buffers, partial ones from the daemon's temporary
// name) and the list of daemons are served, and the broker admits a host only with its own password, over TLS, as
// its own node (B's user on a host calling itself nodec). Then the broker goes away and comes back.
TEST_F(Fleet, RemoteClientsRightsLoginAndBrokerLoss) {
  if (getpwnam("nobody") == nullptr) GTEST_SKIP() << "no account 'nobody'";
  start("LOGIN_REQUIRED: 0\nDEFAULT_LOGIN_NAME: nobody\nADMIN_NODES: nodec,nodeb\n",
        "LOGON quorlogon\nPROBE quorprobe\n", {}, host_env(kNodeA));
  EXPECT_EQ(to_a({"run", "PROBE", "ANSWER"}).status, kCtlDaemonError) << daemon_->log();
  EXPECT_FALSE(next_probe(25));
#if !defined(__SANITIZE_ADDRESS__)  // its crypt interceptor crashes a real password check through PAM
  // No password and a wrong one are refused alike (a refused login's agent
  // ends, and its session with it, before the next); the right one logs in.
  for (const std::string& input : std::vector<std::string>{"", "not the password\n", kPassword + std::string("\n")}) {
    std::vector<std::string> args = {"--timeout", "10", "login"};
    if (!input.empty()) args.push_back("--password-stdin");
    Outcome login = to_a(args, {}, kNodeB, input);
    ASSERT_EQ(login.status, input.starts_with(kPassword) ? kCtlOk : kCtlDaemonError) << input << login.out;
    if (login.status != kCtlOk) settle(users(0));
  }
  std::ofstream(dir_->str() + "/t.csv") << "a,b\nc,d\n";
  Outcome table = to_a({"run", "PROBE", "ANSWER", "--table", dir_->str() + "/t.csv"});
  EXPECT_EQ(table.status, 0) << table.out;
  EXPECT_THAT(table.out, HasSubstr("argv0=quorprobe"));
  std::optional<testutil::Probe> probe = next_probe();
  ASSERT_TRUE(probe);
  EXPECT_THAT(probe->info["env"], HasSubstr("QUOR_CLIENT_HOST"));
  EXPECT_THAT(probe->info["env"], ::testing::Not(HasSubstr("QUOR_CLIENT_UID")));
  fs::path copy = dir_->path() / "copy.rdw";
  std::ofstream(copy, std::ios::binary) << probe->data;
  EXPECT_EQ(ctl_table_to_csv(copy.string()).out, "a,b\nc,d\n");
  EXPECT_EQ(to_a({"logoff"}).status, 0);
#endif
  std::ofstream(daemon_->root().path() / "quor/etc/quor.config") << "LOGIN_REQUIRED: 1\n";
  EXPECT_EQ(to_a({"refresh"}).status, kCtlOk) << daemon_->log();

  // First buffers of transactions from here: they wait and fill the full report.
  for (int p = 1; p <= 450; ++p) {
    CtlRequest r = ctl_parse_text(raw_header('S', p, std::string(60, 'n'), 'Y'));
    ASSERT_EQ(quor_wire_seal(r.bytes, r.bytes.size()), 0);
    TevClient().call(kServerName, std::vector<std::uint8_t>(r.bytes.begin(), r.bytes.end()), 0, false);
  }
  std::string pid = std::to_string(daemon_->pid()), d = dir_->str();
  struct Case { std::vector<std::string> args; int status; std::string says;  // and how quorctl runs:
                Env changes = {}; std::string node = kNodeB, input = ""; };
  const std::string forged = raw_header('B', 1, kNodeA, 'N'), port = std::to_string(port_);
  for (const Case& c : std::initializer_list<Case>{
           {{"status"}, kCtlOk, "pid=" + pid},
           {{"--json", "status", "--full"}, kCtlOk, "450 transactions in progress"},
           {{"hosts"}, kCtlOk, std::string(kNodeA) + "  MO_QUORUNIX_SERVER  pid " + pid},
           {{"refresh"}, kCtlDaemonError, "R request from host nodeb"},
           {{"terminate"}, kCtlOk, ""},
           {{"raw", "-"}, kCtlOk, "Refused a request from host nodeb (NOD nodea.example)", {}, kNodeB, forged},
           {{"status"}, kCtlNotRunning, "", {{"TEV_NATS_PASSWORD_FILE", d + "/" + kNodeA + ".password"}}},
           {{"status"}, kCtlNotRunning, "", {{"TEV_NATS_USER", ""}}},
           {{"status"}, kCtlNotRunning, "",
            {{"TEV_URL", "nats://127.0.0.1:" + port}, {"TEV_TLS_CA", ""}, {"TEV_TLS_CERT", ""}, {"TEV_TLS_KEY", ""}}},
           {{"status"}, kCtlNoReply, "", {}, "nodec"}}) {
    Outcome o = to_a(c.args, c.changes, c.node, c.input);
    EXPECT_EQ(o.status, c.status) << c.args[0] << " from " << c.node << ": " << o.out;
    EXPECT_THAT(o.out, HasSubstr(c.says));
    if (c.args[0] == "raw") { EXPECT_THAT(o.out, ::testing::Not(HasSubstr("ZZZSTS"))); }
    if (c.args[0] == "--json") { EXPECT_THAT(o.out.substr(0, 40), ::testing::ContainsRegex("\"buffers\":[2-9],")); }
  }
  EXPECT_THAT(daemon_->log(), HasSubstr("T request from host nodeb"));
  EXPECT_THAT(daemon_->log(), ::testing::Not(HasSubstr("nodec")));

  // The broker going away and coming back: local clients are served all the
  // time, remote ones again once it is back, and the daemon logs each change once.
  broker_.reset();
  EXPECT_EQ(daemon_->status("B").size(), 6u);
  EXPECT_EQ(to_a({"status"}).status, kCtlNotRunning);
  ASSERT_TRUE(start_broker());
  EXPECT_TRUE(testutil::eventually([] { return to_a({"status"}).status == 0; }, std::chrono::seconds(30)));
  EXPECT_EQ(daemon_->status("B").size(), 6u);
  std::string log = daemon_->log();
  auto count = [&](std::string_view what) { return std::ranges::distance(std::views::split(log, what)) - 1; };
  EXPECT_EQ(count("QUOR0404"), 1) << log;
  EXPECT_EQ(count("QUOR0403"), 2) << log;
}

// A receiver takes the sender from the subject, which the broker checked: a datagram whose sender
// block names another node, or a message claiming the receiver's own node, is dropped and counted.
TEST_F(Fleet, ReceiverTrustsTheSubjectNotTheSenderBlock) {
  testutil::TempDir tev_dir;  // its own local names, apart from other runs on the machine
  Env a = host_env(kNodeA);  // outlives the guards, which keep the names
  a.emplace("TEV_DIR", tev_dir.str());
  std::vector<std::unique_ptr<testutil::EnvGuard>> env;
  for (auto& [k, v] : a) env.push_back(std::make_unique<testutil::EnvGuard>(k.c_str(), v));
  TevIdentity receiver, from;
  receiver.set_app_name("NATSRCV");
  TevFeedback fb, rfb;
  ASSERT_EQ(TevInit(fb, receiver, kTevModeNormal), 0) << fb.FB_ErrorText;
  receiver = fb.FB_Local_Id;
  // As `host`'s broker user: a datagram from `block_node` on a subject from `subject_node`.
  auto publish = [&](const char* host, const char* block_node, const char* subject_node) {
    Env h = host_env(host);
    std::string password = read_file(h["TEV_NATS_PASSWORD_FILE"]), cert = h["TEV_TLS_CERT"], key = h["TEV_TLS_KEY"];
    natsOptions* opts = nullptr;
    natsConnection* nc = nullptr;
    ASSERT_TRUE(natsOptions_Create(&opts) == NATS_OK && natsOptions_SetURL(opts, h["TEV_URL"].c_str()) == NATS_OK &&
                natsOptions_SetUserInfo(opts, host, password.substr(0, password.find('\n')).c_str()) == NATS_OK &&
                natsOptions_LoadCATrustedCertificates(opts, h["TEV_TLS_CA"].c_str()) == NATS_OK &&
                natsOptions_LoadCertificatesChain(opts, cert.c_str(), key.c_str()) == NATS_OK &&
                natsConnection_Connect(&nc, opts) == NATS_OK);
    TevIdentity block;
    block.set_system_id(block_node);
    block.set_app_name("SENDER");
    std::vector<std::uint8_t> datagram(kTevHeaderSize + 2, 'x');
    tev_encode_header(std::span<std::uint8_t, kTevHeaderSize>(datagram.data(), kTevHeaderSize), kTevKindData, 7, block,
                      receiver, 2);
    std::string subject = tev_subject_text({kNodeA, "NATSRCV", subject_node, "SENDER"});
    natsConnection_Publish(nc, subject.c_str(), datagram.data(), static_cast<int>(datagram.size()));
    natsConnection_Flush(nc);
    natsConnection_Destroy(nc);
    natsOptions_Destroy(opts);
  };
  TevInquiry inquiry;
  char buf[16];
  // The receiver subscribes once its connection is up, which on a busy
  // host may be after the first publish: wait until a good message arrives.
  ASSERT_TRUE(testutil::eventually([&] {
    publish(kNodeB, kNodeB, kNodeB);
    return TevRecvTimed(rfb, receiver, from, buf, sizeof buf, inquiry, 500) == 0;
  })) << rfb.FB_ErrorText;
  while (TevRecvTimed(rfb, receiver, from, buf, sizeof buf, inquiry, 200) == 0) continue;  // a late duplicate
  publish(kNodeB, "nodec", kNodeB);  // the block lies about the node
  publish(kNodeB, kNodeB, kNodeB);   // as it should be
  publish(kNodeA, kNodeA, kNodeA);   // this node, through the broker
  ASSERT_EQ(TevRecvTimed(rfb, receiver, from, buf, sizeof buf, inquiry, 3000), 0) << rfb.FB_ErrorText;
  EXPECT_EQ(std::string(from.system_id()) + " " + std::string(from.app_name()), "nodeb SENDER");
  EXPECT_EQ(inquiry.host, kNodeB);
  EXPECT_EQ(inquiry.uid, static_cast<uid_t>(-1));
  EXPECT_EQ(TevRecvTimed(rfb, receiver, from, buf, sizeof buf, inquiry, 500), 1);
  EXPECT_EQ(rfb.FB_Dropped, 2u);
  TevTerm(fb, receiver, kTevModeNormal);
}

}  // namespace
