// List and calendar files written from requests and sent back; the file-version command file.
#include <gtest/gtest.h>

#include <cstring>

#include "forked_server.h"
#include "quorcal.h"
#include "quorlsfl.h"
#include "quorproc.h"
#include "quorsmc.h"

using namespace forked;
using testutil::read_file;

// Designated initializers name only the fields a test sets.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

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

// A 32-bit number as the host stores it; a text padded with NULs.
std::string int32(std::int32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }
std::string padded(std::string text, std::size_t size) {
  text.resize(size, '\0');
  return text;
}

class Transfers : public ForkedServer {
 protected:
  std::string path(const char* name = "f") const { return (dir_.path() / name).string(); }
};

// In, an item is a line (its newline not doubled), an empty segment empties the file. Out, lines
// keep their newlines, long ones go in pieces of 259, and a full buffer goes on in "U" transactions.
TEST_F(Transfers, ListsInAndOut) {
  FileTransfer t{.path = path()};
  EXPECT_EQ(buffer_to_list(t, "ZZZLST", request("ZZZLST", {"1", "b\n"}, "Y")), 0);
  EXPECT_EQ(buffer_to_list(t, "ZZZLST", request("ZZZLST", {"2"}, "N")), 0);
  EXPECT_EQ(read_file(path()), "1\nb\n2\n");
  EXPECT_FALSE(t.stream);
  EXPECT_EQ(buffer_to_list(t, "ZZZLST", request("ZZZLST", {})), 0);
  EXPECT_EQ(read_file(path()), "");
  EXPECT_EQ(buffer_to_list(t, "ZZZLST", request("ZZZCMD", {"a"})), 4);
  EXPECT_EQ(buffer_to_list(t, "ZZZLST", request("ZZZLST", {"a", "", "b"})), 3);
  EXPECT_EQ(read_file(path()), "a\n");
  FileTransfer nowhere{.path = path("no/such/dir")};
  EXPECT_EQ(buffer_to_list(nowhere, "ZZZLST", request("ZZZLST", {"a"})), 7);
  FileTransfer full{.path = "/dev/full"};
  EXPECT_EQ(buffer_to_list(full, "ZZZLST", request("ZZZLST", {std::string(9000, 'x')})), 6);

  // The status, each reply's code and continuation, and the items sent.
  auto send = [&](const std::string& file, std::size_t room = BUFFER_MAX) {
    Served served = serve_one(server_, [&](OutBuf& out) {
      return list_to_buffer(file, out, std::min(out.pos + room, BUFFER_MAX), server_, "ZZZLST");
    });
    std::string text = std::to_string(served.status);
    for (const Decoded& buffer : served.buffers) text += " " + buffer.tran.transcode + buffer.tran.continuation;
    for (const std::string& item : items_of(served, "ZZZLST")) text += "|" + item;
    return text;
  };
  testutil::write_file(path(), "one\n\n" + std::string(300, 'x') + "\nlast");
  EXPECT_EQ(send(path()), "-1 SN|one\n|\n|" + std::string(259, 'x') + "|" + std::string(41, 'x') + "\n|last");
  EXPECT_EQ(send(path("none")), "7 SN");
  testutil::write_file(path("short"), "only\nmore\n");
  EXPECT_EQ(send(path("short"), 73), "-1 SN SY UY|only\n|more\n");
}

// A calendar file: its 404-byte header (keys match by prefix, texts cut to their fields), then a line
// per item. Sent back: nine header items, then "AL" items of up to 255 characters, no empty or high-byte lines.
TEST_F(Transfers, CalendarsInAndOut) {
  FileTransfer t{.path = path()};
  std::string long_line(300, 'L');
  EXPECT_EQ(buffer_to_cal(t, request(kCalTag, {"P=abcdef", "CU=" + std::string(40, 'c'), "UU=u", "D=d", "RL=1", "YN=-2",
                                               "FX=3", "UT=4", "DO=5", "no equals sign", "=line one\n", "AL=two",
                                               "AL=\n", "AL=" + long_line, "AL=\xC3" "blocked"})),
            0);
  // PI, RL, YN, unused, data offset, FX, UT, CU, UU, DS, DO, unused, lines.
  EXPECT_EQ(read_file(path()), padded("abc", 4) + int32(1) + int32(-2) + padded("", 4) + int32(404) + int32(3) + int32(4) +
                                   padded(std::string(32, 'c'), 33) + padded("u", 33) + padded("d", 258) + int32(5) +
                                   padded("", 48) + "line one\ntwo\n\n" + long_line + "\n\xC3" "blocked\n");
  auto send = [&](const char* name) {
    return serve_one(server_, [&](OutBuf& out) { return cal_to_buffer(path(name), out, BUFFER_MAX, server_); });
  };
  Served served = send("f");
  EXPECT_EQ(served.status, -1);
  EXPECT_EQ(items_of(served, kCalTag),
            (std::vector<std::string>{"PI=abc", "CU=" + std::string(32, 'c'), "UU=u", "DS=d", "RL=1", "YN=-2", "FX=3",
                                      "UT=4", "DO=5", "AL=line one\n", "AL=two\n", "AL=" + std::string(255, 'L'),
                                      "AL=" + std::string(45, 'L') + "\n"}));
  // Over two buffers: header in the first, lines in both.
  EXPECT_EQ(buffer_to_cal(t, request(kCalTag, {"PI=z", "AL=1"}, "Y")), 0);
  EXPECT_EQ(buffer_to_cal(t, request(kCalTag, {"AL=2"}, "N")), 0);
  EXPECT_EQ(read_file(path()).substr(404), "1\n2\n");

  // Only header items write nothing; a line without "=" or an empty item is refused.
  EXPECT_EQ(buffer_to_cal(t, request(kCalTag, {"PI=x", "RL=2"})), 0);
  EXPECT_EQ(read_file(path()), "");
  EXPECT_EQ(buffer_to_cal(t, request(kCalTag, {"AL=a", "plain"})), 3);
  EXPECT_EQ(buffer_to_cal(t, request(kCalTag, {"PI=a", ""})), 3);
  EXPECT_EQ(buffer_to_cal(t, request(kRdwTag, {"1"})), 4);
  EXPECT_EQ(send("none").status, 7);
  testutil::write_file(path("short"), std::string(100, 'h'));
  EXPECT_EQ(send("short").status, 5);
}

