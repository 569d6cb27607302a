// Clients on another host, through a real broker. The test process takes
// the node name of host A in a UTS namespace of its own, and runs the
// daemon there; host B is a child in another UTS namespace (node "nodeb")
// with its own transport directory, running quorctl. The broker listens on
// 127.0.0.1 with TLS (certificates made here, client certificates
// required) and the per-host users that etc/nats/make-host-users writes.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sched.h>
#include <nats/nats.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>

#include <gmock/gmock.h>

#include "agent_fixture.h"
#include "ctl_commands.h"
#include "ctl_text.h"
#include "tev_subject.h"
#include "tev_wire.h"

namespace {

namespace fs = std::filesystem;
using testutil::Daemon;
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
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{AF_INET, htons(static_cast<std::uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t len = sizeof addr;
  int result = port == 0 ? (bind(fd, reinterpret_cast<sockaddr*>(&addr), len) == 0 &&
                                    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0
                                ? ntohs(addr.sin_port)
                                : 0)
                         : connect(fd, reinterpret_cast<sockaddr*>(&addr), len) == 0;
  close(fd);
  return result;
}

// The broker process, killed by its pid when stopped.
class Broker {
 public:
  Broker(fs::path config, int port) : config_(std::move(config)), port_(port) {}
  bool start() {
    process_ = std::make_unique<testutil::Child>([&] {
      std::string log = (config_.parent_path() / "broker.log").string();
      if (freopen(log.c_str(), "a", stdout) && freopen(log.c_str(), "a", stderr))
        execlp("nats-server", "nats-server", "-c", config_.c_str(), static_cast<char*>(nullptr));
      return 127;
    });
    for (int i = 0; i < 250 && !loopback(port_); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return loopback(port_);
  }
  void stop() { process_.reset(); }

 private:
  fs::path config_;
  int port_;
  std::unique_ptr<testutil::Child> process_;
};

struct Outcome { int status = -1; std::string out, err; };

class Fleet : public testutil::AgentDaemonTest {
 protected:
  static void SetUpTestSuite() {
    if (geteuid() != 0) return skip("needs root: node names of their own (UTS namespaces) and accounts");
    if (!run("command -v nats-server openssl >/dev/null")) return skip("needs nats-server and openssl");
    if (unshare(CLONE_NEWUTS) != 0 || sethostname(kNodeA, std::strlen(kNodeA)) != 0)
      return skip("cannot take a node name of its own");
    dir_ = new testutil::TempDir;
    fs::permissions(dir_->path(), fs::perms::all);  // agents under other accounts read the credentials
    std::string d = dir_->str();
    // A CA, the broker's certificate for 127.0.0.1 and one client certificate.
    std::string ec = "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
    bool made = run("cd " + d + " && openssl req -x509 " + ec + " -keyout ca.key -out ca.pem -days 1 -subj /CN=ca 2>/dev/null"
                    " && openssl req " + ec + " -keyout server.key -out server.csr -subj /CN=broker 2>/dev/null"
                    " && printf 'subjectAltName=IP:127.0.0.1' > san"
                    " && openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 1"
                    "    -extfile san -out server.pem 2>/dev/null"
                    " && openssl req " + ec + " -keyout client.key -out client.csr -subj /CN=host 2>/dev/null"
                    " && openssl x509 -req -in client.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 1"
                    "    -out client.pem 2>/dev/null && chmod 0644 *.key"
                    " && " QUOR_SOURCE_DIR "/etc/nats/make-host-users " + d + " " + kNodeA + " " + kNodeB +
                    " && chmod 0644 *.password");
    port_ = loopback(0);
    std::ofstream(d + "/broker.conf") << "listen: 127.0.0.1:" << port_ << "\n"
                                      << "tls { cert_file: \"" << d << "/server.pem\"\n key_file: \"" << d
                                      << "/server.key\"\n ca_file: \"" << d << "/ca.pem\"\n verify: true }\n"
                                      << "include \"hosts.conf\"\n";
    made = made && run("useradd -M -s /usr/sbin/nologin " + kAccount + " && echo '" + kAccount + ":" +
                           kPassword + "' | chpasswd");
    broker_ = new Broker(d + "/broker.conf", port_);
    if (!made || !broker_->start()) skip("cannot make the certificates, the account or start the broker");
  }
  static void TearDownTestSuite() {
    delete broker_;
    delete dir_;
    if (geteuid() == 0) run("userdel " + kAccount + " 2>/dev/null");
  }
  static void skip(std::string why) { skip_ = std::move(why); }

  void SetUp() override {
    if (!skip_.empty()) GTEST_SKIP() << skip_;
    AgentDaemonTest::SetUp();
  }

  // The broker settings of host `node`: its user, password file and client certificate.
  static std::map<std::string, std::string> host_env(const std::string& node) {
    std::string d = dir_->str();
    return {{"TEV_URL", "tls://127.0.0.1:" + std::to_string(port_)},
            {"TEV_NATS_USER", node},
            {"TEV_NATS_PASSWORD_FILE", d + "/" + node + ".password"},
            {"TEV_TLS_CA", d + "/ca.pem"},
            {"TEV_TLS_CERT", d + "/client.pem"},
            {"TEV_TLS_KEY", d + "/client.key"}};
  }

  void start_host_a(std::string config = "LOGIN_REQUIRED: 1\n") {
    start(std::move(config), "LOGON quorlogon\nPROBE quorprobe\n", {}, host_env(kNodeA));
  }

  // quorctl on host B (or, with `node`, on another host name with B's
  // settings) addressing the daemon on host A, with `changes` to its
  // environment (an empty value unsets).
  static Outcome to_a(std::vector<std::string> args, std::map<std::string, std::string> changes = {},
                      const std::string& node = kNodeB, const std::string& input = "") {
    if (args[0] != "hosts") args.insert(args.begin(), {"--host", kNodeA, "--timeout", "3"});
    testutil::TempDir here;
    fs::create_directories(here.path() / "tev");
    std::string out = here.str() + "/out", err = here.str() + "/err", in = here.str() + "/in";
    std::ofstream(in) << input;
    std::map<std::string, std::string> env = host_env(kNodeB);
    env["TEV_DIR"] = here.str() + "/tev";
    env["MOX_QUORUSER"] = kAccount;
    for (auto& [k, v] : changes) env[k] = v;
    testutil::Child child([&] {
      if (unshare(CLONE_NEWUTS) != 0 || sethostname(node.c_str(), node.size()) != 0) return 126;
      for (auto& [k, v] : env) v.empty() ? unsetenv(k.c_str()) : setenv(k.c_str(), v.c_str(), 1);
      if (!freopen(in.c_str(), "r", stdin) || !freopen(out.c_str(), "w", stdout) || !freopen(err.c_str(), "w", stderr))
        return 126;
      std::vector<char*> argv = {const_cast<char*>(QUORCTL_PATH)};
      for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      execv(QUORCTL_PATH, argv.data());
      return 127;
    });
    int status = child.wait();
    return Outcome{status, read_file(out), read_file(err)};
  }

  // A first buffer that announces more, from this host's root with a long
  // node name: it waits in the daemon's table and fills the full report.
  static void leave_unfinished(TevClient& client, int pid) {
    std::string node(60, 'n');
    CtlRequest r = ctl_parse_text("segment ZZZTRN\nitem COD S\nitem PID " + std::to_string(pid) + "\nitem NOD " + node +
                                  "\nitem USR u\nitem GID 0\nitem ADD N\nitem OS UNIX1\nend\ntrailer Y\n");
    ASSERT_EQ(quor_wire_seal(r.bytes, r.bytes.size()), 0);
    client.call(kServerName, std::vector<std::uint8_t>(r.bytes.begin(), r.bytes.end()), 0, false);
  }

  static inline testutil::TempDir* dir_ = nullptr;
  static inline Broker* broker_ = nullptr;
  static inline int port_ = 0;
  static inline std::string skip_;
};

// Over TLS with client certificates: the brief and the multi-buffer full
// report (partial replies from the daemon's temporary name), the list of
// daemons; control requests and a request whose NOD names another node are
// refused, and the daemon goes on.
TEST_F(Fleet, RemoteStatusServedAndControlRefused) {
  start_host_a();
  Outcome brief = to_a({"status"});
  EXPECT_EQ(brief.status, 0) << brief.err << daemon_->log();
  EXPECT_NE(brief.out.find("pid=" + std::to_string(daemon_->pid())), std::string::npos) << brief.out;

  TevClient local;
  for (int pid = 1; pid <= 450; ++pid) leave_unfinished(local, pid);
  Outcome full = to_a({"--json", "status", "--full"});
  EXPECT_EQ(full.status, 0) << full.err;
  EXPECT_THAT(full.out.substr(0, 40), ::testing::ContainsRegex("\"buffers\":[2-9],"));
  EXPECT_NE(full.out.find("450 transactions in progress"), std::string::npos);

  Outcome hosts = to_a({"hosts"});
  EXPECT_EQ(hosts.status, 0) << hosts.err;
  EXPECT_TRUE(hosts.out.starts_with(std::string(kNodeA) + "  MO_QUORUNIX_SERVER  pid " + std::to_string(daemon_->pid())))
      << hosts.out;

  Outcome refresh = to_a({"refresh"});
  EXPECT_EQ(refresh.status, kCtlDaemonError);
  EXPECT_NE((refresh.out + refresh.err).find("R request from host nodeb"), std::string::npos) << refresh.err;
  EXPECT_EQ(to_a({"terminate"}).status, 0);
  std::string lie = "segment ZZZTRN\nitem COD B\nitem PID 1\nitem NOD " + std::string(kNodeA) +
                    "\nitem USR u\nitem GID 0\nitem ADD N\nitem OS UNIX1\nend\ntrailer N\n";
  Outcome lying = to_a({"raw", "-"}, {}, kNodeB, lie);
  EXPECT_NE(lying.out.find("Refused a request from host nodeb (NOD nodea.example)"), std::string::npos) << lying.out;
  EXPECT_EQ(lying.out.find("ZZZSTS"), std::string::npos);
  EXPECT_TRUE(daemon_->alive());
  EXPECT_NE(daemon_->log().find("T request from host nodeb"), std::string::npos);
}

// What a remote host may do is the configuration's to say: a host in
// ADMIN_NODES may control the daemon; the default login account is for
// local users only, so a remote request without a session is refused.
TEST_F(Fleet, RemoteRightsFollowTheConfiguration) {
  if (getpwnam("nobody") == nullptr) GTEST_SKIP() << "no account 'nobody'";
  start_host_a("LOGIN_REQUIRED: 0\nDEFAULT_LOGIN_NAME: nobody\nADMIN_NODES: nodec,nodeb\n");
  Outcome refresh = to_a({"refresh"});
  EXPECT_EQ(refresh.status, 0) << refresh.err;
  Outcome run = to_a({"run", "PROBE", "ANSWER"});
  EXPECT_EQ(run.status, kCtlDaemonError) << run.out;
  EXPECT_FALSE(next_probe(25));
}

// A remote login needs the account's password (the client's own account,
// root here, counts for nothing from another host); then a table goes to an agent,
// which answers the client on host B, and the logoff ends the session.
TEST_F(Fleet, RemoteLoginTableAndLogoff) {
#if defined(__SANITIZE_ADDRESS__)
  // The sanitizer's crypt interceptor has no function to call when PAM's
  // module loads the crypt library itself: a real password check crashes.
  GTEST_SKIP() << "a password check through PAM cannot run under AddressSanitizer";
#endif
  start_host_a();
  // A refused login's agent ends, and its session with it, before the next.
  auto settle = [&] {
    const std::string none = "    0 users logged into quor\n    0 transactions in progress.\n";
    for (int i = 0; i < 150 && counts() != none; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  };
  // A remote client proves nothing by its kernel identity: no password and a
  // wrong one are refused alike.
  for (const char* input : {"", "not the password\n"}) {
    std::vector<std::string> args = {"--timeout", "10", "login"};
    if (*input != '\0') args.push_back("--password-stdin");
    Outcome refused = to_a(args, {}, kNodeB, input);
    EXPECT_EQ(refused.status, kCtlDaemonError) << input << refused.err;
    settle();
  }
  Outcome login = to_a({"--timeout", "10", "login", "--password-stdin"}, {}, kNodeB, std::string(kPassword) + "\n");
  ASSERT_EQ(login.status, 0) << login.out << login.err << daemon_->log();

  std::string csv = dir_->str() + "/t.csv";
  std::ofstream(csv) << "a,b\nc,d\n";
  Outcome table = to_a({"run", "PROBE", "ANSWER", "--table", csv});
  EXPECT_EQ(table.status, 0) << table.err;
  std::optional<testutil::Probe> probe = next_probe();
  ASSERT_TRUE(probe);
  EXPECT_NE(probe->info["env"].find("QUOR_CLIENT_HOST"), std::string::npos);
  EXPECT_EQ(probe->info["env"].find("QUOR_CLIENT_UID"), std::string::npos);
  fs::path copy = dir_->path() / "copy.rdw";
  std::ofstream(copy, std::ios::binary) << probe->data;
  EXPECT_EQ(ctl_table_to_csv(copy.string()).out, "a,b\nc,d\n");
  EXPECT_NE(table.out.find("argv0=quorprobe"), std::string::npos) << table.out;

  Outcome logoff = to_a({"logoff"});
  EXPECT_EQ(logoff.status, 0) << logoff.err;
}

// The broker admits a host only with its own password, over TLS, and
// publishing as its own node; the daemon never sees the rest.
TEST_F(Fleet, BrokerRefusesImpostorsAndBadCredentials) {
  start_host_a();
  fs::path wrong = dir_->path() / "wrong.password";
  std::ofstream(wrong) << "not-the-password\n";
  std::map<std::string, std::string> wrong_password = {{"TEV_NATS_PASSWORD_FILE", wrong.string()}};
  Outcome refused = to_a({"status"}, wrong_password);
  EXPECT_EQ(refused.status, kCtlNotRunning) << refused.err;
  EXPECT_EQ(to_a({"status"}, {{"TEV_NATS_USER", ""}}).status, kCtlNotRunning);
  std::map<std::string, std::string> plain_text = {
      {"TEV_URL", "nats://127.0.0.1:" + std::to_string(port_)}, {"TEV_TLS_CA", ""}, {"TEV_TLS_CERT", ""}, {"TEV_TLS_KEY", ""}};
  Outcome plain = to_a({"status"}, plain_text);
  EXPECT_EQ(plain.status, kCtlNotRunning) << plain.err;
  // Host B's user on a machine calling itself nodec: the broker drops what
  // it publishes as nodec.
  EXPECT_EQ(to_a({"status"}, {}, "nodec").status, kCtlNoReply);
  EXPECT_EQ(daemon_->log().find("nodec"), std::string::npos);
}

// Publishes `sender`'s datagram to `receiver` as `host`'s broker user, on
// the subject naming `subject_sender` as the sender.
void publish_as(const std::map<std::string, std::string>& host, const TevIdentity& sender,
                const TevIdentity& receiver, const TevIdentity& subject_sender) {
  natsOptions* opts = nullptr;
  natsConnection* nc = nullptr;
  std::string password = read_file(host.at("TEV_NATS_PASSWORD_FILE"));
  natsOptions_Create(&opts);
  natsOptions_SetURL(opts, host.at("TEV_URL").c_str());
  natsOptions_SetUserInfo(opts, host.at("TEV_NATS_USER").c_str(), password.substr(0, password.find('\n')).c_str());
  natsOptions_LoadCATrustedCertificates(opts, host.at("TEV_TLS_CA").c_str());
  natsOptions_LoadCertificatesChain(opts, host.at("TEV_TLS_CERT").c_str(), host.at("TEV_TLS_KEY").c_str());
  ASSERT_EQ(natsConnection_Connect(&nc, opts), NATS_OK);
  std::vector<std::uint8_t> datagram(kTevHeaderSize + 2, 'x');
  tev_encode_header(std::span<std::uint8_t, kTevHeaderSize>(datagram.data(), kTevHeaderSize), kTevKindData, 7, sender,
                    receiver, 2);
  std::string subject = tev_subject_text({std::string(receiver.system_id()), std::string(receiver.app_name()),
                                          std::string(subject_sender.system_id()), std::string(subject_sender.app_name())});
  natsConnection_Publish(nc, subject.c_str(), datagram.data(), static_cast<int>(datagram.size()));
  natsConnection_Flush(nc);
  natsConnection_Destroy(nc);
  natsOptions_Destroy(opts);
}

// A receiver takes the sender from the subject, which the broker checked:
// a datagram whose sender block names another node, or a message claiming
// the receiver's own node, is dropped and counted.
TEST_F(Fleet, ReceiverTrustsTheSubjectNotTheSenderBlock) {
  std::map<std::string, std::string> a = host_env(kNodeA);
  std::vector<std::unique_ptr<testutil::EnvGuard>> env;
  for (auto& [k, v] : a) env.push_back(std::make_unique<testutil::EnvGuard>(k.c_str(), v));
  TevIdentity receiver, b, c, own;
  receiver.set_app_name("NATSRCV");
  TevFeedback fb;
  ASSERT_EQ(TevInit(fb, receiver, kTevModeNormal), 0) << fb.FB_ErrorText;
  receiver = fb.FB_Local_Id;
  b.set_system_id(kNodeB);
  b.set_app_name("SENDER");
  c = b;
  c.set_system_id("nodec");
  own = b;
  own.set_system_id(kNodeA);
  publish_as(host_env(kNodeB), c, receiver, b);     // the block lies about the node
  publish_as(host_env(kNodeB), b, receiver, b);     // as it should be
  publish_as(host_env(kNodeA), own, receiver, own);  // this node, through the broker
  TevIdentity from;
  TevInquiry inquiry;
  char buf[16];
  TevFeedback rfb;
  ASSERT_EQ(TevRecvTimed(rfb, receiver, from, buf, sizeof buf, inquiry, 3000), 0) << rfb.FB_ErrorText;
  EXPECT_EQ(from, b);
  EXPECT_EQ(inquiry.host, kNodeB);
  EXPECT_EQ(inquiry.uid, static_cast<uid_t>(-1));
  EXPECT_EQ(TevRecvTimed(rfb, receiver, from, buf, sizeof buf, inquiry, 500), 1);
  EXPECT_EQ(rfb.FB_Dropped, 2u);
  TevTerm(fb, receiver, kTevModeNormal);
}

// The broker going away and coming back: local clients are served all the
// time, remote ones again once it is back, and the daemon logs each change once.
TEST_F(Fleet, BrokerLossKeepsLocalClientsServed) {
  start_host_a();
  ASSERT_EQ(to_a({"status"}).status, 0);
  broker_->stop();
  EXPECT_EQ(daemon_->status("B").size(), 6u);
  EXPECT_EQ(to_a({"status"}).status, kCtlNotRunning);
  ASSERT_TRUE(broker_->start());
  Outcome back;
  for (int i = 0; i < 20 && back.status != 0; ++i) back = to_a({"status"});
  EXPECT_EQ(back.status, 0) << back.err;
  EXPECT_EQ(daemon_->status("B").size(), 6u);
  std::string log = daemon_->log();
  auto count = [&](std::string_view what) {
    std::size_t n = 0;
    for (std::size_t at = log.find(what); at != std::string::npos; at = log.find(what, at + 1)) ++n;
    return n;
  };
  EXPECT_EQ(count("QUOR0404"), 1u) << log;
  EXPECT_EQ(count("QUOR0403"), 2u) << log;
}

}  // namespace
