// The body transform (the worked example, and the word-at-a-time code against
// the byte definition), the transport adapter's framing (length prefix and
// body transform), a real send/receive between two registrations, and the
// transport diagnostics.
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstdio>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "core_util.h"
#include "mocrypt.h"
#include "quortev.h"

using testutil::EnvGuard;
using testutil::TempDir;

using testutil::printed;

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

TEST(BodyTransform, WorkedExample) {
  std::vector<std::uint8_t> v = {0x41, 0x42};
  body_encode(0x25, v);
  EXPECT_EQ(v, (std::vector<std::uint8_t>{0xA7, 0x23}));
  body_decode(0x25, v);
  EXPECT_EQ(v, (std::vector<std::uint8_t>{0x41, 0x42}));
}

TEST(BodyTransform, MatchesTheByteDefinitionAndRoundTripsAtEveryLengthAndValue) {
  std::mt19937 rng(7);
  for (std::size_t n = 0; n < 80; ++n) {
    for (int seed : {0, 1, 44, 0x80, 255}) {
      std::vector<std::uint8_t> plain(n);
      for (std::size_t i = 0; i < n; ++i)  // every byte value turns up across the rounds
        plain[i] = static_cast<std::uint8_t>(rng() + i * 37);
      auto v = plain;
      body_encode(seed, v);
      ASSERT_EQ(v, encode_by_definition(seed, plain)) << "n=" << n << " seed=" << seed;
      auto high = plain;  // only the seed's low byte counts
      body_encode(seed + 256, high);
      ASSERT_EQ(high, v);
      body_decode(seed, v);
      ASSERT_EQ(v, plain) << "n=" << n << " seed=" << seed;
    }
  }
}

TEST(Framing, SealWritesThePrefixAndEncodesTheBodyWithTheLengthAsSeed) {
  const struct {
    std::size_t total;
    const char* prefix;  // with its NUL
    int seed;
  } cases[] = {{7, "    7", 7}, {42, "   42", 42}, {256, "  256", 0}, {300, "  300", 44}, {32767, "32767", 255}};
  for (const auto& c : cases) {
    std::vector<char> buf(c.total, 'q');
    ASSERT_EQ(quor_wire_seal(buf, c.total), 0) << c.total;
    EXPECT_EQ(std::string(buf.data(), 6), std::string(c.prefix, 6));
    std::vector<char> body(c.total - 6, 'q');
    body_encode(c.seed, std::span<char>(body));
    EXPECT_EQ(std::string(buf.data() + 6, c.total - 6), std::string(body.data(), body.size())) << c.total;
  }
}

TEST(Framing, SealRefusesLengthsOutsideTheMessageRange) {
  std::vector<char> buf(40000, 'z');
  EXPECT_EQ(quor_wire_seal(buf, 6), 3);
  EXPECT_EQ(quor_wire_seal(buf, 32768), 3);
  EXPECT_EQ(buf[0], 'z');  // nothing written
}

TEST(Framing, OpenRestoresTheBodyAndRefusesBadPrefixes) {
  std::vector<char> buf(100, 0);
  std::string text = "ZZZTRN-and-more";
  std::copy(text.begin(), text.end(), buf.begin() + 6);
  ASSERT_EQ(quor_wire_seal(buf, 6 + text.size()), 0);
  EXPECT_EQ(quor_wire_open(buf, 6 + text.size()), 6 + text.size());
  EXPECT_EQ(std::string(buf.data() + 6, text.size()), text);

  auto open_with = [](std::string prefix, std::size_t received) {
    std::vector<char> b(64, 'k');
    std::copy(prefix.begin(), prefix.end(), b.begin());
    return quor_wire_open(b, received);
  };
  EXPECT_EQ(open_with(std::string("    6\0", 6), 64), 0u);
  EXPECT_EQ(open_with(std::string("     \0", 6), 64), 0u);
  EXPECT_EQ(open_with(std::string("abcde\0", 6), 64), 0u);
  EXPECT_EQ(open_with(std::string("   50\0", 6), 49), 0u);  // claims more than arrived
  EXPECT_EQ(open_with(std::string("   99\0", 6), 64), 0u);  // more than the buffer
  EXPECT_EQ(open_with(std::string("   50\0", 6), 64), 50u);
}

// Two registrations in one process: what one sends, the other receives as
// plain text again, with the sender's identity.
TEST(Adapter, SendAndReceiveThroughTheRealTransport) {
  TempDir dir;
  EnvGuard tev("TEV_DIR", dir.str());
  ConnRecord server, client;
  ASSERT_EQ(quor_tev_register(server.local, server.fb, "ADAPTER.SRV"), 0);
  ASSERT_EQ(quor_tev_register(client.local, client.fb, "ADAPTER.CLI"), 0);
  EXPECT_EQ(server.local.app_name(), "ADAPTER.SRV");

  std::size_t length = 0;
  auto out = testutil::make_request("B", length);
  const auto plain = out;
  client.remote = server.local;
  ASSERT_EQ(quor_tev_send(client, out, length), 0);

  std::array<char, BUFFER_MAX> in{};
  ASSERT_EQ(quor_tev_receive(server, in), 0);
  EXPECT_EQ(server.remote.app_name(), "ADAPTER.CLI");
  EXPECT_TRUE(server.inquiry.valid);
  EXPECT_EQ(server.inquiry.pid, getpid());
  EXPECT_EQ(std::string(in.data() + 6, length - 6), std::string(plain.data() + 6, length - 6));

  // A send to a name nobody holds fails with the transport's reason.
  client.remote.set_app_name("NOBODY.HERE");
  EXPECT_EQ(quor_tev_send(client, out, length), 2);
  EXPECT_EQ(client.fb.FB_Src, kTevSrcNoRcvr);
  EXPECT_EQ(quor_tev_send(client, out, 3), 3);

  EXPECT_EQ(quor_tev_deregister(client.local, client.fb), 0);
  EXPECT_EQ(quor_tev_deregister(server.local, server.fb), 0);
}

