// The command file of the file-version commands, rewritten to read the
// request's names from the data file.
#include <gtest/gtest.h>

#include "core_util.h"
#include "quorproc.h"
#include "quorsmc.h"

using testutil::TempDir;
using testutil::read_file;

namespace {

std::vector<char> request(const std::vector<std::string>& commands, const std::vector<std::string>& names) {
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
      request({"restore NAME=\"<names.lst\" -v", "second"}, {"\"a,b\"", "c'd", " x ", "  long name  \n"});
  EXPECT_EQ(quor_fileversion_rewrite(record, buf, entry, "ZZZCMD"), 0);
  EXPECT_EQ(read_file(commands), "restore NAME=\"<" + data + "\" -v\nsecond\n");
  EXPECT_EQ(read_file(data), "a b\nc d\nlong name\n");
  EXPECT_EQ(smc_get(record, smc::fileName), "");
  EXPECT_FALSE(entry.transfer.stream) << "the command file was left open";

  // Without "<" the command list is written as it stands.
  ChildEntry plain;
  plain.transfer.path = (dir.path() / "plain").string();
  std::vector<char> record2(kRecordSize);
  EXPECT_EQ(quor_fileversion_rewrite(record2, request({"backup NAME=all now", "x"}, {"n1"}), plain, "ZZZCMD"), 0);
  EXPECT_EQ(read_file(dir.path() / "plain"), "backup NAME=all now\nx\n");
  // A list with an empty name gives no names at all.
  smc_put(record2, smc::fileName, data);
  EXPECT_EQ(quor_fileversion_rewrite(record2, request({"restore NAME=\"<x\""}, {"a", "", "b"}), plain, "ZZZCMD"), 0);
  EXPECT_EQ(read_file(data), "");
  // No NAME= at all, or no closing quote: nothing to rewrite.
  EXPECT_EQ(quor_fileversion_rewrite(record2, request({"archive all"}, {"n"}), plain, "ZZZCMD"), 4);
  EXPECT_EQ(quor_fileversion_rewrite(record2, request({"archive NAME=\"<open"}, {"n"}), plain, "ZZZCMD"), 4);
}

}  // namespace
