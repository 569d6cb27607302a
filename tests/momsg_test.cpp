// The message catalogue: identifiers, texts and substitution, the log line,
// where messages go, and the catalogue source parser.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>

#include "catalogue.h"
#include "core_util.h"
#include "momsg.h"

using testutil::EnvGuard;
using testutil::TempDir;

namespace {

class Catalogue : public ::testing::Test {
 protected:
  void SetUp() override { mo_reset(); }
  void TearDown() override { mo_reset(); }
  std::string log() { return testutil::read_file(dir_.path() / "quor/log/quordaemon.log"); }

  TempDir dir_;
  EnvGuard root_{"MOXGLBL0000", dir_.str()};
  EnvGuard nls_{"NLSPATH", std::string("/nonexistent/%N")};
};

}  // namespace

TEST(MessageIdentifier, LogLineFormat) {
  mo_set_program("quordaemon");
  EXPECT_EQ(mo_log_line(mo_identifier(400, 1), "ready", 1795374287, 1234),
            "2026-11-22T19:04:47Z quordaemon[1234]: QUOR0400I ready");
  EXPECT_EQ(mo_log_line(mo_identifier(8, 4), "a\nb", 0, 1),
            "1970-01-01T00:00:00Z quordaemon[1]: QUOR0008S a b");
  EXPECT_NE(mo_log_line(mo_identifier(202, 0), "", 0, 1).find("QUOR0202T"), std::string::npos);
  EXPECT_NE(mo_log_line(mo_identifier(110, 2), "", 0, 1).find("QUOR0110E"), std::string::npos);
  EXPECT_NE(mo_log_line(mo_identifier(110, 3), "", 0, 1).find("QUOR01103"), std::string::npos);
}

TEST_F(Catalogue, EveryMessageTheDaemonRaisesHasABuiltInText) {
  const auto& texts = catalogue_builtin();
  for (int n : {1,   2,   8,   9,   11,  12,  13,  14,  16,  17,  19,  20,  21,  22,  23,  24,
                105, 106, 107, 108, 109, 110, 112, 113, 114, 115, 118, 119, 120, 121, 122, 123,
                125, 127, 128, 129, 130, 131, 132, 133, 137, 200, 201, 202, 203, 290, 400, 401,
                402}) {
    auto it = texts.find(n);
    ASSERT_NE(it, texts.end()) << n;
    EXPECT_FALSE(it->second.empty()) << n;
  }
}

TEST_F(Catalogue, SubstitutesValuesAsTheyAre) {
  std::string t = MOmsgf(2, __LINE__, "t", mo_identifier(125, 2), MO_RETURN_TEXT | 2,
                         {"17", "bad %s line"});
  EXPECT_EQ(t, "Line 17: bad %s line");
  // The count in the flags limits the values used; missing ones are empty.
  EXPECT_EQ(MOmsgf(2, __LINE__, "t", mo_identifier(125, 2), MO_RETURN_TEXT | 1, {"3", "x"}),
            "Line 3: ");
  EXPECT_EQ(MOmsgf(2, __LINE__, "t", mo_identifier(999, 2), MO_RETURN_TEXT), "");
}

TEST_F(Catalogue, AnInstalledCompiledCatalogueTakesPrecedence) {
  auto msgdir = dir_.path() / "quor/messages";
  std::filesystem::create_directories(msgdir);
  auto src = dir_.path() / "site.msg";
  std::ofstream(src) << "$set 1\n128 Site text: %s\n";
  std::string cmd = "gencat " + (msgdir / "quor.cat").string() + " " + src.string();
  ASSERT_EQ(std::system(cmd.c_str()), 0);
  mo_reset();
  EXPECT_EQ(MOmsgf(2, __LINE__, "t", mo_identifier(128, 2), MO_RETURN_TEXT | 1, {"x"}),
            "Site text: x");
  // Numbers the site catalogue lacks still have the built-in text.
  EXPECT_EQ(MOmsgf(2, __LINE__, "t", mo_identifier(402, 1), MO_RETURN_TEXT),
            catalogue_builtin().at(402));
}

TEST(CatalogueParser, ReadsTheSourceFormat) {
  auto m = catalogue_parse(
      "$ comment\n"
      "$set 2\n"
      "1 other set\n"
      "$set 1\n"
      "1 plain text\n"
      "2 continued \\\n"
      "line\n"
      "3 tab\\there\\\\ and \\101\n"
      "$quote \"\n"
      "4 \"quoted \\\" text\" trailing\n"
      "junk line\n"
      "5x not a message\n"
      "6 gone\n"
      "6\n"
      "7 no newline at end");
  EXPECT_EQ(m.at(1), "plain text");
  EXPECT_EQ(m.at(2), "continued line");
  EXPECT_EQ(m.at(3), "tab\there\\ and A");
  EXPECT_EQ(m.at(4), "quoted \" text");
  EXPECT_EQ(m.count(5), 0u);
  EXPECT_EQ(m.count(6), 0u);
  EXPECT_EQ(m.at(7), "no newline at end");
  EXPECT_EQ(catalogue_parse("$set 2\n1 x\n", 2).at(1), "x");
}

TEST(CatalogueParser, TheRealSourceIsTheBuiltInCatalogue) {
  std::string source = testutil::read_file(std::string(QUOR_SOURCE_DIR) + "/messages/quor.msg");
  ASSERT_FALSE(source.empty());
  EXPECT_EQ(catalogue_parse(source), catalogue_builtin());
}
