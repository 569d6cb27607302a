// List and calendar files: segments of real request buffers written to
// files, and files sent back in reply segments through the real transport;
// the command file of the file-version commands.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

#include "forked_server.h"
#include "quorcal.h"
#include "quorlsfl.h"
#include "quorproc.h"
#include "quorsmc.h"

using namespace forked;
using testutil::read_file;

namespace {

std::vector<char> request(std::string_view tag, const std::vector<std::string>& items, std::string_view more = "N") {
  return testutil::plain_request("S", {{tag, items}}, more);
}

// Every item of `tag` segments over all reply buffers.
std::vector<std::string> items_of(const Served& served, std::string_view tag) {
  std::vector<std::string> items;
  for (const Decoded& d : served.buffers)
    for (std::string& s : segment_strings(d.plain, tag)) items.push_back(std::move(s));
  return items;
}

std::int32_t int_at(const std::string& bytes, std::size_t offset) {
  std::int32_t v = 0;
  std::memcpy(&v, bytes.data() + offset, 4);
  return v;
}

class Transfers : public ForkedServer {
 protected:
  std::string path(const char* name = "f") const { return (dir_.path() / name).string(); }
  FileTransfer transfer(const char* name = "f") const {
    FileTransfer t;
    t.path = path(name);
    return t;
  }
};

TEST_F(Transfers, ListInbound) {
  FileTransfer t = transfer();
  EXPECT_EQ(buffer_to_list(t, "ZZZCMD", request("ZZZCMD", {"a", "b\n", "c"})), 0);
  EXPECT_EQ(read_file(path()), "a\nb\nc\n");
  EXPECT_FALSE(t.stream);

  // Two buffers make one file; an empty segment truncates.
  EXPECT_EQ(buffer_to_list(t, "ZZZLST", request("ZZZLST", {"1"}, "Y")), 0);
  EXPECT_EQ(buffer_to_list(t, "ZZZLST", request("ZZZLST", {"2"}, "N")), 0);
  EXPECT_EQ(read_file(path()), "1\n2\n");
  EXPECT_EQ(buffer_to_list(t, "ZZZLST", request("ZZZLST", {})), 0);
  EXPECT_EQ(read_file(path()), "");

  EXPECT_EQ(buffer_to_list(t, "ZZZLST", request("ZZZCMD", {"a"})), 4);
  EXPECT_EQ(buffer_to_list(t, "ZZZLST", request("ZZZLST", {"a", "", "b"})), 3);
  EXPECT_FALSE(t.stream) << "a failed transfer left its file open";
  EXPECT_EQ(read_file(path()), "a\n");
  FileTransfer nowhere = transfer("no/such/dir");
  EXPECT_EQ(buffer_to_list(nowhere, "ZZZLST", request("ZZZLST", {"a"})), 7);
  FileTransfer full;
  full.path = "/dev/full";
  EXPECT_EQ(buffer_to_list(full, "ZZZLST", request("ZZZLST", {std::string(9000, 'x')})), 6);
}

// Lines leave with their newlines (the last one without, if the file has
// none), empty lines too, long lines in pieces of 259; a long file spans
// several buffers, continued as "U" transactions.
TEST_F(Transfers, ListOutbound) {
  testutil::write_file(path(), "one\n\n" + std::string(300, 'x') + "\nlast");
  Served small = serve_one(server_, [&](OutBuf& out) { return list_to_buffer(path(), out, BUFFER_MAX, server_, "ZZZLST"); });
  EXPECT_EQ(small.status, -1);
  EXPECT_EQ(items_of(small, "ZZZLST"),
            (std::vector<std::string>{"one\n", "\n", std::string(259, 'x'), std::string(41, 'x') + "\n", "last"}));

  std::string big;
  for (int i = 0; i < 4000; ++i) big += "line " + std::to_string(i) + "\n";
  testutil::write_file(path("big"), big);
  Served many = serve_one(server_, [&](OutBuf& out) { return list_to_buffer(path("big"), out, BUFFER_MAX, server_, "ZZZLST"); });
  ASSERT_GE(many.buffers.size(), 2u);
  std::string joined;
  for (const std::string& s : items_of(many, "ZZZLST")) joined += s;
  EXPECT_EQ(joined, big);
  for (std::size_t i = 1; i < many.buffers.size(); ++i) {
    EXPECT_EQ(many.buffers[i].tran.transcode, "U") << i;
    EXPECT_EQ(many.buffers[i].tran.continuation, "Y") << i;
  }
  EXPECT_EQ(serve_one(server_, [&](OutBuf& out) { return list_to_buffer(path("none"), out, BUFFER_MAX, server_, "ZZZLST"); }).status, 7);
  // A buffer without room for the segment's start goes out first.
  testutil::write_file(path("short"), "only\n");
  Served late = serve_one(server_, [&](OutBuf& out) { return list_to_buffer(path("short"), out, out.pos + 73, server_, "ZZZLST"); });
  EXPECT_EQ(late.status, -1);
  ASSERT_EQ(late.buffers.size(), 2u);
  EXPECT_EQ(items_of(late, "ZZZLST"), std::vector<std::string>{"only\n"});
}

TEST_F(Transfers, CalendarInbound) {
  FileTransfer t = transfer();
  EXPECT_EQ(buffer_to_cal(t, request(kCalTag, {"PI=ab", "AL=first", "x=second"})), 0);
  std::string file = read_file(path());
  ASSERT_EQ(file.size(), 404u + 13);
  EXPECT_EQ(file.substr(0, 4), std::string("ab\0\0", 4));
  EXPECT_EQ(int_at(file, 16), 404);
  EXPECT_EQ(file.substr(4, 12), std::string(12, '\0'));
  EXPECT_EQ(file.substr(356, 48), std::string(48, '\0'));
  EXPECT_EQ(file.substr(404), "first\nsecond\n");

  // Every field, keys matched by prefix, over-long texts cut; an empty key
  // is a line; a value with its own newline gets no second one.
  EXPECT_EQ(buffer_to_cal(t, request(kCalTag, {"P=abcdef", "CU=" + std::string(40, 'c'), "UU=u", "D=d",
                                               "RL=1", "YN=-2", "FX=3", "UT=4", "DO=5", "no equals sign",
                                               "=line one\n", "AL=line two"})),
            0);
  file = read_file(path());
  EXPECT_EQ(file.substr(0, 4), std::string("abc\0", 4));
  EXPECT_EQ(file.substr(28, 33), std::string(32, 'c') + '\0');
  EXPECT_EQ(file.substr(61, 2), std::string("u\0", 2));
  EXPECT_EQ(file.substr(94, 2), std::string("d\0", 2));
  EXPECT_EQ((std::vector<std::int32_t>{int_at(file, 4), int_at(file, 8), int_at(file, 20), int_at(file, 24),
                                       int_at(file, 352)}),
            (std::vector<std::int32_t>{1, -2, 3, 4, 5}));
  EXPECT_EQ(file.substr(404), "line one\nline two\n");

  // Only header items: nothing is written. A line without "=" after the
  // header, or an empty item, is refused.
  EXPECT_EQ(buffer_to_cal(t, request(kCalTag, {"PI=x", "RL=2"})), 0);
  EXPECT_EQ(read_file(path()), "");
  EXPECT_EQ(buffer_to_cal(t, request(kCalTag, {"AL=a", "plain"})), 3);
  EXPECT_FALSE(t.stream);
  EXPECT_EQ(buffer_to_cal(t, request(kCalTag, {"PI=a", ""})), 3);
  EXPECT_FALSE(t.calendar_header);
  EXPECT_EQ(buffer_to_cal(t, request(kRdwTag, {"1"})), 4);

  // Over two buffers: header in the first, lines in both.
  EXPECT_EQ(buffer_to_cal(t, request(kCalTag, {"PI=z", "AL=1"}, "Y")), 0);
  EXPECT_EQ(buffer_to_cal(t, request(kCalTag, {"AL=2"}, "N")), 0);
  EXPECT_EQ(read_file(path()).substr(404), "1\n2\n");
}

// A calendar file leaves as its nine header items in order and one "AL"
// item per line, 255 characters at most, empty lines and lines starting
// with a byte above 127 left out; what arrives writes the same file again.
TEST_F(Transfers, CalendarOutboundAndBackIn) {
  FileTransfer t = transfer();
  std::string long_line(300, 'L');
  ASSERT_EQ(buffer_to_cal(t, request(kCalTag, {"PI=ab", "CU=cu", "UU=uu", "DS=ds", "RL=1", "YN=2", "FX=3", "UT=4",
                                               "DO=5", "AL=first", "AL=\n", "AL=" + long_line, "AL=\xC3" "blocked"})),
            0);
  Served served = serve_one(server_, [&](OutBuf& out) { return cal_to_buffer(path(), out, BUFFER_MAX, server_); });
  EXPECT_EQ(served.status, -1);
  std::vector<std::string> items = items_of(served, kCalTag);
  EXPECT_EQ(items, (std::vector<std::string>{"PI=ab", "CU=cu", "UU=uu", "DS=ds", "RL=1", "YN=2", "FX=3", "UT=4",
                                             "DO=5", "AL=first\n", "AL=" + std::string(255, 'L'),
                                             "AL=" + std::string(45, 'L') + "\n"}));

  FileTransfer again = transfer("again");
  ASSERT_EQ(buffer_to_cal(again, request(kCalTag, items)), 0);
  EXPECT_EQ(read_file(path("again")).substr(0, 404), read_file(path()).substr(0, 404));  // the header

  EXPECT_EQ(serve_one(server_, [&](OutBuf& out) { return cal_to_buffer(path("none"), out, BUFFER_MAX, server_); }).status, 7);
  testutil::write_file(path("short"), std::string(100, 'h'));
  EXPECT_EQ(serve_one(server_, [&](OutBuf& out) { return cal_to_buffer(path("short"), out, BUFFER_MAX, server_); }).status, 5);
}

// From a request record's data area: the header items, then one empty
// item per line up to the record's allocSz; nothing is read outside the
// record, whatever its fields claim.
TEST_F(Transfers, CalendarFromARequestRecord) {
  std::vector<char> record(kRecordSize);
  char* data = record.data() + smc::PDat;
  std::memcpy(data, "pi", 2);
  std::int32_t offset = 404;
  std::memcpy(data + 16, &offset, 4);
  std::string lines = "one\ntwo\n\n\x01three";
  std::memcpy(data + 404, lines.data(), lines.size());
  smc_put(record, smc::allocSz, std::to_string(smc::PDat + 404 + lines.size()));
  Served served = serve_one(server_, [&](OutBuf& out) { return cal_record_to_buffer(record, out, BUFFER_MAX, server_); });
  std::vector<std::string> items = items_of(served, kCalTag);
  ASSERT_EQ(items.size(), 12u);
  EXPECT_EQ(items[0], "PI=pi");
  EXPECT_EQ(std::vector<std::string>(items.begin() + 9, items.end()), std::vector<std::string>(3, ""));

  offset = 1 << 30;
  std::memcpy(data + 16, &offset, 4);
  smc_put(record, smc::allocSz, "99999999");
  served = serve_one(server_, [&](OutBuf& out) { return cal_record_to_buffer(record, out, BUFFER_MAX, server_); });
  EXPECT_EQ(items_of(served, kCalTag).size(), 9u);
}

}  // namespace

