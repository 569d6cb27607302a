// The segmented buffer, transaction header, object header and trailer:
// exact bytes written, and readers that stay inside the data they are given.
#include <gtest/gtest.h>

#include <pwd.h>

#include <array>
#include <climits>
#include <cstdio>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "core_util.h"
#include "momsg.h"
#include "quortran.h"
#include "quortrl.h"
#include "quorutl.h"

using testutil::nul_join;

namespace {

std::string written(const OutBuf& out, std::size_t from) {
  return std::string(out.data.data() + from, out.pos - from);
}

// A plain buffer: six prefix bytes (not looked at by the readers) + body.
std::vector<char> with_prefix(const std::string& body) {
  std::vector<char> v(LENGTH_PREFIX + body.size(), ' ');
  std::copy(body.begin(), body.end(), v.begin() + LENGTH_PREFIX);
  return v;
}

}  // namespace

TEST(SegmentWriter, ErrorSegmentMatchesTheFramingExampleByteForByte) {
  std::array<char, 256> buf{};
  OutBuf out(buf, 100);
  std::size_t lf = buf_begin_segment(out, "ZZZRET");
  EXPECT_EQ(lf, 114u);
  buf_add_item(out, "RC");
  buf_add_item(out, "3");
  buf_add_item(out, "RM");
  buf_add_item(out, "bad");
  buf_end_segment(out, lf);
  EXPECT_EQ(out.pos, 139u);  // 39 bytes: 14 + the segment length 25
  EXPECT_EQ(written(out, 100),
            nul_join({"ZZZRET", "ZZZLEN", "   25", "RC", "3", "RM", "bad", "ZZZEOS"}));
  EXPECT_FALSE(out.overflow);
}

TEST(SegmentWriter, EmptySegmentsValuesAndTrailers) {
  std::array<char, 256> buf{};
  OutBuf out(buf);
  std::size_t lf = buf_begin_segment(out, "ZZZSTS");
  buf_end_segment(out, lf);
  EXPECT_EQ(written(out, 6), nul_join({"ZZZSTS", "ZZZLEN", "   13", "ZZZEOS"}));

  // An empty value is one NUL; text after an embedded NUL is not written.
  OutBuf v(buf);
  buf_add_item(v, "");
  buf_add_item(v, std::string_view("ab\0cd", 5));
  EXPECT_EQ(written(v, 6), std::string("\0ab\0", 4));

  // The trailer of a last buffer is 39 bytes; a trailer without a value is
  // an empty segment.
  OutBuf t(buf);
  quor_trl_put("N", t);
  EXPECT_EQ(t.pos - 6, 39u);
  EXPECT_EQ(written(t, 6), nul_join({"ZZZTRL", "ZZZLEN", "   18", "MD", "N", "ZZZEOS", "ZZZEOD"}));
  OutBuf n(buf);
  quor_trl_write(Trailer{}, n);
  EXPECT_EQ(written(n, 6), nul_join({"ZZZTRL", "ZZZLEN", "   13", "ZZZEOS", "ZZZEOD"}));
  // More data follows only a value beginning with 'Y': a trailer without
  // one, any other value, or no trailer at all ends the exchange.
  EXPECT_TRUE(quor_trl_last(InBuf(buf.data(), n.pos)));
  EXPECT_TRUE(quor_trl_last(InBuf(buf.data(), 6)));
  for (auto [value, last] : {std::pair{"Y", false}, {"Yes", false}, {"N", true}, {"X", true}, {"n", true}, {"", true}}) {
    OutBuf m(buf);
    quor_trl_put(value, m);
    EXPECT_EQ(quor_trl_last(InBuf(buf.data(), m.pos)), last) << value;
  }
}

TEST(SegmentWriter, RefusesToWritePastTheBufferAndSaysSo) {
  std::array<char, 40> buf{};
  buf.fill('#');
  OutBuf out(buf);
  std::size_t lf = buf_begin_segment(out, "ZZZSTS");  // 20 bytes, up to 26
  buf_add_item(out, "0123456789ABC");                 // 14 bytes: exactly fills 40
  EXPECT_FALSE(out.overflow);
  EXPECT_EQ(out.pos, 40u);
  buf_end_segment(out, lf);
  EXPECT_TRUE(out.overflow);
  EXPECT_EQ(out.pos, 40u);
  // The placeholder was not overwritten with a length for a segment that
  // never closed.
  EXPECT_EQ(std::string(buf.data() + lf, 5), "00000");
}

TEST(SegmentReader, ItemsAreMatchedExactlyAndLaterDuplicatesWin) {
  auto buf = with_prefix(nul_join({"ZZZHDR", "ZZZLEN", "   40", "obj", "lower", "OBJ", "first",
                                   "ZZ", "unknown", "OBJ", "second", "ZZZEOS"}));
  ObjectHeader hdr;
  ASSERT_TRUE(quor_hdr_read(buf, hdr));
  EXPECT_EQ(*hdr.object, "second");
  EXPECT_EQ(*hdr.action, "");
}

