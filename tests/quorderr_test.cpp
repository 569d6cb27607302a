// Error replies and partial replies as a client receives them through the
// real transport, and the captured error output.
#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <string>
#include <vector>

#include "core_util.h"
#include "forked_server.h"
#include "momsg.h"
#include "quorRDWio.h"
#include "quorderr.h"
#include "quortev.h"
#include "quortrl.h"
#include "quorutl.h"
#include "tev_client.h"

using testutil::EnvGuard;
using testutil::TempDir;

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
