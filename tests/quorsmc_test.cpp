// The request record at its byte offsets, filled from real request buffers;
// the selection list in both directions; the debug dumps.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <vector>

#include "core_util.h"
#include "quorpnfn.h"
#include "quorsmc.h"

using testutil::EnvGuard;
using testutil::TempDir;

using testutil::printed;

namespace {

// A request as a client sends it: transaction header, object header, the
// given extra segment (tag and items), trailer.
std::vector<char> request(const ObjectHeader& hdr, std::string_view tag = {},
                          const std::vector<std::string>& items = {}) {
  std::vector<char> buf(BUFFER_MAX);
  OutBuf out(buf);
  tran_header_put("S", "N", out);
  quor_hdr_write(hdr, out);
  if (!tag.empty()) {
    std::size_t field = buf_begin_segment(out, tag);
    for (const auto& item : items) buf_add_item(out, item);
    buf_end_segment(out, field);
  }
  quor_trl_put("N", out);
  buf.resize(out.pos);
  return buf;
}

std::string at(const std::vector<char>& record, std::size_t offset, std::size_t size) {
  return std::string(record.data() + offset, size);
}

class RequestRecord : public ::testing::Test {
 protected:
  TempDir tmp_;
  EnvGuard tmpdir_{"TMPDIR", tmp_.str()};
  std::vector<char> record_ = std::vector<char>(kRecordSize);
};

TEST_F(RequestRecord, FilledAtItsOffsetsFromTheHeaders) {
  ObjectHeader hdr;
  hdr.object = "PROBE";
  hdr.action = "LIST";
  hdr.data_format = "P";
  hdr.cmdfile = "Yes";
  hdr.filename = "Y";
  hdr.ex_flag = "1";
  hdr.op_text = "ignored";
  hdr.vl_text = "Verb";
  hdr.cnt_text = "1234567890123";
  std::vector<char> buf = request(hdr);
  TransactionHeader tran;
  ASSERT_TRUE(tran_header_read(buf, tran));
  tran.user = std::string(40, 'u');
  ObjectHeader read;
  ASSERT_TRUE(quor_hdr_read(buf, read));

  std::string data_file = quor_smc_fill(record_, tran, read);

  EXPECT_EQ(at(record_, 444, 9), (tran.pid + std::string(9, '\0')).substr(0, 9));
  EXPECT_EQ(smc_get(record_, smc::node), tran.node);
  EXPECT_EQ(smc_get(record_, smc::gid), tran.gid);
  EXPECT_EQ(at(record_, 402, 33), std::string(32, 'u') + '\0') << "user name not cut to 32";
  EXPECT_EQ(at(record_, 453, 7), std::string("MOQuor\0", 7));
  EXPECT_EQ(at(record_, 362, 6), std::string("PROBE\0", 6));
  EXPECT_EQ(at(record_, 302, 5), std::string("LIST\0", 5));
  EXPECT_EQ(at(record_, 342, 5), std::string("Verb\0", 5));
  EXPECT_EQ(at(record_, 20, 12), std::string("123456789") + std::string(3, '\0'));
  EXPECT_EQ(at(record_, 32, 4), "YYYY");
  EXPECT_EQ(at(record_, 16, 4), std::string("\1\0\0\0", 4));
  EXPECT_EQ(record_[602], 64);
  EXPECT_EQ(record_[603], 64);
  EXPECT_EQ(smc_get(record_, smc::fileName), data_file);
  ASSERT_TRUE(data_file.starts_with(tmp_.str() + "/")) << data_file;
  struct stat st {};
  ASSERT_EQ(stat(data_file.c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
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
  EXPECT_TRUE(dump.ends_with("*** End SMCDAT ***\n"));
  EXPECT_EQ(std::count(dump.begin(), dump.end(), '\n'), 29) << "a line per field, and the first and last";
}

TEST_F(RequestRecord, AbsentItemsGiveThePlainDefaults) {
  ObjectHeader hdr;
  hdr.data_format = "p";
  hdr.cmdfile = "N";
  hdr.filename = "N";
  hdr.ex_flag = "11";
  std::vector<char> buf = request(hdr);
  TransactionHeader tran;
  ObjectHeader read;
  ASSERT_TRUE(tran_header_read(buf, tran) && quor_hdr_read(buf, read));
  EXPECT_EQ(quor_smc_fill(record_, tran, read), "");
  EXPECT_EQ(record_[602], 16);
  EXPECT_EQ(at(record_, 32, 4), std::string(4, '\0'));
  EXPECT_EQ(at(record_, 16, 4), std::string(4, '\0'));
  EXPECT_EQ(at(record_, 36, 257), std::string(257, '\0'));
  EXPECT_TRUE(std::filesystem::is_empty(tmp_.path())) << "a data file was made without being asked for";
}

// The selection list arrives in its slots, bounded; a count above the
// triples present stops at the segment's end and is kept as sent.
TEST_F(RequestRecord, SelectionListInbound) {
  std::vector<char> buf = request({}, kPndTag, {"2", "NAME", "=", "abc", "SIZE", ">", "10"});
  EXPECT_GT(quor_pnd_to_record(record_, buf), 0u);
  EXPECT_EQ(at(record_, 604, 2), std::string("2\0", 2));
  EXPECT_EQ(at(record_, 907, 5), std::string("NAME\0", 5));
  EXPECT_EQ(at(record_, 927, 5), std::string("SIZE\0", 5));
  EXPECT_EQ(at(record_, 2907, 2), std::string("=\0", 2));
  EXPECT_EQ(at(record_, 2910, 2), std::string(">\0", 2));
  EXPECT_EQ(at(record_, 3207, 4), std::string("abc\0", 4));
  EXPECT_EQ(at(record_, 3467, 3), std::string("10\0", 3));

  std::vector<char> other(kRecordSize);
  std::vector<std::string> long_items = {"5", std::string(30, 'n'), "<>=", std::string(300, 'v'), "B"};
  EXPECT_GT(quor_pnd_to_record(other, request({}, kPndTag, long_items)), 0u);
  EXPECT_EQ(smc_get(other, smc::csl_count), "5");
  EXPECT_EQ(smc_get(other, smc::slot(smc::csl_name, 0)), std::string(19, 'n'));
  EXPECT_EQ(smc_get(other, smc::slot(smc::csl_oper, 0)), "<>");
  EXPECT_EQ(smc_get(other, smc::slot(smc::csl_value, 0)), std::string(259, 'v'));
  EXPECT_EQ(smc_get(other, smc::slot(smc::csl_name, 1)), "") << "a partial triple was copied";

  std::vector<char> none(kRecordSize, 'x');
  EXPECT_EQ(quor_pnd_to_record(none, request({})), 0u);
  EXPECT_EQ(std::count(none.begin(), none.end(), 'x'), static_cast<long>(kRecordSize));
  std::vector<char> zero(kRecordSize);
  EXPECT_GT(quor_pnd_to_record(zero, request({}, kPndTag, {"0", "A", "=", "b"})), 0u);
  EXPECT_EQ(smc_get(zero, smc::slot(smc::csl_name, 0)), "");
}

// More triples than the record has slots: 100 are copied and the count
// says 100; written back out, the list is the same 100 entries.
TEST_F(RequestRecord, SelectionListOfMoreThanAHundredAndBackOut) {
  std::vector<std::string> items = {"150"};
  for (int i = 0; i < 150; ++i) items.insert(items.end(), {"C" + std::to_string(i), "=", std::to_string(i)});
  ASSERT_GT(quor_pnd_to_record(record_, request({}, kPndTag, items)), 0u);
  EXPECT_EQ(smc_get(record_, smc::csl_count), "100");
  EXPECT_EQ(smc_get(record_, smc::slot(smc::csl_name, 99)), "C99");
  EXPECT_EQ(at(record_, smc::csl_value.offset + 100 * 260, 10), std::string(10, '\0')) << "past the last slot";
  std::vector<char> exact(kRecordSize);  // only a count above the slots is replaced
  quor_pnd_to_record(exact, request({}, kPndTag, {"+100", "A", "=", "b"}));
  EXPECT_EQ(smc_get(exact, smc::csl_count), "+100");

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
