// The message catalogue: identifiers, texts and substitution, the log line,
// where messages go, and the catalogue source parser.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "catalogue.h"
#include "core_util.h"
#include "momsg.h"

namespace {

// The text of message `number` with `values` put in.
std::string text_of(unsigned number, std::initializer_list<std::string_view> values = {}) {
  return MOmsgf(2, __LINE__, "t", mo_identifier(number, 2), MO_RETURN_TEXT | static_cast<unsigned>(values.size()),
                values);
}

// The log line's format, and message texts as the daemon raises them.
TEST(Catalogue, LogLinesBuiltInTextsSubstitutionAndAnInstalledCatalogue) {
  mo_set_program("quordaemon");
  EXPECT_EQ(mo_log_line(mo_identifier(400, 1), "ready", 1795374287, 1234),
            "2026-11-22T19:04:47Z quordaemon[1234]: QUOR0400I ready");
  EXPECT_EQ(mo_log_line(mo_identifier(8, 4), "a\nb", 0, 1), "1970-01-01T00:00:00Z quordaemon[1]: QUOR0008S a b");
  // The severity letters the two lines above do not show.
  for (auto [severity, tag] : {std::pair{0u, "QUOR0110T"}, {2u, "QUOR0110E"}, {3u, "QUOR01103"}})
    EXPECT_NE(mo_log_line(mo_identifier(110, severity), "", 0, 1).find(tag), std::string::npos) << tag;

  // Texts as the daemon raises them: built in for every number it uses, with
  // values put in as they are, and an installed compiled catalogue first.
  testutil::TempDir dir;
  testutil::EnvGuard root("MOXGLBL0000", dir.str());
  testutil::EnvGuard nls("NLSPATH", std::string("/nonexistent/%N"));
  mo_reset();
  for (int n : {1,   2,   8,   9,   11,  12,  13,  14,  16,  17,  19,  20,  21,  22,  23,  24,
                105, 106, 107, 108, 109, 110, 112, 113, 114, 115, 118, 119, 120, 121, 122, 123,
                125, 127, 128, 129, 130, 131, 132, 133, 137, 200, 201, 202, 203, 290, 400, 401, 402})
    EXPECT_NE(catalogue_builtin().count(n) ? catalogue_builtin().at(n) : "", "") << n;
  EXPECT_EQ(text_of(125, {"17", "bad %s line"}), "Line 17: bad %s line");
  // The count in the flags limits the values used; missing ones are empty.
  EXPECT_EQ(MOmsgf(2, __LINE__, "t", mo_identifier(125, 2), MO_RETURN_TEXT | 1, {"3", "x"}), "Line 3: ");
  EXPECT_EQ(text_of(999), "");

  auto messages = dir.path() / "quor/messages";
  std::filesystem::create_directories(messages);
  testutil::write_file(messages / "site.msg", "$set 1\n128 Site text: %s\n");
  ASSERT_EQ(std::system(("cd " + messages.string() + " && gencat quor.cat site.msg").c_str()), 0);
  mo_reset();
  EXPECT_EQ(text_of(128, {"x"}), "Site text: x");
  // Numbers the site catalogue lacks still have the built-in text.
  EXPECT_EQ(text_of(402), catalogue_builtin().at(402));
  mo_reset();
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
  EXPECT_EQ(m, (std::map<int, std::string>{
                   {1, "plain text"}, {2, "continued line"}, {3, "tab\there\\ and A"}, {4, "quoted \" text"},
                   {7, "no newline at end"}}));
  EXPECT_EQ(catalogue_parse("$set 2\n1 x\n", 2).at(1), "x");
}

}  // namespace
