// Replies as a client receives them through the real transport: error
// replies, and the status report of tables set up by the test, each served
// by a forked child; and the captured error output.
#include <gtest/gtest.h>

#include <fstream>

#include "forked_server.h"
#include "momsg.h"
#include "quorconfig.h"
#include "quorderr.h"
#include "quorkids.h"
#include "quorstats.h"
#include "quorusers.h"

using namespace forked;

TEST_F(ForkedServer, ErrorReplyReachesTheClientAsTheDocumentedSegments) {
  testutil::Child child([&] {
    std::array<char, BUFFER_MAX> buf{};
    receive_or_die(server_, buf);
    return quor_error_reply(1, "bad", server_) == 0 ? 0 : 11;
  });
  TevCallResult result = ask("S");
  ASSERT_EQ(result.rc, 0) << result.fb.FB_ErrorText;
  ASSERT_EQ(result.replies.size(), 1u);
  EXPECT_EQ(result.replies[0].kind, kTevKindData);
  EXPECT_EQ(child.wait(), 0);

  Decoded d = decode(result.replies[0].payload);
  EXPECT_EQ(d.tran.transcode + d.tran.continuation + d.tran.ostype, "ENUNIX1");
  // The error segment, then the trailer and the end-of-data mark.
  std::string text(d.plain.begin(), d.plain.end() - 1);
  EXPECT_TRUE(text.ends_with(testutil::nul_join({"ZZZRET", "ZZZLEN", "   25", "RC", "1", "RM", "bad", "ZZZEOS", "ZZZTRL",
                                                 "ZZZLEN", "   18", "MD", "N", "ZZZEOS", "ZZZEOD"})));
}

TEST_F(ForkedServer, ErrorReplyCutsATextTooLongForOneBuffer) {
  testutil::Child child([&] {
    std::array<char, BUFFER_MAX> buf{};
    receive_or_die(server_, buf);
    return quor_error_reply(3, std::string(40000, 'x'), server_) == 0 ? 0 : 11;
  });
  TevCallResult result = ask("S");
  ASSERT_EQ(result.rc, 0);
  EXPECT_EQ(child.wait(), 0);
  Decoded d = decode(result.replies.at(0).payload);
  auto items = segment_strings(d.plain, "ZZZRET");
  ASSERT_EQ(items.size(), 4u);
  EXPECT_GT(items[3].size(), 30000u);
  EXPECT_LE(d.plain.size() - 1, BUFFER_MAX);

  // A reply that cannot be sent is a failure, and logged.
  server_.remote.set_app_name("GONE.CLIENT");
  EXPECT_NE(quor_error_reply(1, "bad", server_), 0);
  EXPECT_NE(testutil::read_file(dir_.path() / "quor/log/quordaemon.log").find("QUOR0009"), std::string::npos);
}

TEST(CapturedOutput, ReadingReturnsTheTextOnceThenTheCatalogueText) {
  TempDir dir;
  EnvGuard root("MOXGLBL0000", dir.str());
  mo_reset();
  std::string path = (dir.path() / "DMNcapture").string();
  quor_capture_set_file(path);
  {
    std::ofstream(path) << "agent: cannot open table\n";
  }
  EXPECT_EQ(quor_capture_output(3), "agent: cannot open table\n");
  EXPECT_EQ(testutil::read_file(path), "");  // emptied: the next failure reports only its own
  std::string fallback3 = quor_capture_output(3);
  EXPECT_EQ(fallback3, quor_msg_text(128, 2));
  EXPECT_FALSE(fallback3.empty());
  EXPECT_EQ(quor_capture_output(1), quor_msg_text(23, 4));
  EXPECT_NE(quor_msg_text(23, 4), fallback3);

  quor_capture_set_file(dir.str());  // unreadable: a directory
  EXPECT_EQ(quor_capture_output(3), fallback3);
  quor_capture_set_file("");  // no capture file at all
  EXPECT_EQ(quor_capture_output(1), quor_msg_text(23, 4));
}

namespace {

class StatusReport : public ForkedServer {
 protected:
  void TearDown() override {
    quor_users().clear();
    quor_children().clear();
    quor_config() = QuorConfig{};
    ForkedServer::TearDown();
  }

