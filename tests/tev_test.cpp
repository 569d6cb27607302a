// The transport through its public operations and real sockets: names,
// messages, conversations, credentials and malformed datagrams.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstring>

#include "core_util.h"
#include "tev.h"
#include "tev_wire.h"

using testutil::EnvGuard;
using testutil::TempDir;

namespace {

TevIdentity named(std::string_view name) {
  TevIdentity id;
  id.set_app_name(name);
  return id;
}

// A datagram from `sender` to "X" with the transport's own header writer.
std::vector<std::uint8_t> datagram(std::uint8_t kind, std::uint32_t conv, std::string_view sender,
                                   std::string_view payload) {
  std::vector<std::uint8_t> d(kTevHeaderSize + payload.size());
  tev_encode_header(std::span<std::uint8_t, kTevHeaderSize>(d.data(), kTevHeaderSize), kind, conv, named(sender),
                    named("X"), payload.size());
  std::memcpy(d.data() + kTevHeaderSize, payload.data(), payload.size());
  return d;
}

// A registration for the scope of a test.
struct Reg {
  explicit Reg(std::string_view name, std::uint8_t flag = 0) : id(named(name)) {
    id.set_flag(flag);
    rc = TevInit(fb, id, kTevModeNormal);
  }
  ~Reg() {
    if (rc == 0) TevTerm(fb, id, kTevModeNormal);
  }
  TevIdentity id;
  TevFeedback fb;
  int rc;
};

// What `r` receives within `timeout_ms`: "<text> from <sender> #<conversation>",
// and the sender's credentials.
std::string received(Reg& r, int timeout_ms, TevInquiry* inq = nullptr) {
  std::array<char, 512> buf{};
  TevIdentity remote;
  TevInquiry inquiry;
  if (TevRecvTimed(r.fb, r.id, remote, buf.data(), buf.size(), inquiry, timeout_ms) != 0)
    return "<failed " + std::to_string(r.fb.FB_Src) + ">";
  if (inq) *inq = inquiry;
  return std::string(buf.data(), r.fb.FB_DataLen) + " from " + std::string(remote.app_name()) + " #" +
         std::to_string(r.fb.FB_InConversId);
}

class Transport : public ::testing::Test {
 protected:
  // Where this process's registration of `name` lives: root's names are in
  // root/, everybody else's in the directory itself.
  std::filesystem::path socket_of(std::string_view name) {
    return (geteuid() == 0 ? dir_.path() / "root" : dir_.path()) / std::string(name);
  }

  // Sends `bytes` as one datagram to `to` from a socket bound at `from_name`
  // (in the transport directory unless absolute; unbound when empty).
  void send_raw(std::string_view to, const std::vector<std::uint8_t>& bytes, std::string_view from_name) {
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd, 0);
    std::filesystem::path from_path =
        from_name.starts_with('/') ? std::filesystem::path(from_name) : dir_.path() / std::string(from_name);
    sockaddr_un from{AF_UNIX, {}}, dest{AF_UNIX, {}};
    from_path.string().copy(from.sun_path, sizeof from.sun_path - 1);
    socket_of(to).string().copy(dest.sun_path, sizeof dest.sun_path - 1);
    if (!from_name.empty()) {
      ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&from), sizeof from), 0);
    }
    ASSERT_EQ(sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&dest), sizeof dest),
              static_cast<ssize_t>(bytes.size()));
    close(fd);
    if (!from_name.empty()) unlink(from_path.c_str());
  }

  TempDir dir_;
  EnvGuard env_{"TEV_DIR", dir_.str()};
};

}  // namespace

