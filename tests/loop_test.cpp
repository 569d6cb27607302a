// The receive loop driven by a scripted receive: the five-failures rule,
// and the dispatch of 'T', empty and unknown types.
#include <gtest/gtest.h>

#include <deque>
#include <map>
#include <memory>
#include <string>

#include "core_util.h"
#include "momsg.h"
#include "quordaemon.h"
#include "quordebug.h"

namespace {

// The scripted receives: a result code, and for 0 the request type.
std::deque<std::pair<int, std::string>> g_script;
int g_fatal_calls = 0;
int g_pauses = 0;

int scripted_receive(ConnRecord& conn, std::span<char> buf) {
  std::fill(buf.begin(), buf.end(), '\0');
  conn.fb.FB_ErrorText = "Receive was canceled";
  if (g_script.empty()) {
    running = 0;  // nothing left to say: stop the loop as a termination signal would
    return 2;
  }
  auto [rc, type] = g_script.front();
  g_script.pop_front();
  if (rc != 0) return rc;
  conn.inquiry = TevInquiry{true, getpid(), getuid(), getgid(), {}};  // the operator
  std::vector<char> request = testutil::plain_request(type, {});
  std::copy(request.begin(), request.end(), buf.begin());
  return 0;
}

TEST(Loop, FailedReceivesCountUntilFiveInARowAndTypesAreTracedWhenDebugging) {
  // Each script, whether debugging, and what the loop must do: the type it
  // dispatched last, the fatal-handler calls, the pauses after failures,
  // and how often messages are logged.
  struct Case {
    const char* name;
    std::deque<std::pair<int, std::string>> script;
    bool debug;
    char last;
    int fatal, pauses, failures, no_message, unknown;
  };
  const Case cases[] = {
      {"a success restarts the count", {{2, ""}, {2, ""}, {2, ""}, {2, ""}, {0, "Z"},
                                        {2, ""}, {2, ""}, {2, ""}, {2, ""}, {0, "T"}}, false, 'T', 0, 8, 8, 0, 0},
      {"five in a row are fatal", {{2, ""}, {2, ""}, {2, ""}, {2, ""}, {2, ""}, {0, "B"}}, false, '\0', 1, 4, 5, 0, 0},
      {"odd types untraced", {{0, ""}, {0, "z"}, {0, "Q"}, {0, "T"}}, false, 'T', 0, 0, 0, 0, 0},
      {"odd types traced", {{0, ""}, {0, "z"}, {0, "Q"}, {0, "T"}}, true, 'T', 0, 0, 0, 1, 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    mo_reset();
    std::map<std::string, int> logged;  // how often each "<tag> <text>" was logged
    mo_set_log_sink([&](std::uint32_t id, std::string_view text) { ++logged[mo_tag(id) + " " += text]; });
    quor_set_debug(c.debug);
    g_script = c.script;
    g_fatal_calls = g_pauses = 0;
    LoopHooks hooks;
    hooks.receive = scripted_receive;
    hooks.fatal = [](ConnRecord&) {
      ++g_fatal_calls;
      running = 0;  // the real one exits; here the loop just ends
    };
    hooks.pause = [](unsigned) -> unsigned {
      ++g_pauses;
      return 0;
    };
    auto loop = std::make_unique<DaemonLoop>();
    testing::internal::CaptureStdout();
    char last = quor_receive_loop(*loop, hooks);
    std::string out = testing::internal::GetCapturedStdout();
    quor_set_debug(false);
    mo_set_log_sink({});
    EXPECT_EQ(last, c.last);
    EXPECT_EQ(std::pair(g_fatal_calls, g_pauses), std::pair(c.fatal, c.pauses)) << "fatal-handler calls, pauses";
    EXPECT_EQ(logged["QUOR0008S Receiving a request failed: Receive was canceled"], c.failures);
    EXPECT_EQ(logged["QUOR0202T Ignored a request without a message type."], c.no_message);
    EXPECT_EQ(logged["QUOR0203T Ignored a request of unknown message type."], c.unknown);
    for (const char* trace :
         {"QUOR0202T", ":  received a message.\n", ":  message type TERMINATE\n", "    transcode=z, pid="})
      EXPECT_EQ(out.find(trace) != std::string::npos, c.debug) << trace;
  }
  mo_reset();
}

}  // namespace