TEST(SegmentReader, ABadlyFramedSegmentHidesEverythingAfterIt) {
  const std::string good_ret = nul_join({"ZZZRET", "ZZZLEN", "   13", "ZZZEOS"});
  for (const std::string& first : {
           nul_join({"ZZZTRN", "ZZZLXX", "   13", "ZZZEOS"}),  // no ZZZLEN
           nul_join({"ZZZTRN", "ZZZLEN", "    0", "ZZZEOS"}),  // zero length
           nul_join({"ZZZTRN", "ZZZLEN", "32768", "ZZZEOS"}),  // too long
           nul_join({"ZZZTRN", "ZZZLEN", "   -5", "ZZZEOS"}),
       }) {
    auto buf = with_prefix(first + good_ret);
    EXPECT_FALSE(buf_find_segment(buf, "ZZZRET")) << first;
  }
  // Without ZZZEOD the later segment is still found.
  auto buf = with_prefix(nul_join({"ZZZTRN", "ZZZLEN", "   13", "ZZZEOS"}) + good_ret);
  EXPECT_TRUE(buf_find_segment(buf, "ZZZRET"));
  // A short length field at the very end: items would start past the end.
  auto cut = with_prefix(nul_join({"ZZZRET", "ZZZLEN", "5"}));
  EXPECT_FALSE(buf_find_segment(cut, "ZZZRET"));
}

TEST(SegmentReader, SegmentLengthField) {
  const std::tuple<const char*, const char*, long> cases[] = {
      {"ZZZLEN", "   25", 25}, {"ZZZLEN", "32767", 32767}, {"ZZZLEN", "32768", 0}, {"ZZZLEN", "  -1", 0},
      {"ZZZLEN", "abc", 0}, {"ZZZLEN", "99999999999999999999999", 0}, {"ZZZLE", "   25", -1}};
  for (const auto& [mark, field, length] : cases)
    EXPECT_EQ(buf_segment_length(with_prefix(nul_join({mark, field})), 6), length) << mark << " " << field;
}

TEST(TransactionHeader, DaemonHeaderHasSevenItemsInOrder) {
  testutil::EnvGuard user("MOX_QUORUSER", std::string("operator7"));
  std::array<char, 512> buf{};
  OutBuf out(buf);
  tran_header_put("E", "N", out);
  ASSERT_FALSE(out.overflow);
  const std::string pid = std::to_string(getpid()), gid = std::to_string(getgid());
  const std::string items = nul_join({"COD", "E", "PID", pid, "NOD", mo_nodename(), "USR", "operator7", "GID", gid,
                                      "ADD", "N", "OS", "UNIX1", "ZZZEOS"});
  char length[8];
  std::snprintf(length, sizeof length, "%5zu", 6 + items.size());
  EXPECT_EQ(written(out, 6), nul_join({"ZZZTRN", "ZZZLEN", length}) + items);
}

TEST(TransactionHeader, UserNameSources) {
  TransactionHeader h;
  {
    testutil::EnvGuard user("MOX_QUORUSER", std::string(""));
    tran_header_fill("B", "N", h);
    EXPECT_EQ(h.user, "");  // set but empty is used as it stands
  }
  testutil::EnvGuard unset("MOX_QUORUSER", std::nullopt);
  tran_header_fill("B", "N", h);
  const passwd* pw = getpwuid(getuid());
  EXPECT_EQ(h.user, pw != nullptr ? pw->pw_name : "");
  // After a change to a uid without a name, no name: not the one before.
  uid_t nameless = 54321;
  while (getpwuid(nameless) != nullptr) ++nameless;
  if (geteuid() == 0 && pw != nullptr) {
    testutil::Child child([&] {
      if (setuid(nameless) != 0) return 2;
      TransactionHeader after;
      tran_header_fill("B", "N", after);
      return after.user.empty() ? 0 : 1;
    });
    EXPECT_EQ(child.wait(), 0);
  }
}

TEST(ObjectHeader, WriteLeavesOutUnsetFieldsAndReadsBack) {
  ObjectHeader hdr;
  hdr.object = "PAYROLL";
  hdr.action = "BACKUP";
  hdr.cnt_text = "";
  std::array<char, 256> buf{};
  OutBuf out(buf);
  quor_hdr_write(hdr, out);
  EXPECT_EQ(written(out, 6), nul_join({"ZZZHDR", "ZZZLEN", "   41", "OBJ", "PAYROLL", "CMD",
                                       "BACKUP", "CNT", "", "ZZZEOS"}));
  ObjectHeader back;
  ASSERT_TRUE(quor_hdr_read(std::span<const char>(buf.data(), out.pos), back));
  EXPECT_EQ(*back.object, "PAYROLL");
  EXPECT_EQ(*back.action, "BACKUP");
  EXPECT_EQ(*back.data_format, "");  // absent reads as empty
}