// Within one process: a registration owns a world-writable socket until it
// is deregistered, a second one of its name and bad arguments are refused,
// data carries conversation id, sender and credentials (the kind: the
// conversation test), and root refuses an unsafe directory.
TEST_F(Transport, RegistrationsDataAndRefusalsInOneProcess) {
  {
    Reg a("PEER.A"), b("PEER.B");
    ASSERT_TRUE(a.rc == 0 && b.rc == 0) << a.fb.FB_ErrorText;
    EXPECT_EQ(Reg("PEER.F", 5).fb.FB_Local_Id.flag(), 5) << "the caller's flag is kept";
    auto st = std::filesystem::symlink_status(socket_of("PEER.A"));
    EXPECT_TRUE(st.type() == std::filesystem::file_type::socket && st.permissions() == std::filesystem::perms(0666));
    EXPECT_EQ(Reg("PEER.A").fb.FB_Src, kTevSrcNoPath) << "in use in this process";

    ASSERT_EQ(TevSend(a.fb, a.id, named("PEER.B"), "hello", 5, kTevModeNormal, 77), 0);
    TevInquiry inq;
    EXPECT_EQ(received(b, 2000, &inq), "hello from PEER.A #77");
    EXPECT_EQ(std::pair(inq.pid, inq.uid), std::pair(getpid(), getuid()));
    const TevInquiry* handles[] = {&inq, nullptr};
    EXPECT_EQ(APICHECK(std::span(handles, 1)), 0);
    EXPECT_NE(APICHECK(handles), 0) << "a missing handle";

    // Parameter errors: empty, slashed and over-long (21 bytes, no NUL)
    // names, an over-long message, an unknown mode.
    for (const char* name : {"", "a/b"}) EXPECT_EQ(Reg(name).fb.FB_Prc, kTevPrcPlistErr) << name;
    TevIdentity long_name;
    std::memset(long_name.bytes.data() + kTevAppNameOffset, 'N', kTevAppNameField);
    TevInit(b.fb, long_name, kTevModeNormal);
    EXPECT_EQ(b.fb.FB_Prc, kTevPrcPlistErr);
    std::vector<char> big(kTevMaxPayload + 1);
    TevSend(a.fb, a.id, b.id, big.data(), big.size(), kTevModeNormal, 0);
    EXPECT_EQ(a.fb.FB_Prc, kTevPrcPlistErr);
    // A receiver that does not read fills its queue: a send that may not
    // wait then fails at once, saying so.
    ASSERT_EQ(TevSetSendWait(a.fb, a.id, 0), 0);
    for (int i = 0; i < 10000 && TevSend(a.fb, a.id, b.id, "x", 1, kTevModeNormal, 0) == 0; ++i) continue;
    EXPECT_EQ(a.fb.FB_Src, kTevSrcSndDrc) << a.fb.FB_ErrorText;
    TevIdentity from;
    while (TevRecvTimed(b.fb, b.id, from, big.data(), big.size(), inq, 0) == 0) continue;
    // The largest message goes through whole.
    ASSERT_EQ(TevSend(a.fb, a.id, b.id, big.data(), kTevMaxPayload, kTevModeNormal, 0), 0) << a.fb.FB_ErrorText;
    EXPECT_EQ(TevRecvTimed(b.fb, b.id, from, big.data(), big.size(), inq, 2000), 0) << b.fb.FB_ErrorText;
    EXPECT_EQ(b.fb.FB_DataLen, kTevMaxPayload);
    TevSend(b.fb, b.id, a.id, "x", 1, 7, 0);
    EXPECT_EQ(b.fb.FB_Prc, kTevPrcPlistErr);
  }
  EXPECT_FALSE(std::filesystem::exists(socket_of("PEER.A")));
  {  // A broker that is configured but cannot be used refuses the registration.
    EnvGuard url("TEV_URL", "tls://127.0.0.1:1"), ca("TEV_TLS_CA", (dir_.path() / "no-ca.pem").string());
    Reg refused("PEER.T");
    EXPECT_NE(refused.rc, 0);
    EXPECT_EQ(std::string(refused.fb.FB_ErrorText).substr(0, 10), "Broker TLS") << refused.fb.FB_ErrorText;
    EXPECT_FALSE(std::filesystem::exists(socket_of("PEER.T")));
  }

  if (geteuid() != 0) return;  // only root refuses unsafe directories
  std::filesystem::path unsafe = dir_.path() / "open", link = dir_.path() / "link";
  std::filesystem::create_directory(unsafe);
  chmod(unsafe.c_str(), 0777);  // writable by all, no sticky bit
  std::filesystem::create_directory_symlink(dir_.path(), link);
  for (const std::filesystem::path& dir : {unsafe, link}) {
    EnvGuard env("TEV_DIR", dir.string());
    EXPECT_NE(Reg("ANY").rc, 0) << dir;
  }
}

TEST_F(Transport, ANameHeldByAnotherProcessIsRefusedAStaleOneTakenOver) {
  testutil::Child holder([&] {
    Reg r("HELD");
    pause();
    return 0;
  });
  ASSERT_TRUE(testutil::eventually([&] { return std::filesystem::exists(socket_of("HELD")); }));
  auto open_fds = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
  auto fds_before = open_fds();
  Reg refused("HELD");
  EXPECT_EQ(open_fds(), fds_before) << "the refused registration kept its socket";
  EXPECT_EQ(std::pair(refused.fb.FB_Prc, refused.fb.FB_Src), std::pair(kTevPrcLogicErr, kTevSrcNoPath));
  // Killed without deregistering: the socket file stays behind, a send to
  // it finds nobody, and the next registrant takes it over.
  kill(holder.pid(), SIGKILL);
  holder.wait();
  Reg sender("SENDER");
  EXPECT_NE(TevSend(sender.fb, sender.id, named("HELD"), "x", 1, kTevModeNormal, 0), 0);
  EXPECT_EQ(std::pair(sender.fb.FB_Prc, sender.fb.FB_Src), std::pair(kTevPrcLogicErr, kTevSrcNoRcvr));
  EXPECT_EQ(sender.fb.FB_ErrorText, "No receiver online");
  EXPECT_EQ(Reg("HELD").rc, 0);
}

