// Table files as bytes on disk, written from requests and sent back in replies.
#include <gtest/gtest.h>

#include "forked_server.h"
#include "quorRDW.h"

using namespace forked;
using testutil::read_file;

// Designated initializers name only the fields a test sets.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

// A table file read back, e.g. "2: 0 a,b; 1 c,d;" (columns, status, values).
std::string read_back(const std::string& path) {
  FilePtr f = rdw_open(path, 'R');
  if (!f) return "not opened";
  int count = rdw_count_columns(f.get());
  std::string text = std::to_string(count) + ":";
  ColumnArray columns(static_cast<std::size_t>(std::max(count, 0)));
  for (int rc; count >= 0 && (rc = rdw_read_record(f.get(), columns, count)) != -1;) {
    text += " " + std::to_string(rc);
    for (std::size_t c = 0; c < columns.size(); ++c) text += (c ? "," : " ") + std::string(columns[c].data());
    text += ";";
  }
  return text;
}

std::vector<char> rdw_request(const std::vector<std::string>& items, std::string_view more = "N") {
  return testutil::plain_request("S", {{kRdwTag, items}}, more);
}

class TableFiles : public ForkedServer {
 protected:
  std::string path(const char* name = "t.rdw") const { return (dir_.path() / name).string(); }
};

// A 16-bit length word before and after a record and before each field;
// trailing blanks dropped on reading; damaged records read with status 1.
TEST_F(TableFiles, RecordsOnDisk) {
  {
    FilePtr f = rdw_open(path(), 'W');
    ASSERT_TRUE(f);
    const std::vector<std::string_view> rows[] = {{"a", "bb", ""}, {"abc   ", "   ", "x"}};
    for (const auto& row : rows) ASSERT_EQ(rdw_write_record(f.get(), row), 0);
    // A record too long for its 16-bit length word is refused, not wrapped.
    std::vector<std::string> wide(300, std::string(259, 'w'));
    EXPECT_EQ(rdw_write_record(f.get(), std::vector<std::string_view>(wide.begin(), wide.end())), 1);
  }
  const char expected[] = {0x0C, 0, 0x01, 0, 'a', 0x02, 0, 'b', 'b', 0x01, 0, 0, 0x0C, 0};
  EXPECT_EQ(read_file(path()).substr(0, 14), std::string(expected, sizeof expected));
  EXPECT_EQ(read_back(path()), "3: 0 a,bb,; 0 abc,,x;");

  auto word = [](std::uint16_t w) { return std::string(reinterpret_cast<const char*>(&w), 2); };
  std::string good = word(5) + word(1) + "a" + word(5);
  std::string long_field = word(264) + word(260) + std::string(260, 'x') + word(264);
  const std::pair<std::string, std::string> files[] = {
      {"", "0:"},
      {good + word(5) + word(1) + "b" + word(6) + good, "1: 0 a; 1 b; 0 a;"},  // a closing word that differs
      {word(3) + word(4) + "abcd" + word(3) + good, "1: 0 abcd; 0 a;"},        // a length word below its fields
      {long_field, "-1:"},                                                       // a field over 259 bytes
      {word(5) + word(1), "-1:"},                                                // a first record cut short
  };
  for (const auto& [bytes, text] : files) {
    testutil::write_file(path(), bytes);
    EXPECT_EQ(read_back(path()), text);
  }
  // A last record cut short inside a field is sent the slow way; its row
  // needs a partial reply the client does not take: the transfer fails (2).
  testutil::write_file(path(), word(12) + word(8) + "abcdefgh" + word(12) + word(44) + word(40) + "0123456789");
  std::array<char, BUFFER_MAX> buf{};
  OutBuf out(buf);
  server_.remote.set_app_name("GONE.CLIENT");
  EXPECT_EQ(RDWto_buffer(path(), out, out.pos + 78, server_), 2u);
}

// Requests refused before any row is written (the rest: table_fuzz).
TEST_F(TableFiles, RefusedRequests) {
  const std::tuple<std::vector<char>, std::string, int> refused[] = {
      {rdw_request({"0", "a"}), path("r"), 3},
      {rdw_request({"x", "a"}), path("r"), 3},
      {rdw_request({"99999999", "a"}), path("r"), 3},
      {rdw_request({"1", "a"}), path("missing/dir/t.rdw"), 7},
      {rdw_request({"1", "a"}), "/dev/full", 6},
  };
  for (const auto& [request, file, rc] : refused) {
    FileTransfer transfer{.path = file};
    EXPECT_EQ(buffer_to_RDW(transfer, request), rc) << file;
  }
  EXPECT_FALSE(std::filesystem::exists(path("r"))) << "a refused segment made its file";
}

// Sent back over several replies, each starting with the column count, a
// table arrives as written, trailing blanks aside; a missing one is 7.
TEST_F(TableFiles, SentBackOverSeveralReplies) {
  std::vector<std::string> expected;
  {
    FilePtr f = rdw_open(path(), 'W');
    for (std::size_t i = 0; i < 5000; ++i) {
      std::vector<std::string> row = {std::to_string(i), "name " + std::to_string(i), std::string(i % 40, 'x'),
                                      i % 7 ? "end" : ""};
      expected.insert(expected.end(), row.begin(), row.end());
      row[1] += "   ";  // dropped on the way back
      ASSERT_EQ(rdw_write_record(f.get(), std::vector<std::string_view>(row.begin(), row.end())), 0);
    }
  }
  Served served = serve_one(server_, [&](OutBuf& out) { return RDWto_buffer(path(), out, BUFFER_MAX, server_); });
  EXPECT_EQ(served.status, -1);
  ASSERT_GE(served.buffers.size(), 4u);
  std::vector<std::string> values;
  for (const Decoded& buffer : served.buffers) {
    std::vector<std::string> items = segment_strings(buffer.plain, kRdwTag);
    EXPECT_EQ(items.at(0), "4") << "each reply starts with the column count";
    values.insert(values.end(), items.begin() + 1, items.end());
  }
  EXPECT_TRUE(values == expected) << "the values differ";
  auto missing = [&](OutBuf& out) { return RDWto_buffer(path("missing"), out, BUFFER_MAX, server_); };
  EXPECT_EQ(serve_one(server_, missing).status, 7);
}

}  // namespace