// The command file of the file-version commands, rewritten to read the
// request's names from the data file.
namespace {

std::vector<char> version_request(const std::vector<std::string>& commands, const std::vector<std::string>& names) {
  return testutil::plain_request("U", {{"ZZZCMD", commands}, {"ZZZLST", names}});
}

TEST(FileVersion, TheNamedFileIsReplacedByTheRequestsNames) {
  TempDir dir;
  std::string data = (dir.path() / "data").string(), commands = (dir.path() / "cmd").string();
  std::vector<char> record(kRecordSize);
  smc_put(record, smc::fileName, data);
  ChildEntry entry;
  entry.transfer.path = commands;
  std::vector<char> buf =
      version_request({"restore NAME=\"<names.lst\" -v", "second"}, {"\"a,b\"", "c'd", " x ", "  long name  \n"});
  EXPECT_EQ(quor_fileversion_rewrite(record, buf, entry, "ZZZCMD"), 0);
  EXPECT_EQ(read_file(commands), "restore NAME=\"<" + data + "\" -v\nsecond\n");
  EXPECT_EQ(read_file(data), "a b\nc d\nlong name\n");
  EXPECT_EQ(smc_get(record, smc::fileName), "");
  EXPECT_FALSE(entry.transfer.stream) << "the command file was left open";

  // Without "<" the command list is written as it stands.
  ChildEntry plain;
  plain.transfer.path = (dir.path() / "plain").string();
  std::vector<char> record2(kRecordSize);
  EXPECT_EQ(quor_fileversion_rewrite(record2, version_request({"backup NAME=all now", "x"}, {"n1"}), plain, "ZZZCMD"), 0);
  EXPECT_EQ(read_file(dir.path() / "plain"), "backup NAME=all now\nx\n");
  // The names end at an empty one.
  smc_put(record2, smc::fileName, data);
  EXPECT_EQ(quor_fileversion_rewrite(record2, version_request({"restore NAME=\"<x\""}, {"ann", "", "bob"}), plain, "ZZZCMD"), 0);
  EXPECT_EQ(read_file(data), "ann\n");
  // No NAME= at all, or no closing quote: nothing to rewrite.
  EXPECT_EQ(quor_fileversion_rewrite(record2, version_request({"archive all"}, {"n"}), plain, "ZZZCMD"), 4);
  EXPECT_EQ(quor_fileversion_rewrite(record2, version_request({"archive NAME=\"<open"}, {"n"}), plain, "ZZZCMD"), 4);
}

}  // namespace
