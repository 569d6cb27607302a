// quorctl's data-file tools: CSV and table files, calendars printed, and
// built requests read back by the daemon's own conversions.
#include <gtest/gtest.h>

#include <unistd.h>

#include <fstream>

#include "core_util.h"
#include "ctl_files.h"
#include "quorRDW.h"
#include "quorcal.h"
#include "quorlsfl.h"
#include "momsg.h"

using testutil::TempDir;
using testutil::read_file;

namespace {

CtlOutcome csv_to_table(std::string_view csv, const std::string& table) {
  CtlCsvReader reader(csv);
  return ctl_csv_to_table(reader, table, false);
}

class CtlFiles : public ::testing::Test {
 protected:
  std::string path(const char* name) const { return (dir_.path() / name).string(); }
  void write(const char* name, const std::string& bytes) const { std::ofstream(path(name), std::ios::binary) << bytes; }
  TempDir dir_;
};

// CSV to a table file and back: quoting, empty values and trailing blanks
// (which the table format drops).
TEST_F(CtlFiles, CsvAndTableFiles) {
  const std::string csv = "id,name,note\r\n1,\"Smith, J\",\"said \"\"hi\"\"\"\n2,,\"two\nlines\"\n3,x, y  ";
  EXPECT_EQ(csv_to_table(csv, path("t")).status, kCtlOk);
  CtlOutcome back = ctl_table_to_csv(path("t"));
  EXPECT_EQ(back.status, kCtlOk) << back.error;
  EXPECT_EQ(back.out, "id,name,note\n1,\"Smith, J\",\"said \"\"hi\"\"\"\n2,\"\",\"two\nlines\"\n3,x,\" y\"\n");

  EXPECT_EQ(csv_to_table("a,b\n1\n", path("t")).error, "CSV row 2 has 1 values, the first has 2");
  EXPECT_EQ(csv_to_table("a,\"b\nc", path("t")).error, "CSV line 1: a double quote is never closed");
  EXPECT_EQ(csv_to_table("a\nb\"c\"\n\"b\"c\n", path("t")).error, "CSV line 3: text after a closing double quote");
  EXPECT_EQ(csv_to_table(std::string(260, 'v'), path("t")).status, kCtlUsage);
  EXPECT_EQ(ctl_table_to_csv(path("t")).out, back.out) << "a failed conversion left the table as it was";
  EXPECT_EQ(ctl_table_to_csv(path("none")).status, kCtlFailed);
  write("damaged", std::string("\x05\x00\x01\x00", 4));
  EXPECT_EQ(ctl_table_to_csv(path("damaged")).error, path("damaged") + ": the first record is damaged");
}

// The buffers of a table request, byte for byte: a CSV with quoting, CRLF,
// line breaks in values, empty and 259-byte values, cut into whole rows per
// buffer. The transaction header (this process's pid, node and user) is
// padded to a fixed length, then left out of the digest, so the digest is
// the same on every machine. Fed to the daemon's own conversion in order,
// the buffers give the table back (the selection list and the object
// through the daemon: the command tests).
TEST_F(CtlFiles, TableRequestsAreStableBytesThatReadBack) {
  std::size_t varying = std::to_string(static_cast<long>(getpid())).size() + std::string(mo_nodename()).size() +
                        std::to_string(static_cast<long>(getgid())).size();
  testutil::EnvGuard user("MOX_QUORUSER", std::string(90 - varying, 'u'));
  std::string csv = "id,name,note,amount\r\n";
  for (int i = 0; i < 20000; ++i) {
    std::string note = i % 7 == 0 ? "\"said \"\"hi\"\", twice\"" : i % 11 == 0 ? "\"two\nlines\"" : "";
    if (i % 97 == 0) note = std::string(259, static_cast<char>('a' + i % 26));
    csv += std::to_string(i * 7919 % 100003) + ",\"Smith, " + std::string(static_cast<std::size_t>(i % 13), 'j') +
           "\"," + note + "," + std::to_string(i % 1000) + "." + std::to_string(i % 100) + (i % 5 ? "\n" : "\r\n");
  }
  write("t.csv", csv);
  CtlBuild spec;
  spec.object = "PROBE";
  spec.command = "LIST";
  spec.date_format = "DD.MM.YYYY";
  spec.selections = {{"NAME", "=", "a b"}};
  spec.data = CtlBuild::Data::Table;
  spec.source = path("t.csv");
  CtlBuilt built = ctl_build_transaction(spec);
  ASSERT_EQ(built.error, "");
  EXPECT_EQ(built.buffers.size(), 21u);
  std::uint64_t digest = 14695981039346656037ull;
  FileTransfer t;
  t.path = path("t.rdw");
  for (const std::vector<char>& b : built.buffers) {
    std::optional<std::size_t> after_header = buf_read_segment(b, kTranTag, {}, {});
    ASSERT_EQ(after_header.value_or(0), 164u) << "the header is padded to a fixed length";
    for (std::size_t k = 0; k < b.size(); ++k)
      if (k < 6 || k >= *after_header) digest = (digest ^ static_cast<unsigned char>(b[k])) * 1099511628211ull;
    ASSERT_EQ(buffer_to_RDW(t, InBuf(b)), 0);
  }
  EXPECT_EQ(digest, 17730304981397973367ull);
  ASSERT_EQ(csv_to_table(csv, path("direct")).status, kCtlOk);
  EXPECT_EQ(ctl_table_to_csv(path("t.rdw")).out, ctl_table_to_csv(path("direct")).out);
}

// A calendar file printed, and built into a request whose segment writes
// the same file again; a list built into a request gives the same lines.
TEST_F(CtlFiles, CalendarsAndLists) {
  FileTransfer t;
  t.path = path("cal");
  std::vector<char> source = testutil::plain_request("S", {{kCalTag, {"PI=ab", "DS=desc", "RL=7", "AL=first", "AL=second"}}});
  ASSERT_EQ(buffer_to_cal(t, InBuf(source.data(), source.size())), 0);

  EXPECT_EQ(ctl_calendar_show(path("cal"), false).out,
            "PI: ab\nCU: \nUU: \nDS: desc\nRL: 7\nYN: 0\nFX: 0\nUT: 0\nDO: 0\ndata offset: 404\n"
            "AL: first\nAL: second\n");
  EXPECT_EQ(ctl_calendar_show(path("cal"), true).out,
            "{\"PI\":\"ab\",\"CU\":\"\",\"UU\":\"\",\"DS\":\"desc\",\"RL\":\"7\",\"YN\":\"0\",\"FX\":\"0\",\"UT\":\"0\","
            "\"DO\":\"0\",\"data_offset\":404,\"lines\":[\"first\\n\",\"second\\n\"]}\n");
  write("short", "not a calendar");
  EXPECT_EQ(ctl_calendar_show(path("short"), false).status, kCtlFailed);

  CtlBuild spec;
  spec.data = CtlBuild::Data::Calendar;
  spec.source = path("cal");
  CtlBuilt built = ctl_build_transaction(spec);
  ASSERT_EQ(built.buffers.size(), 1u);
  FileTransfer again;
  again.path = path("again");
  ASSERT_EQ(buffer_to_cal(again, built.buffers[0]), 0);
  EXPECT_EQ(read_file(path("again")), read_file(path("cal")));

  write("names", "alpha\n\nbeta\n");
  spec.data = CtlBuild::Data::List;
  spec.source = path("names");
  built = ctl_build_transaction(spec);
  ASSERT_EQ(built.buffers.size(), 1u);
  FileTransfer list;
  list.path = path("list");
  ASSERT_EQ(buffer_to_list(list, "ZZZLST", built.buffers[0]), 0);
  EXPECT_EQ(read_file(path("list")), "alpha\nbeta\n");

  spec.source = path("missing");
  EXPECT_EQ(ctl_build_transaction(spec).error, "cannot read " + path("missing"));
}

}  // namespace
