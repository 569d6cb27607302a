// The configuration file and maps, read from real files; the environment from a date format and a language.
#include <gtest/gtest.h>

#include <regex>

#include "core_util.h"
#include "momsg.h"
#include "quorconfig.h"
#include "quorenvd.h"
#include "textlines.h"

using testutil::EnvGuard;
using testutil::TempDir;

namespace {

class ConfigFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(dir_.path() / "quor/etc");
    write("quor/etc/quorobj.map", "LIST lister\n");
    write("quor/etc/quorlang.map", "DEFAULT english\n");
    mo_reset();
  }
  void TearDown() override {
    quor_config() = QuorConfig{};
    quor_objmap().clear();
  }

  std::string write(const std::string& name, const std::string& text) {
    testutil::write_file(dir_.path() / name, text);
    return (dir_.path() / name).string();
  }
  std::string log() const { return testutil::read_file(dir_.path() / "quor/log/quordaemon.log"); }
  std::string root() const { return dir_.str(); }

  int load(const std::string& config_text) {
    return quor_config_load(quor_objmap(), quor_config(), write("quor/etc/quor.config", config_text));
  }

  TempDir dir_;
  EnvGuard root_{"MOXGLBL0000", dir_.str()};
};

// A refused line is logged with its number and skipped; a value ends at a
// blank, not a tab; a key matches by prefix; a line over 2047 bytes is two.
TEST_F(ConfigFiles, EveryLineRefusedOrApplied) {
  write("quor/etc/objects", "LIST lister\n");
  write("quor/etc/lang\tmap", "DEFAULT english\n");
  const std::string lines[] = {
      "LOGIN_TIMEOUT: -1",                    // 1: refused
      "LOGIN_TIMEOUT: 40000000",              // 2: refused, too many seconds
      "LOGIN_REQUIRED:",                      // 3: refused
      "LOGIN_REQUIRED: 1\t",                  // 4: refused
      "LOGIN_REQUIRED: +0",                   // 5
      "LOGIN_REQUIRED: -1",                   // 6
      "UNKNOWN_KEY: 1",                       // 7: refused
      "TRANSACTION_TIMEOUT: -1",              // 8: refused
      "TRANSACTION_TIMEOUT: 99999999999",     // 9: refused
      "TRANSACTION_TIMEOUT:    15 seconds",   // 10
      "DEFAULT_LOGIN_NAME: " + std::string(40, 'u'),
      "OBJECT_MAP_FILE_X: " + root() + "/quor/etc/objects extra words",
      "LANGUAGE_MAP_FILE: " + root() + "/quor/etc/lang\tmap more",
      "TRANSACTION_TIMEOUT: 7" + std::string(2047 - 22, ' ') + "LOGIN_TIMEOUT: 1",
  };
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  ASSERT_EQ(load(text), 0) << log();

  std::string l = log();
  std::vector<int> refused;
  std::regex reported("QUOR0125E Line ([0-9]+):");
  for (std::sregex_iterator i(l.begin(), l.end(), reported), end; i != end; ++i) refused.push_back(std::stoi((*i)[1]));
  EXPECT_EQ(refused, (std::vector<int>{1, 2, 3, 4, 7, 8, 9})) << l;
  const QuorConfig& config = quor_config();
  EXPECT_EQ(std::to_string(config.transaction_timeout) + " " + std::to_string(config.login_timeout) + " " +
                std::to_string(config.login_required),
            "7 60 -1");
  EXPECT_EQ(config.nologin_user, std::string(32, 'u'));
  EXPECT_EQ(config.object_map_path, root() + "/quor/etc/objects");
  EXPECT_EQ(config.language_map.path, root() + "/quor/etc/lang\tmap");
}

