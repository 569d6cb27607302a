// The request record filled from real requests, at its offsets; the selection list both ways; the dumps.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "core_util.h"
#include "quorpnfn.h"
#include "quorsmc.h"

using testutil::EnvGuard;
using testutil::printed;
using testutil::TempDir;

// Designated initializers name only the fields a test sets.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

std::string at(const std::vector<char>& record, std::size_t offset, std::size_t size) {
  return std::string(record.data() + offset, size);
}

class RequestRecord : public ::testing::Test {
 protected:
  // Fills record_ from a request with `hdr` and `user`; the data file's name.
  std::string fill(const ObjectHeader& hdr, const std::string& user = "u") {
    std::vector<char> buf(BUFFER_MAX);
    OutBuf out(buf);
    tran_header_put("S", "N", out);
    quor_hdr_write(hdr, out);
    quor_trl_put("N", out);
    ObjectHeader read;
    EXPECT_TRUE(tran_header_read(buf, tran_) && quor_hdr_read(buf, read));
    tran_.user = user;
    return quor_smc_fill(record_, tran_, read);
  }

  TempDir tmp_;
  EnvGuard tmpdir_{"TMPDIR", tmp_.str()};
  TransactionHeader tran_;
  std::vector<char> record_ = std::vector<char>(kRecordSize);
};

TEST_F(RequestRecord, FilledAtItsOffsetsFromTheHeaders) {
  std::string data_file = fill({.object = "PROBE", .action = "LIST", .data_format = "P", .cmdfile = "Yes", .filename = "Y",
                                .ex_flag = "1", .op_text = "ignored", .vl_text = "Verb", .cnt_text = "1234567890123"},
                               std::string(40, 'u'));

  // Each field at its offset, NUL-terminated: user cut to 32, row count to 9 digits.
  const std::pair<std::size_t, std::string> fields[] = {
      {444, tran_.pid + '\0'},       {462, tran_.node + '\0'}, {435, tran_.gid + '\0'},
      {402, std::string(32, 'u') + '\0'}, {453, std::string("MOQuor\0", 7)}, {362, std::string("PROBE\0", 6)},
      {302, std::string("LIST\0", 5)},   {342, std::string("Verb\0", 5)},    {20, std::string("123456789\0", 10)},
      {32, "YYYY"},                      {16, std::string("\1\0\0\0", 4)},   {602, "@@"},
      {36, data_file + '\0'}};
  for (const auto& [offset, bytes] : fields) EXPECT_EQ(at(record_, offset, bytes.size()), bytes) << offset;
  ASSERT_TRUE(data_file.starts_with(tmp_.str() + "/")) << data_file;
  struct stat st {};
  ASSERT_EQ(stat(data_file.c_str(), &st), 0);
  EXPECT_EQ(st.st_size + (st.st_mode & 0777), 0600) << "not an empty private file";
  // Fields the daemon never sets stay zero.
  for (SmcField f : {smc::prev, smc::next, smc::allocSz, smc::lineOfCmd, smc::commandSyn, smc::objectSyn,
                     smc::date, smc::time, smc::alignment, smc::forFutureUse})
    EXPECT_EQ(at(record_, f.offset, f.size), std::string(f.size, '\0')) << f.offset;

  std::string dump = printed([&](std::FILE* out) { quor_dump_record(record_, out); });
  EXPECT_TRUE(dump.starts_with("***Start SMCDAT ***\nprev = 0\nnext = 0\nallocSz = \nextention = 1\n"
                               "row_count = 123456789\ncmdfile = 59595959\nfileName = " + data_file + "\n"))
      << dump;
  EXPECT_NE(dump.find("\nformat = 64\nflag = 64\n"), std::string::npos);
  EXPECT_NE(dump.find("\nPDat.csl.count = \nPDat.scroll_val = "), std::string::npos) << "no csl lines";
  EXPECT_EQ(std::count(dump.begin(), dump.end(), '\n'), 29) << "a line per field, and the first and last";

  // Items absent or not "Y"/"P": the plain defaults, and no data file.
  record_.assign(kRecordSize, '\0');
  EXPECT_EQ(fill({.data_format = "p", .cmdfile = "N", .filename = "N", .ex_flag = "11"}), "");
  EXPECT_EQ(record_[602], 16);
  EXPECT_EQ(at(record_, 16, 20 + 257), std::string(20 + 257, '\0')) << "extension, row count, command or data file";
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(tmp_.path()), {}), 1) << "a second data file";
}

