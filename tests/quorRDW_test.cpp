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

// Reads every record back: the rows, and the status of each read.
Rows read_table(const std::string& path, std::vector<int>* statuses = nullptr) {
  FilePtr f = rdw_open(path, 'R');
  Rows rows;
  if (!f) return rows;
  int count = rdw_count_columns(f.get());
  ColumnArray columns(static_cast<std::size_t>(std::max(count, 0)));
  for (int rc; (rc = rdw_read_record(f.get(), columns, count)) != -1;) {
    if (statuses) statuses->push_back(rc);
    std::vector<std::string> row;
    for (const auto& c : columns) row.emplace_back(c.data());
    rows.push_back(std::move(row));
  }
  return rows;
}

// A request whose "ZZZRDW" segment holds exactly `items` (count first), and
// a trailer with `more` unless it is empty.
std::vector<char> raw_request(const std::vector<std::string>& items, std::string_view more = "N") {
  return testutil::plain_request("S", {{kRdwTag, items}}, more);
}

// Request buffers carrying `rows` of `columns` values, as many buffers as
// they need, the last with more-data "N".
std::vector<std::vector<char>> table_requests(const Rows& rows, std::size_t columns) {
  std::vector<std::vector<char>> buffers;
  for (std::size_t next = 0; next < rows.size();) {
    std::vector<std::string> items = {std::to_string(columns)};
    for (std::size_t bytes = 0; next < rows.size() && bytes < BUFFER_MAX - 1024; ++next)
      for (const auto& v : rows[next]) {
        items.push_back(v);
        bytes += v.size() + 1;
      }
    buffers.push_back(raw_request(items, next < rows.size() ? "Y" : "N"));
  }
  return buffers;
}

class TableFiles : public ForkedServer {
 protected:
  std::string path(const char* name = "t.rdw") const { return (dir_.path() / name).string(); }
  FileTransfer transfer(const char* name = "t.rdw") const {
    FileTransfer t;
    t.path = path(name);
    return t;
  }
};

TEST_F(TableFiles, RecordBytesAndReadingBack) {
  {
    FilePtr f = rdw_open(path(), 'W');
    ASSERT_TRUE(f);
    const std::vector<std::string_view> rows[] = {{"a", "bb", ""}, {"abc   ", "   ", "x"}};
    for (const auto& row : rows) ASSERT_EQ(rdw_write_record(f.get(), row), 0);
    // A record too long for its 16-bit length word is refused, not wrapped.
    std::vector<std::string> wide(300, std::string(259, 'w'));
    EXPECT_EQ(rdw_write_record(f.get(), std::vector<std::string_view>(wide.begin(), wide.end())), 1);
  }
  std::string bytes = read_file(path());
  const char expected[] = {0x0C, 0, 0x01, 0, 'a', 0x02, 0, 'b', 'b', 0x01, 0, 0, 0x0C, 0};
  ASSERT_GE(bytes.size(), sizeof expected);
  EXPECT_EQ(bytes.substr(0, 14), std::string(expected, sizeof expected));
  std::vector<int> statuses;
  EXPECT_EQ(read_table(path(), &statuses), (Rows{{"a", "bb", ""}, {"abc", "", "x"}}));
  EXPECT_EQ(statuses, (std::vector<int>{0, 0}));

  testutil::write_file(path("empty"), "");
  FilePtr empty = rdw_open(path("empty"), 'R');
  EXPECT_EQ(rdw_count_columns(empty.get()), 0);
  EXPECT_EQ(rdw_open("", 'R'), nullptr);
}

// Damaged records: a field of 260 bytes, a closing word that differs; a
// first record with an over-long field cannot be counted.
TEST_F(TableFiles, DamagedRecords) {
  auto word = [](std::uint16_t w) { return std::string(reinterpret_cast<const char*>(&w), 2); };
  std::string good = word(5) + word(1) + "a" + word(5);
  testutil::write_file(path(), good + word(5) + word(1) + "b" + word(6) + good);
  std::vector<int> statuses;
  read_table(path(), &statuses);
  EXPECT_EQ(statuses, (std::vector<int>{0, 1, 0}));

  // A length word smaller than its fields: they are read on past it.
  testutil::write_file(path("past"), word(3) + word(4) + "abcd" + word(3) + good);
  statuses.clear();
  EXPECT_EQ(read_table(path("past"), &statuses), (Rows{{"abcd"}, {"a"}}));
  EXPECT_EQ(statuses, (std::vector<int>{0, 0}));

  std::string long_field = word(264) + word(260) + std::string(260, 'x') + word(264);
  testutil::write_file(path("long"), good + long_field);
  statuses.clear();
  read_table(path("long"), &statuses);
  EXPECT_EQ(statuses.at(1), 1);
  testutil::write_file(path("first"), long_field);
  FilePtr f = rdw_open(path("first"), 'R');
  EXPECT_EQ(rdw_count_columns(f.get()), -1);
  testutil::write_file(path("cut"), word(5) + word(1));
  f = rdw_open(path("cut"), 'R');
  EXPECT_EQ(rdw_count_columns(f.get()), -1);
}

// One buffer: rows written, a short last row repeating the previous row's
// values, an over-long value cut to 259 bytes.
TEST_F(TableFiles, RowsFromOneBuffer) {
  FileTransfer t = transfer();
  std::string long_value(300, 'v');
  EXPECT_EQ(buffer_to_RDW(t, raw_request({"3", "a", "b", "c", "d", long_value, "f", "g"})), 0);
  EXPECT_EQ(t.count, 3);
  EXPECT_FALSE(t.stream) << "the last buffer left the file open";
  EXPECT_EQ(read_table(path()), (Rows{{"a", "b", "c"}, {"d", std::string(259, 'v'), "f"}, {"g", std::string(259, 'v'), "f"}}));

  // No segment: nothing touched.
  FileTransfer none = transfer("none.rdw");
  std::size_t length = 0;
  auto plain = testutil::make_request("S", length);
  EXPECT_EQ(buffer_to_RDW(none, InBuf(plain.data(), length)), 4);
  EXPECT_FALSE(std::filesystem::exists(path("none.rdw")));
}