// The header's bytes, then datagrams a receiver drops and counts: only the
// last good one is delivered.
TEST_F(Transport, MalformedDatagramsAreDroppedAndCountedNotFailed) {
  Reg r("VICTIM");
  ASSERT_EQ(r.rc, 0);
  const std::vector<std::uint8_t> good = datagram(kTevKindData, 0xA1B2C3D4, "SPOOF", "ok");
  // Conversation id and length, little-endian on the wire.
  EXPECT_EQ(std::string(good.begin() + 8, good.begin() + 16), std::string("\xD4\xC3\xB2\xA1\x02\0\0\0", 8));
  auto with = [&](std::size_t at, std::uint8_t value) {
    auto d = good;
    d[at] = value;
    return d;
  };
  // Empty; bad magic, reserved byte, kind; an over-long answer; larger than
  // received()'s 512 bytes; from another socket than the sender it claims, an
  // unnamed one, one of the right name outside the directory. (Short of its
  // size: the datagram fuzz target.)
  TempDir elsewhere;
  std::string outside = (elsewhere.path() / "SPOOF").string();
  const std::pair<std::vector<std::uint8_t>, std::string> dropped[] = {
      {{}, ""},
      {with(0, 'X'), "SPOOF"},
      {with(6, 1), "SPOOF"},
      {datagram(9, 1, "SPOOF", "ok"), "SPOOF"},
      {datagram(kTevKindAnswer, 1, "SPOOF", "more than ten bytes"), "SPOOF"},
      {datagram(kTevKindData, 1, "SPOOF", std::string(600, 'x')), "SPOOF"},
      {good, "OTHER"},
      {good, ""},
      {good, outside}};
  for (const auto& [bytes, from] : dropped) send_raw("VICTIM", bytes, from);
  send_raw("VICTIM", good, "SPOOF");
  EXPECT_EQ(received(r, 2000), "ok from SPOOF #" + std::to_string(0xA1B2C3D4u));
  EXPECT_EQ(r.fb.FB_Dropped, std::size(dropped));
}

TEST_F(Transport, ConversationAnsweredByAnotherProcessOrTimedOut) {
  Reg server("CONV.SRV");
  ASSERT_EQ(server.rc, 0);
  testutil::Child peer([] {
    Reg c("CONV.CLI");
    std::array<char, 64> buf{};
    TevIdentity remote;
    TevInquiry inq;
    if (c.rc != 0 || TevRecv(c.fb, c.id, remote, buf.data(), buf.size(), kTevModeRecvAny, inq) != 0) return 1;
    if (c.fb.FB_InKind != kTevKindConv) return 2;
    return TevAnswer(c.fb, c.id, remote, c.fb.FB_InConversId, "OK") != 0 ? 3 : 0;
  });
  testutil::eventually([&] { return std::filesystem::exists(socket_of("CONV.CLI")); }, std::chrono::seconds(5));
  // Meanwhile, a DATA message reaches the server: it must be kept for later.
  Reg other("CONV.OTHER");
  ASSERT_EQ(TevSend(other.fb, other.id, named("CONV.SRV"), "queued", 6, kTevModeNormal, 5), 0);

  char answer[10] = {};
  ASSERT_EQ(Tev_Conv(server.fb, server.id, named("CONV.CLI"), "part", 4, answer, sizeof answer, kTevModeNormal, 5), 0)
      << server.fb.FB_ErrorText;
  EXPECT_STREQ(answer, "OK");
  EXPECT_NE(server.fb.FB_ConversId, 0u);
  EXPECT_EQ(peer.wait(), 0);
  EXPECT_EQ(received(server, 0), "queued from CONV.OTHER #5");

  // A registered peer that never answers.
  EXPECT_NE(Tev_Conv(server.fb, server.id, named("CONV.OTHER"), "x", 1, answer, sizeof answer, kTevModeNormal, 1), 0);
  EXPECT_EQ(std::pair(server.fb.FB_Prc, server.fb.FB_Src), std::pair(kTevPrcLogicErr, kTevSrcRtmOut));
}
