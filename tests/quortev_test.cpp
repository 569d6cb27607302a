// The body transform, the transport adapter's framing, and its diagnostics.
#include <gtest/gtest.h>

#include <bit>
#include <random>
#include <regex>

#include "core_util.h"
#include "mocrypt.h"
#include "quortev.h"

using testutil::EnvGuard;
using testutil::printed;
using testutil::TempDir;

namespace {

// The transform as defined byte by byte; the library works a word at a time.
std::vector<std::uint8_t> encode_by_definition(int seed, std::vector<std::uint8_t> v) {
  auto s = static_cast<std::uint8_t>(seed);
  for (auto& b : v) {
    s = static_cast<std::uint8_t>(s ^ std::rotl(b, 1));
    b = s;
  }
  return v;
}

}  // namespace

// The worked example; every length up to 80 (all word/tail splits); only the seed's low byte counts.
TEST(BodyTransform, MatchesTheByteDefinition) {
  std::vector<std::uint8_t> example = {0x41, 0x42};
  body_encode(0x25, example);
  EXPECT_EQ(example, (std::vector<std::uint8_t>{0xA7, 0x23}));
  std::mt19937 rng(7);
  for (std::size_t n = 0; n < 80; ++n) {
    for (int seed : {0, 1, 44, 0x80, 255}) {
      std::vector<std::uint8_t> plain(n);
      for (auto& b : plain) b = static_cast<std::uint8_t>(rng());
      auto v = plain;
      body_encode(seed + 256, v);
      ASSERT_EQ(v, encode_by_definition(seed, plain)) << "n=" << n << " seed=" << seed;
    }
  }
}

// Sealing writes the length prefix and encodes the body with the length as seed; opening restores it.
// Lengths out of range are not sealed (nor sent); a prefix that is no length or claims too much is not opened.
TEST(Framing, SealAndOpen) {
  const std::tuple<std::size_t, const char*, int> sealed[] = {
      {7, "    7", 7}, {300, "  300", 44}, {32767, "32767", 255}};
  for (const auto& [total, prefix, seed] : sealed) {
    std::vector<char> buf(total, 'q');
    ASSERT_EQ(quor_wire_seal(buf, total), 0) << total;
    EXPECT_EQ(std::string(buf.data(), 6), std::string(prefix, 6));
    std::vector<char> body(total - 6, 'q');
    body_encode(seed, std::span<char>(body));
    EXPECT_EQ(std::string(buf.data() + 6, total - 6), std::string(body.data(), body.size())) << total;
    EXPECT_EQ(quor_wire_open(buf, total), total);
    EXPECT_EQ(std::string(buf.data() + 6, total - 6), std::string(total - 6, 'q')) << total;
  }
  std::vector<char> buf(40000, 'z');
  EXPECT_EQ(quor_wire_seal(buf, 6), 3);
  EXPECT_EQ(quor_wire_seal(buf, 32768), 3);
  EXPECT_EQ(buf[0], 'z');  // nothing written
  ConnRecord unsent;
  EXPECT_EQ(quor_tev_send(unsent, buf, 3), 3);

  const std::pair<const char*, std::size_t> refused[] = {
      {"    6", 64}, {"     ", 64}, {"abcde", 64}, {"   50", 49}, {"   99", 100}};
  for (const auto& [prefix, received] : refused) {
    std::vector<char> b(64, 'k');
    std::copy_n(prefix, 6, b.begin());
    EXPECT_EQ(quor_wire_open(b, received), 0u) << prefix << " " << received;
  }
}

