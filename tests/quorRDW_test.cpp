// Table files as bytes on disk, and tables carried in request buffers to a
// file and back out of it in reply buffers through the real transport.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

#include "forked_server.h"
#include "quorRDW.h"

using namespace forked;
using testutil::read_file;

namespace {

using Rows = std::vector<std::vector<std::string>>;

// A table file read back record by record.
struct Table {
  int columns = -2;  // -2: not opened
  Rows rows;
  std::vector<int> statuses;  // of each record read
};

Table read_table(const std::string& path) {
  Table table;
  FilePtr f = rdw_open(path, 'R');
  if (!f) return table;
  table.columns = rdw_count_columns(f.get());
  ColumnArray columns(static_cast<std::size_t>(std::max(table.columns, 0)));
  for (int rc; (rc = rdw_read_record(f.get(), columns, table.columns)) != -1;) {
    table.statuses.push_back(rc);
    table.rows.emplace_back();
    for (const auto& c : columns) table.rows.back().emplace_back(c.data());
  }
  return table;
}

// A request whose "ZZZRDW" segment holds `items` (the column count first),
// with the trailer `more` unless it is empty.
std::vector<char> rdw_request(const std::vector<std::string>& items, std::string_view more = "N") {
  return testutil::plain_request("S", {{kRdwTag, items}}, more);
}

class TableFiles : public ForkedServer {
 protected:
  std::string path(const char* name = "t.rdw") const { return (dir_.path() / name).string(); }
};

// Records as bytes: a 16-bit length word before and after, each field
// after its own length word, trailing blanks dropped on reading; damaged
// records read with status 1 and the reading goes on.
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
  Table table = read_table(path());
  EXPECT_EQ(table.rows, (Rows{{"a", "bb", ""}, {"abc", "", "x"}}));
  EXPECT_EQ(table.statuses, (std::vector<int>{0, 0}));
  EXPECT_EQ(rdw_open("", 'R'), nullptr);

