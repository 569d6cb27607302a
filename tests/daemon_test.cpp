// The real daemon: started in a temporary installation, talked to through
// the real transport, flooded with bad input, and stopped by request.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>

#include <random>

#include "daemon_util.h"
#include "mocrypt.h"

using testutil::Daemon;

namespace {

// Sends raw bytes to the daemon's socket from an unnamed socket.
void send_raw(const Daemon& d, const std::vector<std::uint8_t>& bytes) {
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(fd, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::string path = (d.server_socket()).string();
  path.copy(addr.sun_path, sizeof addr.sun_path - 1);
  (void)sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  close(fd);
}

}  // namespace

// TERMINATE: exit status 0, and neither the socket nor the pid file is left.
TEST(Daemon, ServesNothingToEmptyAndUnknownTypesAndStopsOnTerminate) {
  Daemon d;
  ASSERT_TRUE(d.wait_ready()) << d.output();
  const std::filesystem::path pid_file = d.root().path() / "tmp/quordaemon.pid";
  ASSERT_TRUE(std::filesystem::exists(pid_file));
  TevClient client;
  ASSERT_TRUE(client.ok());
  for (const char* type : {"", "Z", "z"}) {
    // No reply comes back: the wait for one times out.
    TevCallResult r = client.call(kServerName, Daemon::request(type), 300);
    EXPECT_NE(r.rc, 0) << type;
    EXPECT_TRUE(r.replies.empty()) << type;
  }
  EXPECT_TRUE(d.alive());
  TevCallResult t = client.call(kServerName, Daemon::request("T"), 0, false);
  EXPECT_EQ(t.rc, 0) << t.fb.FB_ErrorText;
  EXPECT_EQ(d.wait_exit(), 0) << d.output();

  std::string out = d.output(), log = d.log();
  for (const char* line : {"QUOR0400I", "QUOR0202T", "QUOR0203T", "message type TERMINATE", "QUOR0401I"})
    EXPECT_NE(out.find(line), std::string::npos) << line << "\n" << out;
  for (const char* line : {"QUOR0400I", "QUOR0401I"}) EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
  EXPECT_FALSE(std::filesystem::exists(d.server_socket()));
  EXPECT_FALSE(std::filesystem::exists(pid_file));
}

TEST(Daemon, SurvivesAFloodOfRandomDatagramsAndBuffersThenStopsOnKillAll) {
  Daemon d({}, /*debug=*/false);
  ASSERT_TRUE(d.wait_ready()) << d.output();
  std::mt19937 rng(2026);
  TevClient client;
  ASSERT_TRUE(client.ok());
  for (int i = 0; i < 300; ++i) {
    std::vector<std::uint8_t> bytes(rng() % 400);
    for (auto& b : bytes) b = static_cast<std::uint8_t>(rng());
    send_raw(d, bytes);  // not even a transport datagram
    // A well-formed datagram with a random buffer inside: sometimes with a
    // valid length prefix, so the random body reaches the parsers.
    if (bytes.size() >= 7 && i % 2 == 0) {
      char prefix[32];
      std::snprintf(prefix, sizeof prefix, "%5zu", bytes.size());
      std::copy(prefix, prefix + 6, bytes.begin());
      body_encode(static_cast<int>(bytes.size() % 256),
                  std::span<std::uint8_t>(bytes.data() + 6, bytes.size() - 6));
    }
    client.call(kServerName, bytes, 0, false);
  }
  // Still serving: a request is received and handled after the flood.
  ASSERT_TRUE(d.alive());
  client.call(kServerName, Daemon::request("K"), 0, false);
  EXPECT_EQ(d.wait_exit(), 0) << d.log();
  EXPECT_NE(d.log().find("QUOR0401I"), std::string::npos);
}
