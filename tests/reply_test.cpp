// Error replies and status reports as a client receives them; the captured error output.
#include <gtest/gtest.h>

#include "forked_server.h"
#include "momsg.h"
#include "quorconfig.h"
#include "quorderr.h"
#include "quorkids.h"
#include "quorstats.h"
#include "quorusers.h"

using namespace forked;

namespace {

class Reply : public ForkedServer {
 protected:
  void TearDown() override {
    quor_users().clear();
    quor_children().clear();
    quor_config() = QuorConfig{};
    ForkedServer::TearDown();
  }

  // The replies to a request of `type` answered by `reply` in a child.
  TevCallResult serve(char type, const std::function<int(std::span<char>)>& reply) {
    testutil::Child child([&] {
      std::array<char, BUFFER_MAX> buf{};
      receive_or_die(server_, buf);
      return reply(buf);
    });
    TevCallResult result = ask(std::string(1, type));
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(result.rc, 0) << result.fb.FB_ErrorText;
    return result;
  }
  // Every "ZZZSTS" item of the status report of `type`, and the replies.
  std::vector<std::string> report(char type, TevCallResult* replies = nullptr) {
    TevCallResult result = serve(type, [&](std::span<char> buf) { return quor_status_report(type, server_, buf); });
    std::vector<std::string> items;
    for (const TevReply& reply : result.replies)
      for (std::string& s : segment_strings(decode(reply.payload).plain, kStatusTag)) items.push_back(std::move(s));
    if (replies != nullptr) *replies = std::move(result);
    return items;
  }
  std::string log() const { return testutil::read_file(dir_.path() / "quor/log/quordaemon.log"); }
};

// An error reply as one data reply; a text too long for a buffer cut to
// fit it; one that cannot be sent fails, and is logged.
TEST_F(Reply, ErrorReplies) {
  TevCallResult result = serve('S', [&](std::span<char>) { return quor_error_reply(1, "bad", server_); });
  ASSERT_EQ(result.replies.size(), 1u);
  EXPECT_EQ(result.replies[0].kind, kTevKindData);
  Decoded d = decode(result.replies[0].payload);
  EXPECT_EQ(d.tran.transcode + d.tran.continuation + d.tran.ostype, "ENUNIX1");
  std::string tail = testutil::nul_join({"ZZZRET", "ZZZLEN", "   25", "RC", "1", "RM", "bad", "ZZZEOS", "ZZZTRL",
                                         "ZZZLEN", "   18", "MD", "N", "ZZZEOS", "ZZZEOD"});
  EXPECT_TRUE(std::string(d.plain.begin(), d.plain.end() - 1).ends_with(tail));

  result = serve('S', [&](std::span<char>) { return quor_error_reply(3, std::string(40000, 'x'), server_); });
  d = decode(result.replies.at(0).payload);
  EXPECT_GT(segment_strings(d.plain, "ZZZRET").at(3).size(), 30000u);
  EXPECT_LE(d.plain.size() - 1, BUFFER_MAX);

  server_.remote.set_app_name("GONE.CLIENT");
  EXPECT_NE(quor_error_reply(1, "bad", server_), 0);
  EXPECT_NE(log().find("QUOR0009"), std::string::npos);
}

// A configuration path too long for its line gets one of its own; the full
// report adds the active users and the agents that run or continue.
TEST_F(Reply, StatusReportLines) {
  quor_config().config_path = "/" + std::string(240, 'p');  // 241 characters: one line
  EXPECT_EQ(report('B').size(), 6u);
  quor_config().config_path = "/" + std::string(241, 'p');  // 242: two lines
  std::vector<std::string> brief = report('B');
  ASSERT_EQ(brief.size(), 7u);
  EXPECT_EQ(brief[2] + brief[3], "    Config path is -\n    " + quor_config().config_path + "\n");

  quor_config() = QuorConfig{};
  quor_user_new().user_name = "pending";
  quor_user_new() = UserEntry{"ann", "pc7", "ann_l", "100", 1000, 0, {}};
  for (auto [pid, flags] : {std::pair{-1, kChildRunning}, {0, kChildNew}, {41, kChildContinuing}, {42, kChildRunning}}) {
    ChildEntry& child = quor_child_new();
    child.agent_pid = pid;
    child.flags = flags;
    child.client_node = "n" + std::to_string(pid);
  }
  std::vector<std::string> full = report('F');
  ASSERT_EQ(full.size(), 11u);
  EXPECT_EQ(std::vector<std::string>(full.begin() + 4, full.end()),
            (std::vector<std::string>{"    2 users logged into quor\n", "    4 transactions in progress.\n", "\n",
                                      "    User ann from node pc7 logged in as ann_l.\n", "\n",
                                      "    PID 42 from node n42\n", "    PID 41 from node n41\n"}));
}

// A full report over two buffers, however its last user line falls (up to a full buffer): each but
// the last says more comes, each ends with its trailer, and the users appear once each, newest first.
TEST_F(Reply, AFullReportOverSeveralBuffers) {
  bool full_buffer = false;
  for (std::size_t length = 150; length <= 250 && !HasFailure(); ++length) {
    quor_users().clear();
    quor_user_new() = UserEntry{"last", std::string(length, 'n'), "l", "", 1, 0, {}};  // listed last
    std::vector<std::string> expected = {"last"};
    for (int i = 0; i < 132; ++i) {
      quor_user_new() = UserEntry{"user" + std::to_string(i), std::string(i == 0 ? 100 : 200, 'n'), "l", "", 1, 0, {}};
      expected.insert(expected.begin(), "user" + std::to_string(i));
    }
    TevCallResult result;
    std::vector<std::string> users;
    for (const std::string& item : report('F', &result))
      if (item.starts_with("    User ")) users.push_back(item.substr(9, item.find(' ', 9) - 9));
    EXPECT_EQ(users, expected) << length;
    for (std::size_t i = 0; i < result.replies.size(); ++i) {
      Decoded d = decode(result.replies[i].payload);
      std::string marks = std::string(i == 0 ? "FN" : "SY") + (i + 1 == result.replies.size() ? "N" : "Y");
      EXPECT_EQ(d.tran.transcode + d.tran.continuation + *d.trailer.more_data, marks) << length << " " << i;
      EXPECT_EQ(std::string(d.plain.end() - 8, d.plain.end()), std::string("ZZZEOD\0", 8)) << length << " " << i;
      full_buffer = full_buffer || result.replies[i].payload.size() == BUFFER_MAX;
    }
  }
  EXPECT_TRUE(full_buffer) << "no report filled its buffer to the last byte";
}

// An agent line needing the next buffer, for a client that is gone: the
// report stops there, failed, sends nothing more, and says why in the log.
TEST_F(Reply, AFullReportStopsWhenAPartialReplyIsNotAnswered) {
  for (int pid = 1; pid <= 200; ++pid) {
    ChildEntry& child = quor_child_new();
    child.agent_pid = pid;
    child.flags = kChildRunning;
    child.client_node = std::string(200, 'n');
  }
  server_.remote.set_app_name("GONE.CLIENT");
  std::array<char, BUFFER_MAX> buf{};
  EXPECT_EQ(quor_status_report('F', server_, buf), 2);
  std::string text = log();
  EXPECT_NE(text.find("QUOR0009"), std::string::npos);
  EXPECT_EQ(text.find("QUOR0009"), text.rfind("QUOR0009")) << "a later buffer was still sent";
}

}  // namespace

TEST(CapturedOutput, ReadingReturnsTheTextOnceThenTheCatalogueText) {
  TempDir dir;
  EnvGuard root("MOXGLBL0000", dir.str());
  mo_reset();
  std::string path = (dir.path() / "DMNcapture").string();
  quor_capture_set_file(path);
  testutil::write_file(path, "agent: cannot open table\n");
  EXPECT_EQ(quor_capture_output(3), "agent: cannot open table\n");
  EXPECT_EQ(testutil::read_file(path), "");  // emptied: the next failure reports only its own
  EXPECT_EQ(quor_capture_output(3), quor_msg_text(128, 2));
  EXPECT_EQ(quor_capture_output(1), quor_msg_text(23, 4));

  quor_capture_set_file(dir.str());  // unreadable: a directory
  EXPECT_EQ(quor_capture_output(3), quor_msg_text(128, 2));
  quor_capture_set_file("");  // no capture file at all
  EXPECT_EQ(quor_capture_output(1), quor_msg_text(23, 4));
}