  // Every "ZZZSTS" item of the report of `type`, and the replies themselves.
  std::vector<std::string> report(char type, TevCallResult& result) {
    testutil::Child child([&] {
      std::array<char, BUFFER_MAX> buf{};
      receive_or_die(server_, buf);
      return quor_status_report(type, server_, buf);
    });
    result = ask(std::string(1, type));
    EXPECT_EQ(child.wait(), 0);
    std::vector<std::string> items;
    for (const TevReply& reply : result.replies) {
      Decoded d = decode(reply.payload);
      for (std::string& s : segment_strings(d.plain, kStatusTag)) items.push_back(std::move(s));
    }
    return items;
  }
  std::vector<std::string> report(char type) {
    TevCallResult ignored;
    return report(type, ignored);
  }
};

TEST_F(StatusReport, ALongConfigurationPathTakesTwoLines) {
  quor_config().config_path = "/" + std::string(240, 'p');  // 241 characters: one line
  EXPECT_EQ(report('B').size(), 6u);
  quor_config().config_path = "/" + std::string(241, 'p');  // 242: two lines
  std::vector<std::string> brief = report('B');
  ASSERT_EQ(brief.size(), 7u);
  EXPECT_EQ(brief[2], "    Config path is -\n");
  EXPECT_EQ(brief[3], "    " + quor_config().config_path + "\n");
}

TEST_F(StatusReport, FullReportListsActiveUsersAndRunningAgentsOnly) {
  UserEntry& pending = quor_user_new();
  pending.user_name = "pending";
  UserEntry& ann = quor_user_new();
  ann = UserEntry{"ann", "pc7", "ann_l", "100", 1000, 0, {}};
  for (auto [pid, flags] : {std::pair{-1, kChildRunning}, {0, kChildNew}, {41, kChildContinuing}, {42, kChildRunning}}) {
    ChildEntry& child = quor_child_new();
    child.agent_pid = pid;
    child.flags = flags;
    child.client_node = "n" + std::to_string(pid);
  }
  std::vector<std::string> full = report('F');
  EXPECT_EQ(full[4], "    2 users logged into quor\n");
  EXPECT_EQ(full[5], "    4 transactions in progress.\n");
  EXPECT_EQ(std::vector<std::string>(full.begin() + 6, full.end()),
            (std::vector<std::string>{"\n", "    User ann from node pc7 logged in as ann_l.\n", "\n",
                                      "    PID 42 from node n42\n", "    PID 41 from node n41\n"}));
}

TEST_F(StatusReport, AFullReportLargerThanABufferArrivesInOrderOverSeveralBuffers) {
  // Lines of about 260 bytes: 400 of them need four buffers.
  for (int i = 0; i < 400; ++i) {
    UserEntry& user = quor_user_new();
    user.user_name = "user" + std::to_string(i);
    user.node_name = std::string(200, 'n');
    user.login_name = "l";
    user.last_activity = 1;
  }
  TevCallResult result;
  std::vector<std::string> items = report('F', result);
  ASSERT_EQ(result.rc, 0) << result.fb.FB_ErrorText;
  ASSERT_GE(result.replies.size(), 4u);
  for (std::size_t i = 0; i < result.replies.size(); ++i) {
    bool last = i + 1 == result.replies.size();
    Decoded d = decode(result.replies[i].payload);
    EXPECT_EQ(*d.trailer.more_data, last ? "N" : "Y") << i;
    EXPECT_EQ(result.replies[i].kind, last ? kTevKindData : kTevKindConv) << i;
    EXPECT_EQ(d.tran.transcode + d.tran.continuation, i == 0 ? "FN" : "SY") << i;
    EXPECT_EQ(result.replies[i].sender.rfind(last ? "TEST.SRV" : "QUOR.", 0), 0u) << i;
    EXPECT_LE(result.replies[i].payload.size(), BUFFER_MAX);
  }
  // The users appear once each, newest first, across the buffers.
  std::vector<std::string> users;
  for (const std::string& item : items)
    if (item.rfind("    User ", 0) == 0) users.push_back(item.substr(9, item.find(' ', 9) - 9));
  ASSERT_EQ(users.size(), 400u);
  for (int i = 0; i < 400; ++i) EXPECT_EQ(users[static_cast<std::size_t>(i)], "user" + std::to_string(399 - i));
}

// However the last line falls, every buffer of a full report ends with its
// trailer and "ZZZEOD": the last user line leaving just the room for the
// end of a buffer, and no more, included.
TEST_F(StatusReport, EveryBufferEndsWithItsTrailerWhereverTheLastLineFalls) {
  bool full_buffer = false;
  for (std::size_t length = 150; length <= 250 && !HasFailure(); ++length) {
    quor_users().clear();
    UserEntry& last = quor_user_new();  // listed last
    last = UserEntry{"last", std::string(length, 'n'), "l", "", 1, 0, {}};
    for (int i = 0; i < 132; ++i)
      quor_user_new() = UserEntry{"user" + std::to_string(i), std::string(i == 0 ? 100 : 200, 'n'), "l", "", 1, 0, {}};
    TevCallResult result;
    report('F', result);
    ASSERT_EQ(result.rc, 0) << length;
    for (const TevReply& reply : result.replies) {
      std::vector<char> plain(reply.payload.begin(), reply.payload.end());
      ASSERT_EQ(quor_wire_open(plain, plain.size()), plain.size());
      EXPECT_EQ(std::string(plain.end() - 7, plain.end()), std::string("ZZZEOD", 7)) << length;
      full_buffer = full_buffer || plain.size() == BUFFER_MAX;
    }
  }
  EXPECT_TRUE(full_buffer) << "no report filled its buffer to the last byte";
}

}  // namespace