  auto word = [](std::uint16_t w) { return std::string(reinterpret_cast<const char*>(&w), 2); };
  std::string good = word(5) + word(1) + "a" + word(5);
  std::string long_field = word(264) + word(260) + std::string(260, 'x') + word(264);
  // Each file: its column count, and the status of each record read.
  struct Case {
    const char* name;
    std::string bytes;
    int columns;
    std::vector<int> statuses;
  };
  const Case cases[] = {
      {"empty", "", 0, {}},
      {"closing word differs", good + word(5) + word(1) + "b" + word(6) + good, 1, {0, 1, 0}},
      {"first field over 259 bytes", long_field, -1, {}},
      {"first record cut", word(5) + word(1), -1, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    testutil::write_file(path(), c.bytes);
    table = read_table(path());
    EXPECT_EQ(table.columns, c.columns);
    if (c.columns >= 0) {
      EXPECT_EQ(table.statuses, c.statuses);
    }
  }
  testutil::write_file(path(), word(3) + word(4) + "abcd" + word(3) + good);
  table = read_table(path());
  EXPECT_EQ(table.rows, (Rows{{"abcd"}, {"a"}})) << "a length word below its fields: they are read on past it";
  EXPECT_EQ(table.statuses, (std::vector<int>{0, 0}));
  testutil::write_file(path(), good + long_field);
  EXPECT_EQ(read_table(path()).statuses.at(1), 1) << "a later field over 259 bytes";
}

// Rows from request buffers: a short last row repeats the previous row's
// values, an over-long value is cut to 259 bytes; the first buffer of a
// transfer truncates the file, one without a trailer ends the transfer.
TEST_F(TableFiles, RowsFromRequests) {
  FileTransfer t;
  t.path = path();
  std::string long_value(300, 'v');
  EXPECT_EQ(buffer_to_RDW(t, rdw_request({"3", "a", "b", "c", "d", long_value, "f", "g"})), 0);
  EXPECT_EQ(t.count, 3);
  EXPECT_FALSE(t.stream) << "the last buffer left the file open";
  EXPECT_EQ(read_table(path()).rows,
            (Rows{{"a", "b", "c"}, {"d", std::string(259, 'v'), "f"}, {"g", std::string(259, 'v'), "f"}}));
  EXPECT_EQ(buffer_to_RDW(t, rdw_request({"2", "a", "b"}, "Y")), 0);
  EXPECT_TRUE(t.stream);
  EXPECT_EQ(buffer_to_RDW(t, rdw_request({"2", "c", "d"}, "")), 0);
  EXPECT_FALSE(t.stream);
  EXPECT_EQ(read_table(path()).rows, (Rows{{"a", "b"}, {"c", "d"}}));

  // Refused segments and files: the status, the transfer left closed.
  std::vector<char> cut = rdw_request({"1", "a", "b"});
  cut.resize(static_cast<std::size_t>(std::search(cut.begin(), cut.end(), kEndOfSegment.begin(), kEndOfSegment.end()) -
                                      cut.begin()) - 1);
  struct Case {
    const char* name;
    std::string path;
    std::vector<char> request;
    int rc;
  };
  const Case cases[] = {
      {"count 0", path("r"), rdw_request({"0", "a"}), 3},
      {"negative count", path("r"), rdw_request({"-2", "a"}), 3},
      {"count not a number", path("r"), rdw_request({"x", "a"}), 3},
      {"count too large", path("r"), rdw_request({"99999999", "a"}), 3},
      {"no segment", path("r"), testutil::plain_request("S", {}), 4},
      {"segment running off the end", path("r"), cut, 4},
      {"no such directory", path("missing/dir/t.rdw"), rdw_request({"1", "a"}), 7},
      {"disk full", "/dev/full", rdw_request({"1", "a"}), 6},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FileTransfer refused;
    refused.path = c.path;
    EXPECT_EQ(buffer_to_RDW(refused, c.request), c.rc);
    EXPECT_FALSE(refused.stream);
  }
  EXPECT_FALSE(std::filesystem::exists(path("r"))) << "a refused segment made its file";
}

// A table file sent back over several partial replies ("ZZZRDW" segments,
// each with the column count) arrives as it was written, trailing blanks
// aside; an empty table is status 0 with a count of 0, a missing one 7.
TEST_F(TableFiles, SentBackOverSeveralReplies) {
  Rows rows;
  {
    FilePtr f = rdw_open(path(), 'W');
    for (std::size_t i = 0; i < 5000; ++i) {
      rows.push_back({std::to_string(i), "name " + std::to_string(i) + "   ", std::string(i % 40, 'x'), i % 7 ? "end" : ""});
      ASSERT_EQ(rdw_write_record(f.get(), std::vector<std::string_view>(rows[i].begin(), rows[i].end())), 0);
      rows[i][1].resize(rows[i][1].size() - 3);
    }
  }
  testutil::write_file(path("empty"), "");
  // Every reply's column counts, then all its values.
  auto fetch = [&](const std::string& file, int status) {
    Served served = serve_one(server_, [&](OutBuf& out) { return RDWto_buffer(file, out, BUFFER_MAX, server_); });
    EXPECT_EQ(served.status, status) << file;
    std::vector<std::string> counts, values;
    for (const Decoded& buffer : served.buffers) {
      std::vector<std::string> items = segment_strings(buffer.plain, kRdwTag);
      counts.insert(counts.end(), items.begin(), items.begin() + (items.empty() ? 0 : 1));
      values.insert(values.end(), items.begin() + (items.empty() ? 0 : 1), items.end());
    }
    return std::pair{counts, values};
  };
  auto [counts, values] = fetch(path(), -1);
  ASSERT_GE(counts.size(), 4u);
  EXPECT_EQ(counts, std::vector<std::string>(counts.size(), "4"));
  std::vector<std::string> expected;
  for (const auto& row : rows) expected.insert(expected.end(), row.begin(), row.end());
  EXPECT_TRUE(values == expected) << "the values differ";
  EXPECT_EQ(fetch(path("empty"), 0), (std::pair{std::vector<std::string>{"0"}, std::vector<std::string>{}}));
  fetch(path("missing"), 7);
}

}  // namespace