// The list arrives in its slots (a count above the triples sent is kept, one
// above 100 becomes 100) and reads in the same once written back out.
TEST_F(RequestRecord, SelectionListInAndOut) {
  auto pnd = [](std::vector<char>& record, const std::vector<std::string>& items) {
    return quor_pnd_to_record(record, testutil::plain_request("S", {{kPndTag, items}}));
  };
  EXPECT_GT(pnd(record_, {"3", "NAME", "=", "abc", "SIZE", ">", "10", "P"}), 0u);
  const std::pair<std::size_t, std::string> slots[] = {
      {604, std::string("3\0", 2)},     {907, std::string("NAME\0", 5)}, {927, std::string("SIZE\0", 5)},
      {2907, std::string("=\0", 2)},    {2910, std::string(">\0", 2)},   {3207, std::string("abc\0", 4)},
      {3467, std::string("10\0", 3)},   {947, std::string(20, '\0')}};
  for (const auto& [offset, bytes] : slots) EXPECT_EQ(at(record_, offset, bytes.size()), bytes) << offset;
  EXPECT_EQ(quor_pnd_to_record(record_, testutil::plain_request("S", {})), 0u) << "no segment";

  std::vector<char> zero(kRecordSize);
  EXPECT_GT(pnd(zero, {"0", "A", "=", "b"}), 0u);
  EXPECT_EQ(smc_get(zero, smc::slot(smc::csl_name, 0)), "");
  pnd(zero, {"+100", "A", "=", "b"});
  EXPECT_EQ(smc_get(zero, smc::csl_count), "+100");

  std::vector<std::string> items = {"150"};
  for (int i = 0; i < 150; ++i) items.insert(items.end(), {"C" + std::to_string(i), "=", std::to_string(i)});
  ASSERT_GT(pnd(record_, items), 0u);
  EXPECT_EQ(smc_get(record_, smc::csl_count), "100");
  EXPECT_EQ(smc_get(record_, smc::slot(smc::csl_name, 99)), "C99");
  std::vector<char> reply(BUFFER_MAX);
  OutBuf out(reply);
  quor_pnd_from_record(record_, out);
  quor_trl_put("N", out);
  ASSERT_FALSE(out.overflow);
  std::vector<char> again(kRecordSize);
  ASSERT_GT(quor_pnd_to_record(again, InBuf(reply.data(), out.pos)), 0u);
  EXPECT_EQ(again, record_);
}

TEST(Dumps, BufferAndSegment) {
  std::string bytes = std::string("ab\0cd", 5) + std::string(80, 'x') + "ZZZEODtail";
  EXPECT_EQ(printed([&](std::FILE* out) { quor_dump_buffer(InBuf(bytes.data(), bytes.size()), 7, out); }),
            "quorBuffer= \nab^cdxx\n");
  EXPECT_EQ(printed([&](std::FILE* out) { quor_dump_buffer(InBuf(bytes.data(), bytes.size()), 500, out); }),
            "quorBuffer= \nab^cd" + std::string(75, 'x') + "\n" + std::string(5, 'x') + "ZZZEOD\n\n");
  std::string segment = std::string("A\0B\0ZZZEOS\0more", 15);
  EXPECT_EQ(printed([&](std::FILE* out) { quor_dump_items(InBuf(segment.data(), segment.size()), 0, out); }),
            "\nA^B^ZZZEOS\n\n");
}

}  // namespace
