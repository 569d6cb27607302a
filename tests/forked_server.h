// A server registration in the test process that a forked child serves on,
// and the client side's view of its replies, for tests of reply writers
// through the real transport.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <string>
#include <vector>

#include "core_util.h"
#include "quortev.h"
#include "quortrl.h"
#include "quorutl.h"
#include "tev_client.h"

namespace forked {

using testutil::EnvGuard;
using testutil::TempDir;

// A server registration made before forking, so the child that serves on it
// is reachable the moment it starts.
class ForkedServer : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(quor_tev_register(server_.local, server_.fb, "TEST.SRV"), 0);
  }
  void TearDown() override { quor_tev_deregister(server_.local, server_.fb); }

  TempDir dir_;
  EnvGuard tev_{"TEV_DIR", dir_.str()};
  EnvGuard root_{"MOXGLBL0000", dir_.str()};
  ConnRecord server_;
};

// Receives one request on `conn` into `buf`; exits the child on failure.
inline void receive_or_die(ConnRecord& conn, std::array<char, BUFFER_MAX>& buf) {
  if (quor_tev_receive(conn, buf) != 0) testutil::child_exit(10);
}

struct Decoded {
  TransactionHeader tran;
  Trailer trailer;
  std::vector<char> plain;
};

inline Decoded decode(std::vector<std::uint8_t> payload) {
  Decoded d;
  d.plain.assign(payload.begin(), payload.end());
  d.plain.push_back('\0');
  EXPECT_EQ(quor_wire_open(d.plain, payload.size()), payload.size());
  EXPECT_TRUE(tran_header_read(d.plain, d.tran));
  EXPECT_TRUE(quor_trl_read(d.plain, d.trailer));
  return d;
}

// Sends a request of `type` to the forked server and collects the replies.
inline TevCallResult ask(std::string_view type) {
  TevClient client;
  return client.call("TEST.SRV", testutil::sealed_request(type), 5000);
}

// A reply written by `write` in a forked child that serves one request on
// `conn`: `write` appends to the reply buffer (sending full ones on as
// partial replies) and returns a write position or a status of 8 or less;
// the buffer is then sent as it stands. `status` is that status, -1 when a
// position came back, or 1000 + the child's exit status when it failed.
struct Served {
  int status = -1;
  TevCallResult result;
  std::vector<Decoded> buffers;  // every reply buffer, decoded
};

template <class Write>
Served serve_one(ConnRecord& conn, Write write) {
  testutil::Child child([&] {
    std::array<char, BUFFER_MAX> buf{};
    receive_or_die(conn, buf);
    OutBuf out(buf);
    tran_header_put("S", "N", out);
    std::size_t pos = write(out);
    quor_trl_put("N", out);
    if (quor_tev_send(conn, buf, out.pos) != 0) return 99;
    return pos <= 8 ? static_cast<int>(pos) + 100 : 0;
  });
  Served served;
  served.result = ask("S");
  int rc = child.wait();
  served.status = rc == 0 ? -1 : rc >= 100 && rc <= 108 ? rc - 100 : 1000 + rc;
  for (const TevReply& reply : served.result.replies) served.buffers.push_back(decode(reply.payload));
  return served;
}

using testutil::segment_strings;

}  // namespace forked
