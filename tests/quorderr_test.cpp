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
  EXPECT_EQ(d.tran.transcode, "E");
  EXPECT_EQ(d.tran.continuation, "N");
  EXPECT_EQ(d.tran.ostype, "UNIX1");
  EXPECT_EQ(*d.trailer.more_data, "N");
  EXPECT_EQ(segment_strings(d.plain, "ZZZRET"),
            (std::vector<std::string>{"RC", "1", "RM", "bad"}));
  auto ret = buf_find_segment(d.plain, "ZZZRET");
  ASSERT_TRUE(ret);
  EXPECT_EQ(std::string(d.plain.data() + *ret - 6), "   25");
  // The buffer ends with the trailer and the end-of-data mark.
  std::string tail(d.plain.data() + d.plain.size() - 1 - 39, 39);
  EXPECT_EQ(tail, testutil::nul_join({"ZZZTRL", "ZZZLEN", "   18", "MD", "N", "ZZZEOS", "ZZZEOD"}));
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
}

TEST_F(ForkedServer, AReplyLargerThanABufferArrivesAsPartialBuffersInOrder) {
  constexpr int kLines = 3000;  // about 3 buffers of report lines
  auto line = [](int i) { return "    line " + std::to_string(i) + " of a long report\n"; };
  testutil::Child child([&] {
    std::array<char, BUFFER_MAX> buf{};
    receive_or_die(server_, buf);
    OutBuf out(buf);
    tran_header_put("F", "N", out);
    std::size_t lf = buf_begin_segment(out, "ZZZSTS");
    for (int i = 0; i < kLines; ++i)
      if (buf_add_item_split(out, line(i), BUFFER_MAX, server_, "ZZZSTS", lf) != 0) return 12;
    buf_end_segment(out, lf);
    quor_trl_put("N", out);
    return quor_tev_send(server_, buf, out.pos) == 0 ? 0 : 13;
  });
  const std::string partial_name = "QUOR." + std::to_string(child.pid());
  TevCallResult result = ask("F");
  ASSERT_EQ(result.rc, 0) << result.fb.FB_ErrorText;
  EXPECT_EQ(child.wait(), 0);
  ASSERT_GE(result.replies.size(), 3u);

  std::vector<std::string> lines;
  for (std::size_t i = 0; i < result.replies.size(); ++i) {
    const TevReply& r = result.replies[i];
    bool last = i + 1 == result.replies.size();
    EXPECT_EQ(r.kind, last ? kTevKindData : kTevKindConv) << i;
    EXPECT_LE(r.payload.size(), BUFFER_MAX);
    EXPECT_EQ(r.sender, last ? "TEST.SRV" : partial_name) << i;
    Decoded d = decode(r.payload);
    EXPECT_EQ(*d.trailer.more_data, last ? "N" : "Y") << i;
    EXPECT_EQ(d.tran.transcode, i == 0 ? "F" : "S") << i;
    EXPECT_EQ(d.tran.continuation, i == 0 ? "N" : "Y") << i;
    for (auto& s : segment_strings(d.plain, "ZZZSTS")) lines.push_back(s);
  }
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(kLines));
  for (int i = 0; i < kLines; ++i) ASSERT_EQ(lines[static_cast<std::size_t>(i)], line(i));
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

  quor_capture_set_file("");  // no capture file at all
  EXPECT_EQ(quor_capture_output(1), quor_msg_text(23, 4));
}

TEST(Catalogue, LoggedMessagesCarryTheirNumberAndSeverity) {
  TempDir dir;
  EnvGuard root("MOXGLBL0000", dir.str());
  mo_reset();
  quor_msg_log(8, 4, "Receive was canceled");
  quor_msg_log(401, 1, "hostA");
  std::string log = testutil::read_file(dir.path() / "quor/log/quordaemon.log");
  EXPECT_NE(log.find("QUOR0008S "), std::string::npos) << log;
  EXPECT_NE(log.find("Receive was canceled"), std::string::npos);
  EXPECT_NE(log.find("QUOR0401I "), std::string::npos);
  mo_reset();
}