// Bad segments are refused, and the transfer is left closed.
TEST_F(TableFiles, BadSegmentsAndFiles) {
  for (const char* count : {"0", "-2", "x", "99999999"}) {
    FileTransfer t = transfer();
    EXPECT_EQ(buffer_to_RDW(t, raw_request({count, "a"})), 3) << count;
    EXPECT_FALSE(t.stream);
  }
  // A segment that runs off the end of the received bytes is not a segment.
  std::vector<char> cut = raw_request({"1", "a", "b"});
  auto eos = std::search(cut.begin(), cut.end(), kEndOfSegment.begin(), kEndOfSegment.end());
  FileTransfer t = transfer();
  EXPECT_EQ(buffer_to_RDW(t, InBuf(cut.data(), static_cast<std::size_t>(eos - cut.begin()) - 1)), 4);
  EXPECT_FALSE(std::filesystem::exists(path()));

  FileTransfer nowhere;
  nowhere.path = path("missing/dir/t.rdw");
  EXPECT_EQ(buffer_to_RDW(nowhere, raw_request({"1", "a"})), 7);
  FileTransfer full;
  full.path = "/dev/full";
  EXPECT_EQ(buffer_to_RDW(full, raw_request({"1", "a"})), 6);
  EXPECT_FALSE(full.stream);
}

// A transfer over two buffers gives one file; the file is truncated by the
// first buffer only; a buffer without a trailer ends the transfer, and the
// next transfer starts afresh.
TEST_F(TableFiles, ATransferOverSeveralBuffers) {
  testutil::write_file(path(), "old contents");
  FileTransfer t = transfer();
  EXPECT_EQ(buffer_to_RDW(t, raw_request({"2", "a", "b"}, "Y")), 0);
  EXPECT_TRUE(t.stream);
  EXPECT_EQ(buffer_to_RDW(t, raw_request({"2", "c", "d"}, "")), 0);
  EXPECT_FALSE(t.stream);
  EXPECT_EQ(read_table(path()), (Rows{{"a", "b"}, {"c", "d"}}));
  EXPECT_EQ(buffer_to_RDW(t, raw_request({"1", "e"})), 0);
  EXPECT_EQ(read_table(path()), (Rows{{"e"}}));
}

// What the client receives for a table file: every "ZZZRDW" row, joined
// across the partial replies.
struct TableReply {
  int result = 0;
  std::size_t buffers = 0;
  std::vector<std::string> counts;  // the column count of each segment
  Rows rows;
};

TableReply fetch(ConnRecord& conn, const std::string& file) {
  Served served = serve_one(conn, [&](OutBuf& out) { return RDWto_buffer(file, out, BUFFER_MAX, conn); });
  TableReply reply;
  reply.result = served.status;
  reply.buffers = served.buffers.size();
  // A row may straddle two buffers: the values are joined first.
  std::vector<std::string> values;
  std::size_t columns = 0;
  for (const Decoded& buffer : served.buffers) {
    std::vector<std::string> items = segment_strings(buffer.plain, kRdwTag);
    if (items.empty()) continue;
    reply.counts.push_back(items[0]);
    columns = std::stoul(items[0]);
    values.insert(values.end(), items.begin() + 1, items.end());
  }
  for (std::size_t i = 0; columns > 0 && i + columns <= values.size(); i += columns)
    reply.rows.emplace_back(values.begin() + static_cast<long>(i), values.begin() + static_cast<long>(i + columns));
  return reply;
}

// Several thousand rows sent over several request buffers, written, and
// sent back over several partial replies arrive as they were sent (trailing
// blanks aside).
TEST_F(TableFiles, RoundTripOverSeveralBuffersEachWay) {
  Rows rows;
  for (int i = 0; i < 5000; ++i)
    rows.push_back({std::to_string(i), "name " + std::to_string(i) + "   ", std::string(static_cast<std::size_t>(i % 40), 'x'),
                    i % 7 == 0 ? "" : "end"});
  std::vector<std::vector<char>> requests = table_requests(rows, 4);
  ASSERT_GE(requests.size(), 4u);
  FileTransfer t = transfer();
  for (const auto& request : requests) ASSERT_EQ(buffer_to_RDW(t, request), 0);
  EXPECT_FALSE(t.stream);

  TableReply reply = fetch(server_, path());
  EXPECT_EQ(reply.result, -1) << "no write position";
  EXPECT_GE(reply.buffers, 4u);
  EXPECT_EQ(reply.counts, std::vector<std::string>(reply.buffers, "4"));
  for (auto& row : rows) row[1].erase(row[1].find_last_not_of(' ') + 1);
  ASSERT_EQ(reply.rows.size(), rows.size());
  for (std::size_t i = 0; i < rows.size(); ++i) ASSERT_EQ(reply.rows[i], rows[i]) << "row " << i;
}

TEST_F(TableFiles, EmptyAndMissingFilesOutbound) {
  testutil::write_file(path(), "");
  TableReply empty = fetch(server_, path());
  EXPECT_EQ(empty.result, 0) << "an empty table is status 0";
  EXPECT_EQ(empty.counts, std::vector<std::string>{"0"});
  EXPECT_TRUE(empty.rows.empty());
  EXPECT_EQ(fetch(server_, path("missing")).result, 7);
}

}  // namespace