// From a request record: the header items, then an empty item per line up
// to its allocSz; nothing outside the record is read, whatever it claims.
TEST_F(Transfers, CalendarFromARequestRecord) {
  std::vector<char> record(kRecordSize);
  char* data = record.data() + smc::PDat;
  std::memcpy(data, "pi", 2);
  std::string lines = "one\ntwo\n\n\x01three";
  std::memcpy(data + 404, lines.data(), lines.size());
  auto items = [&](std::int32_t offset, std::size_t size, std::size_t room = BUFFER_MAX) {
    std::memcpy(data + 16, &offset, 4);
    smc_put(record, smc::allocSz, std::to_string(size));
    return items_of(serve_one(server_, [&](OutBuf& out) {
      return cal_record_to_buffer(record, out, std::min(out.pos + room, BUFFER_MAX), server_);
    }), kCalTag);
  };
  std::vector<std::string> sent = items(404, smc::PDat + 404 + lines.size());
  ASSERT_EQ(sent.size(), 12u);
  EXPECT_EQ(sent[0], "PI=pi");
  EXPECT_EQ(std::vector<std::string>(sent.begin() + 9, sent.end()), std::vector<std::string>(3, ""));
  // No room for the segment's start: a partial reply first, the same items after.
  EXPECT_EQ(items(404, smc::PDat + 404 + lines.size(), 73), sent);
  EXPECT_EQ(items(1 << 30, 99999999).size(), 9u);
}

// The file named in NAME="<..." becomes the data file, made of the request's
// names (quotes and commas blanked, trimmed, single characters left out).
TEST(FileVersion, TheNamedFileIsReplacedByTheRequestsNames) {
  TempDir dir;
  std::string data = (dir.path() / "data").string(), commands = (dir.path() / "cmd").string();
  std::vector<char> record(kRecordSize);
  ChildEntry entry;
  entry.transfer.path = commands;
  auto rewrite = [&](const std::vector<std::string>& command_lines, const std::vector<std::string>& names) {
    smc_put(record, smc::fileName, data);
    return quor_fileversion_rewrite(record, testutil::plain_request("U", {{"ZZZCMD", command_lines}, {"ZZZLST", names}}),
                                    entry, "ZZZCMD");
  };
  EXPECT_EQ(rewrite({"restore NAME=\"<names.lst\" -v", "second"}, {"\"a,b\"", "c'd", " x ", "  long name  \n"}), 0);
  EXPECT_EQ(read_file(commands), "restore NAME=\"<" + data + "\" -v\nsecond\n");
  EXPECT_EQ(read_file(data), "a b\nc d\nlong name\n");
  EXPECT_EQ(smc_get(record, smc::fileName), "");
  EXPECT_FALSE(entry.transfer.stream) << "the command file was left open";
  EXPECT_EQ(rewrite({"restore NAME=\"<x\""}, {"ann", "", "bob"}), 0);
  EXPECT_EQ(read_file(data), "ann\n");

  // Without "<" the commands are written as they stand; without NAME= or a
  // closing quote there is nothing to rewrite.
  EXPECT_EQ(rewrite({"backup NAME=all now", "x"}, {"n1"}), 0);
  EXPECT_EQ(read_file(commands), "backup NAME=all now\nx\n");
  EXPECT_EQ(rewrite({"archive all"}, {"n"}), 4);
  EXPECT_EQ(rewrite({"archive NAME=\"<open"}, {"n"}), 4);
}

}  // namespace