// Sixteen bytes a line, up to one zero byte after the last other one (two of
// an all-zero buffer); a process's later dumps append, its first starts anew.
TEST(Diagnostics, DumpFile) {
  TempDir dir;
  EnvGuard dump("MOXQUORDUMP", dir.str() + "/");
  tev_dump_reset();
  tev_dump_buffer(std::string_view("ABCDE\nGHIJKLMNOPQR"), "run");
  EnvGuard same("MOXQUORDUMP", dir.str());
  std::array<char, 40> abc{'a', 'b', 'c'};
  tev_dump_buffer(abc, "tevBuffer");
  const std::string address = "0x[0-9a-f]+";
  const std::regex two_dumps("quordaemon: Entering DumpBuffer for run " + address + " 18\n" +
                             "quordaemon:  " + address + "  41424344 450A4748 494A4B4C 4D4E4F50  \\*ABCDE.GHIJKLMNOP\\*\n" +
                             "quordaemon:  " + address + "  5152 {33}\\*QR {14}\\*\n" +
                             "quordaemon: Entering DumpBuffer for tevBuffer " + address + " 40\n" +
                             "quordaemon:  " + address + "  61626300 {29}\\*abc\\. {12}\\*\n");
  std::string text = testutil::read_file(dir.path() / "quordump.out");
  EXPECT_TRUE(std::regex_match(text, two_dumps)) << text;

  tev_dump_reset();
  std::array<char, 20> zeros{};
  tev_dump_buffer(zeros, "zeros");
  const std::regex one_dump("quordaemon: Entering DumpBuffer for zeros " + address + " 20\n" +
                            "quordaemon:  " + address + "  0000 {33}\\*\\.\\. {14}\\*\n");
  text = testutil::read_file(dir.path() / "quordump.out");
  EXPECT_TRUE(std::regex_match(text, one_dump)) << text;
}

// Only Prc when it is 0, "<undefined>" for a code a table lacks; the
// feedback block lists every field, then the explanation.
TEST(Diagnostics, CodesAndFeedbackBlock) {
  EXPECT_EQ(printed([](std::FILE* f) { tev_explain_codes(0, 0x22, 3, f); }), "\tPrc =  0: OK,  normal return code\n");
  EXPECT_EQ(printed([](std::FILE* f) { tev_explain_codes(0x99, 0x22, 0x05, f); }),
            "\tPrc = 99: <undefined>\n\tSrc = 22: RTMOUT, Receive timed out\n"
            "\tDrc =  5: MEMALLOC, <memory allocation failure>\n");

  TevFeedback fb;
  fb.FB_Prc = 0x08;
  fb.FB_Src = 0x06;
  fb.FB_ErrorText = "No receiver online";
  fb.FB_Remote_Id.set_system_id("hostA");
  fb.FB_Remote_Id.set_app_name("MO_QUORUNIX_SERVER");
  fb.FB_Error_Detail = 0x3C;
  fb.FB_DataLen = 0x5E;
  std::string s = printed([&](std::FILE* f) { tev_dump_feedback("    TevInit failed", fb, f); });
  ASSERT_EQ(s.rfind("    TevInit failed\tContents of  feedback-block at ", 0), 0u) << s;
  EXPECT_EQ(s.substr(s.find('\n')),
            "\n\n\tFB_ConversId:             0\n\tFB_InConversId:           0\n\tFB_Prc:                   8\n"
            "\tFB_Src:                   6\n\tFB_Error_Detail:          3C\n\tFB_Error_Text_Code:       0\n"
            "\tFB_ErrorText:             No receiver online\n\tFB_DataLen:               5E\n\tFB_Remote_Id:\n"
            "\t   ID_systemid:              (hostA)\n\t   ID_appname:               (MO_QUORUNIX_SERVER)\n"
            "\tFB_Local_Id:\n\t   ID_systemid:              ()\n\t   ID_appname:               ()\n"
            "\tFB_Inqy_Count:            0\n\tFB_Inqy_Len:              0\n\tFB_Inqy_Buffer:           0\n\n"
            "\tMessage text associated with Prc, Src, Drc\n\n\tPrc =  8: LOGICERR, Logic error detected\n"
            "\tSrc =  6: NORCVR, No receiver online\n\tDrc = 3C: <undefined>\n");
}
