// Segments, headers and trailer: exact bytes written, and how they read.
#include <gtest/gtest.h>

#include <tuple>

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

// What each writer puts after the prefix, byte for byte.
TEST(SegmentWriter, ExactBytes) {
  testutil::EnvGuard user("MOX_QUORUSER", std::string("operator7"));
  const std::string tran_items =
      nul_join({"COD", "E", "PID", std::to_string(getpid()), "NOD", mo_nodename(), "USR", "operator7", "GID",
                std::to_string(getgid()), "ADD", "N", "OS", "UNIX1", "ZZZEOS"});
  char tran_length[8];
  std::snprintf(tran_length, sizeof tran_length, "%5zu", 6 + tran_items.size());
  ObjectHeader hdr;  // unset fields are left out
  hdr.object = "PAYROLL";
  hdr.action = "BACKUP";
  hdr.cnt_text = "";
  const std::tuple<const char*, std::function<void(OutBuf&)>, std::string> cases[] = {
      {"empty segment", [](OutBuf& out) { testutil::put_segment(out, "ZZZSTS", {}); },
       nul_join({"ZZZSTS", "ZZZLEN", "   13", "ZZZEOS"})},
      {"an empty value is one NUL, text after a NUL is left out",
       [](OutBuf& out) {
         buf_add_item(out, "");
         buf_add_item(out, std::string_view("ab\0cd", 5));
       },
       std::string("\0ab\0", 4)},
      {"trailer without a value", [](OutBuf& out) { quor_trl_write(Trailer{}, out); },
       nul_join({"ZZZTRL", "ZZZLEN", "   13", "ZZZEOS", "ZZZEOD"})},
      {"object header", [&](OutBuf& out) { quor_hdr_write(hdr, out); },
       nul_join({"ZZZHDR", "ZZZLEN", "   41", "OBJ", "PAYROLL", "CMD", "BACKUP", "CNT", "", "ZZZEOS"})},
      {"transaction header", [](OutBuf& out) { tran_header_put("E", "N", out); },
       nul_join({"ZZZTRN", "ZZZLEN", tran_length}) + tran_items}};
  for (const auto& [name, write, expected] : cases) {
    SCOPED_TRACE(name);
    std::array<char, 512> buf{};
    OutBuf out(buf);
    write(out);
    EXPECT_FALSE(out.overflow);
    EXPECT_EQ(written(out, 6), expected);
  }
}

TEST(SegmentWriter, RefusesToWritePastTheBufferAndSaysSo) {
  std::array<char, 40> buf{};
  OutBuf out(buf);
  std::size_t lf = buf_begin_segment(out, "ZZZSTS");  // 20 bytes, up to 26
  buf_add_item(out, "0123456789ABC");                 // 14 bytes: exactly fills 40
  EXPECT_FALSE(out.overflow);
  buf_end_segment(out, lf);
  EXPECT_TRUE(out.overflow);
  EXPECT_EQ(out.pos, 40u);
  // The placeholder of a segment that never closed is left as it was.
  EXPECT_EQ(std::string(buf.data() + lf, 5), "00000");
}

TEST(SegmentReader, HeadersTrailersAndFraming) {
  // Items are matched exactly, later duplicates win, absent ones are empty.
  auto buf = with_prefix(nul_join({"ZZZHDR", "ZZZLEN", "   40", "obj", "lower", "OBJ", "first", "ZZ", "unknown",
                                   "OBJ", "second", "ZZZEOS"}));
  ObjectHeader hdr;
  ASSERT_TRUE(quor_hdr_read(buf, hdr));
  EXPECT_EQ(*hdr.object, "second");
  EXPECT_EQ(*hdr.action, "");

  // Only a trailer value starting with 'Y' says more follows.
  const std::pair<std::optional<std::string>, bool> trailers[] = {
      {"Y", false}, {"Yes", false}, {"N", true}, {"", true}, {std::nullopt, true}};
  for (const auto& [value, last] : trailers) {
    std::array<char, 64> out_buf{};
    OutBuf out(out_buf);
    quor_trl_write(Trailer{value}, out);
    EXPECT_EQ(quor_trl_last(InBuf(out_buf.data(), out.pos)), last) << value.value_or("(none)");
  }
  EXPECT_TRUE(quor_trl_last(InBuf(buf.data(), 6)));

  // A 0-length segment hides the next; a short length field at the end holds nothing.
  const std::string ret = nul_join({"ZZZRET", "ZZZLEN", "   13", "ZZZEOS"});
  EXPECT_FALSE(buf_find_segment(with_prefix(nul_join({"ZZZTRN", "ZZZLEN", "    0", "ZZZEOS"}) + ret), "ZZZRET"));
  EXPECT_TRUE(buf_find_segment(with_prefix(nul_join({"ZZZTRN", "ZZZLEN", "   13", "ZZZEOS"}) + ret), "ZZZRET"));
  EXPECT_FALSE(buf_find_segment(with_prefix(nul_join({"ZZZRET", "ZZZLEN", "5"})), "ZZZRET"));

  // The length field: -1 without its mark, 0 when out of range or no number.
  const std::tuple<const char*, const char*, long> lengths[] = {
      {"ZZZLEN", "   25", 25}, {"ZZZLEN", "32767", 32767}, {"ZZZLEN", "32768", 0}, {"ZZZLEN", "  -1", 0},
      {"ZZZLEN", "abc", 0}, {"ZZZLEN", "99999999999999999999999", 0}, {"ZZZLE", "   25", -1}};
  for (const auto& [mark, field, length] : lengths)
    EXPECT_EQ(buf_segment_length(with_prefix(nul_join({mark, field})), 6), length) << mark << " " << field;
}

TEST(TransactionHeader, UserNameSources) {
  TransactionHeader h;
  testutil::EnvGuard unset("MOX_QUORUSER", std::nullopt);
  tran_header_fill("B", "N", h);
  const passwd* pw = getpwuid(getuid());
  EXPECT_EQ(h.user, pw != nullptr ? pw->pw_name : "");
  // After a change to a uid without a name, no name: not the one before.
  uid_t nameless = 54321;
  while (getpwuid(nameless) != nullptr) ++nameless;
  if (geteuid() != 0 || pw == nullptr) return;
  testutil::Child child([&] {
    if (setuid(nameless) != 0) return 2;
    TransactionHeader after;
    tran_header_fill("B", "N", after);
    return after.user.empty() ? 0 : 1;
  });
  EXPECT_EQ(child.wait(), 0);
}
