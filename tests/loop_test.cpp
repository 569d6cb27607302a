// The receive loop driven by a scripted receive: the five-failures rule,
// bad messages that must not count, and the dispatch of 'K', 'T', empty and
// unknown types.
#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <string>

#include "core_util.h"
#include "momsg.h"
#include "quordaemon.h"
#include "quordebug.h"

using testutil::EnvGuard;
using testutil::TempDir;

namespace {

// One scripted receive: a result code, and for 0 the request type.
struct Step {
  int rc;
  std::string type;
};

std::deque<Step> g_script;
int g_fatal_calls = 0;
int g_pauses = 0;
int g_receives = 0;

int scripted_receive(ConnRecord& conn, std::span<char> buf) {
  ++g_receives;
  if (g_script.empty()) {
    // Nothing left to say: stop the loop as a termination signal would.
    running = 0;
    conn.fb.FB_ErrorText = "Receive was canceled";
    return 2;
  }
  Step step = g_script.front();
  g_script.pop_front();
  std::fill(buf.begin(), buf.end(), '\0');
  if (step.rc != 0) {
    conn.fb.FB_ErrorText = "Receive was canceled";
    return step.rc;
  }
  conn.inquiry = TevInquiry{true, getpid(), getuid(), getgid(), {}};  // the operator
  std::size_t length = 0;
  auto request = testutil::make_request(step.type, length);
  std::copy(request.begin(), request.begin() + static_cast<long>(length), buf.begin());
  return 0;
}

void record_fatal(ConnRecord&) {
  ++g_fatal_calls;
  running = 0;  // the real one exits; here the loop just ends
}

unsigned count_pause(unsigned) {
  ++g_pauses;
  return 0;
}

class LoopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_script.clear();
    g_fatal_calls = g_pauses = g_receives = 0;
    mo_reset();
    quor_set_debug(false);
  }
  void TearDown() override {
    quor_set_debug(false);
    mo_reset();
  }

  char run(std::deque<Step> script) {
    g_script = std::move(script);
    LoopHooks hooks;
    hooks.receive = scripted_receive;
    hooks.fatal = record_fatal;
    hooks.pause = count_pause;
    return quor_receive_loop(*loop_, hooks);
  }

  int log_count(const std::string& needle) {
    std::string log = testutil::read_file(dir_.path() / "quor/log/quordaemon.log");
    int n = 0;
    for (auto at = log.find(needle); at != std::string::npos; at = log.find(needle, at + 1)) ++n;
    return n;
  }

  TempDir dir_;
  EnvGuard root_{"MOXGLBL0000", dir_.str()};
  std::unique_ptr<DaemonLoop> loop_ = std::make_unique<DaemonLoop>();
};

}  // namespace

TEST_F(LoopTest, ASuccessfulReceiveRestartsTheFailureCount) {
  char last = run({{2, ""}, {2, ""}, {2, ""}, {2, ""}, {0, "Z"},
                   {2, ""}, {2, ""}, {2, ""}, {2, ""}, {0, "T"}});
  EXPECT_EQ(last, 'T');
  EXPECT_EQ(g_fatal_calls, 0);
  EXPECT_EQ(g_pauses, 8);
  EXPECT_EQ(log_count("QUOR0008S"), 8);
}

TEST_F(LoopTest, FiveFailedReceivesInARowEndTheDaemon) {
  run({{2, ""}, {2, ""}, {2, ""}, {2, ""}, {2, ""}, {0, "B"}});
  EXPECT_EQ(g_fatal_calls, 1);
  EXPECT_EQ(g_receives, 5);
  EXPECT_EQ(log_count("QUOR0008S"), 5);
  EXPECT_EQ(log_count("Receive was canceled"), 5);
}

TEST_F(LoopTest, EmptyAndUnknownTypesAreOnlyTracedWhenDebugging) {
  run({{0, ""}, {0, "z"}, {0, "Q"}, {0, "T"}});
  EXPECT_EQ(log_count("QUOR0202T"), 0);
  EXPECT_EQ(log_count("QUOR0203T"), 0);

  quor_set_debug(true);
  testing::internal::CaptureStdout();
  run({{0, ""}, {0, "z"}, {0, "Q"}, {0, "T"}});
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(log_count("QUOR0202T"), 1);
  EXPECT_EQ(log_count("QUOR0203T"), 2);
  EXPECT_NE(out.find("QUOR0202T"), std::string::npos) << out;
  EXPECT_NE(out.find(":  received a message.\n"), std::string::npos);
  EXPECT_NE(out.find(":  message type TERMINATE\n"), std::string::npos);
  EXPECT_NE(out.find("    transcode=z, pid="), std::string::npos);
}