// Object map: a program without "/" is in the bin directory, the first entry wins. Language map:
// the last DEFAULT serves unknown languages. One-word lines are logged.
TEST_F(ConfigFiles, MapsAndEnvironmentEntries) {
  write("quor/etc/quorobj.map",
        "# objects\nLIST lister\n  LOCAL ./lister extra words\nABS\t/usr/bin/lister\nLIST second\nALONE\n");
  write("quor/etc/quorlang.map", "# languages\nDEFAULT english\nfrench /opt/msg/fr\nlonely\nDEFAULT british\n");
  ASSERT_EQ(load("# defaults\n"), 0);
  std::string objects;
  for (const ObjectMapEntry& e : quor_objmap()) objects += e.object_name + "=" + e.program_path + " ";
  EXPECT_EQ(objects,
            "LIST=" + root() + "/quor/bin/lister LOCAL=./lister ABS=/usr/bin/lister LIST=" + root() + "/quor/bin/second ");
  EXPECT_EQ(quor_objmap_find("LIST")->program_path, root() + "/quor/bin/lister");
  EXPECT_EQ(quor_objmap_find("list"), nullptr);
  EXPECT_NE(log().find("QUOR0113E"), std::string::npos);
  EXPECT_NE(log().find("QUOR0125E Line 6:"), std::string::npos) << log();
  EXPECT_EQ(quor_config().language_map.count, 3);
  EXPECT_NE(log().find("QUOR0131E Line 4 of the language map"), std::string::npos) << log();

  auto entries = [](const std::string& date, const std::string& language, const LanguageMap* map = nullptr) {
    EnvBlock env{date, language};
    EXPECT_EQ(quor_env_build(env, map), 0);
    return env.date_format + " " + env.message;
  };
  std::string messages = " MO_MOXMESSAGE=" + root() + "/messages";
  EXPECT_EQ(entries("DD.MM.YY", "french"), "MOX_DATEFMT=DD.MM.YY MO_MOXMESSAGE=/opt/msg/fr");
  EXPECT_EQ(entries("", "French"), "MOX_DATEFMT=" + messages + "/british");
  // Without a DEFAULT line the first entry serves; an empty map gives none.
  LanguageMap no_default{"", {"english", "french"}, {"en", "/fr"}, 2, 0}, empty;
  EXPECT_EQ(entries("", "german", &no_default), "MOX_DATEFMT=" + messages + "/en");
  EXPECT_EQ(entries("", "german", &empty), "MOX_DATEFMT=" + messages);
}

// A file failing part-way (a /proc file far past the size limit) leaves no half-read map or
// configuration, only its error code; one of exactly the size limit is read whole.
TEST_F(ConfigFiles, AFileFailingPartWayLeavesNothingHalfRead) {
  std::string last = "english   english\n";
  std::string padding = "#" + std::string(kMaxTextFile - last.size() - 2, '-') + "\n";
  LanguageMap exact;
  exact.path = write("exact.map", padding + last);
  EXPECT_EQ(quor_langmap_load(exact), 0);
  EXPECT_EQ(exact.count, 1);

  const std::string failing = "/proc/kallsyms";
  if (!std::filesystem::exists(failing)) GTEST_SKIP() << failing << " is not there";
  LanguageMap languages;
  languages.path = failing;
  EXPECT_EQ(quor_langmap_load(languages), 5);
  EXPECT_TRUE(languages.names.empty() && languages.directories.empty() && languages.count == 0);
  EXPECT_EQ(languages.path, failing);
  ObjectMap objects;
  EXPECT_EQ(quor_objmap_load(objects, failing), 3);
  EXPECT_TRUE(objects.empty());

  ASSERT_EQ(load("TRANSACTION_TIMEOUT: 30\n"), 0);
  EXPECT_EQ(quor_config_load(quor_objmap(), quor_config(), failing), 3);
  EXPECT_EQ(quor_config().transaction_timeout, 30) << "the half-read configuration was taken";
  EXPECT_NE(log().find("QUOR0108E"), std::string::npos) << log();
}

}  // namespace