TEST(Diagnostics, DumpShowsTheBytesUpToOneZeroAfterTheLastGroupedByFour) {
  TempDir dir;
  EnvGuard dump("MOXQUORDUMP", dir.str());  // no trailing slash
  tev_dump_reset();
  std::array<char, 40> buf{'a', 'b', 'c'};
  tev_dump_buffer(buf, "tevBuffer");
  std::string text = testutil::read_file(dir.path() / "quordump.out");
  std::regex expected(
      "quordaemon: Entering DumpBuffer for tevBuffer 0x[0-9a-f]+ 40\n"
      "quordaemon:  0x[0-9a-f]+  61626300 {29}\\*abc\\. {12}\\*\n");
  EXPECT_TRUE(std::regex_match(text, expected)) << text;

  // A second dump appends; the same directory with a trailing slash names
  // the same file.
  EnvGuard dump2("MOXQUORDUMP", dir.str() + "/");
  std::array<char, 20> zeros{};
  tev_dump_buffer(zeros, "second");
  text = testutil::read_file(dir.path() / "quordump.out");
  EXPECT_NE(text.find("tevBuffer"), std::string::npos);
  EXPECT_NE(text.find("for second"), std::string::npos);
  // An all-zero buffer shows two bytes.
  EXPECT_NE(text.find("  0000 "), std::string::npos);

  // A full run of 16 bytes is grouped by four, the rest on a line of its own.
  std::array<char, 18> run{};
  for (std::size_t i = 0; i < run.size(); ++i) run[i] = static_cast<char>('A' + i);
  run[5] = '\n';
  tev_dump_buffer(run, "run");
  text = testutil::read_file(dir.path() / "quordump.out");
  EXPECT_NE(text.find("  41424344 450A4748 494A4B4C 4D4E4F50  *ABCDE.GHIJKLMNOP*\n"), std::string::npos) << text;
  EXPECT_TRUE(std::regex_search(text, std::regex("  5152 {33}\\*QR {14}\\*\n"))) << text;

  // A new process (here: after a reset) empties the file on its first dump.
  tev_dump_reset();
  tev_dump_buffer(zeros, "third");
  text = testutil::read_file(dir.path() / "quordump.out");
  EXPECT_EQ(text.find("tevBuffer"), std::string::npos);
}

namespace {
// What `print` writes to a stream, as text.
std::string explain(int prc, int src, int drc) {
  return printed([&](std::FILE* f) { tev_explain_codes(prc, src, drc, f); });
}
}  // namespace

TEST(Diagnostics, ReturnCodesAreExplainedFromTheTables) {
  EXPECT_EQ(explain(0, 0x22, 3), "\tPrc =  0: OK,  normal return code\n");
  EXPECT_EQ(explain(0x14, 0x22, 0x0D),
            "\tPrc = 14: PLISTERR,  function parameter error\n"
            "\tSrc = 22: RTMOUT, Receive timed out\n"
            "\tDrc =  D: <undefined>\n");
  EXPECT_EQ(explain(0x99, 0x06, 0x05),
            "\tPrc = 99: <undefined>\n"
            "\tSrc =  6: NORCVR, No receiver online\n"
            "\tDrc =  5: MEMALLOC, <memory allocation failure>\n");
}

TEST(Diagnostics, FeedbackDumpListsEveryField) {
  TevFeedback fb;
  fb.FB_Prc = 0x08;
  fb.FB_Src = 0x06;
  fb.FB_ErrorText = "No receiver online";
  fb.FB_Remote_Id.set_system_id("hostA");
  fb.FB_Remote_Id.set_app_name("MO_QUORUNIX_SERVER");
  fb.FB_ConversId = 0x1A;
  fb.FB_InConversId = 0x2B;
  fb.FB_Error_Detail = 0x3C;
  fb.FB_Error_Text_Code = 0x4D;
  fb.FB_DataLen = 0x5E;
  std::string s = printed([&](std::FILE* f) { tev_dump_feedback("    TevInit failed", fb, f); });
  ASSERT_EQ(s.rfind("    TevInit failed\tContents of  feedback-block at ", 0), 0u) << s;
  EXPECT_EQ(s.substr(s.find('\n')),
            "\n\n\tFB_ConversId:             1A\n\tFB_InConversId:           2B\n\tFB_Prc:                   8\n"
            "\tFB_Src:                   6\n\tFB_Error_Detail:          3C\n\tFB_Error_Text_Code:       4D\n"
            "\tFB_ErrorText:             No receiver online\n\tFB_DataLen:               5E\n\tFB_Remote_Id:\n"
            "\t   ID_systemid:              (hostA)\n\t   ID_appname:               (MO_QUORUNIX_SERVER)\n"
            "\tFB_Local_Id:\n\t   ID_systemid:              ()\n\t   ID_appname:               ()\n"
            "\tFB_Inqy_Count:            0\n\tFB_Inqy_Len:              0\n\tFB_Inqy_Buffer:           0\n\n"
            "\tMessage text associated with Prc, Src, Drc\n\n\tPrc =  8: LOGICERR, Logic error detected\n"
            "\tSrc =  6: NORCVR, No receiver online\n\tDrc = 3C: <undefined>\n");
}
