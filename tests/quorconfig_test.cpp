// The configuration file, the object map and the language map, read from
// real files in a temporary installation root, and the environment entries
// built from a request's "ZZZENV" segment.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <fstream>
#include <string>

#include "core_util.h"
#include "momsg.h"
#include "quorconfig.h"
#include "quorenvd.h"

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
    std::filesystem::path p = dir_.path() / name;
    std::ofstream(p, std::ios::binary) << text;
    return p.string();
  }
  std::string log() const { return testutil::read_file(dir_.path() / "quor/log/quordaemon.log"); }
  std::string root() const { return dir_.str(); }

  // Loads into the daemon's current configuration and object map.
  int load(const std::string& config_text) {
    return quor_config_load(quor_objmap(), quor_config(), write("quor/etc/quor.config", config_text));
  }

  TempDir dir_;
  EnvGuard root_{"MOXGLBL0000", dir_.str()};
};

TEST(ConfigLine, KeysValuesAndNumbers) {
  struct Case {
    const char* line;
    int rc;
  };
  const Case cases[] = {
      {"LOGIN_TIMEOUT: 2m\n", 3},         {"LOGIN_TIMEOUT: -1\n", 3},       {"LOGIN_TIMEOUT: 40000000\n", 3},
      {"LOGIN_REQUIRED: -1\n", 0},        {"LOGIN_REQUIRED: +0\n", 0},      {"LOGIN_REQUIRED:\n", 3},
      {"LOGIN_REQUIRED 1\n", 3},          {"LOGIN_REQUIRED: 1\t\n", 3},     {"UNKNOWN_KEY: 1\n", 3},
      {"\n", 3},                          {"TRANSACTION_TIMEOUT: -1\n", 3}, {"TRANSACTION_TIMEOUT: 99999999999\n", 3},
      {"TRANSACTION_TIMEOUT:    15\n", 0}, {"TRANSACTION_TIMEOUT: 15 seconds\n", 0},
  };
  for (const Case& c : cases) {
    QuorConfig config;
    EXPECT_EQ(quor_config_line(config, c.line), c.rc) << c.line;
  }
}

TEST(ConfigLine, StoredValues) {
  QuorConfig config;
  ASSERT_EQ(quor_config_defaults(config), 0);
  EXPECT_EQ(config.login_required, 1);
  EXPECT_EQ(config.nologin_user, "nobody");

  ASSERT_EQ(quor_config_line(config, "LOGIN_TIMEOUT: 2\n"), 0);
  EXPECT_EQ(config.login_timeout, 120);
  ASSERT_EQ(quor_config_line(config, "LOGIN_REQUIRED: -1"), 0);
  EXPECT_EQ(config.login_required, -1);
  ASSERT_EQ(quor_config_line(config, "DEFAULT_LOGIN_NAME: " + std::string(40, 'u') + "\n"), 0);
  EXPECT_EQ(config.nologin_user, std::string(32, 'u'));
  ASSERT_EQ(quor_config_line(config, "OBJECT_MAP_FILE: /a/b c\n"), 0);
  EXPECT_EQ(config.object_map_path, "/a/b");
  ASSERT_EQ(quor_config_line(config, "OBJECT_MAP_FILE_X: /p\n"), 0);
  EXPECT_EQ(config.object_map_path, "/p");
  // A tab does not end a value.
  ASSERT_EQ(quor_config_line(config, "LANGUAGE_MAP_FILE: /m\tx y\n"), 0);
  EXPECT_EQ(config.language_map.path, "/m\tx");
  // A rejected line changes nothing.
  ASSERT_EQ(quor_config_line(config, "TRANSACTION_TIMEOUT: 5x\n"), 3);
  EXPECT_EQ(config.transaction_timeout, 0);
}

TEST_F(ConfigFiles, BadLinesAreReportedWithTheirNumbersAndSkipped) {
  ASSERT_EQ(load("TRANSACTION_TIMEOUT: 30\n"
                 "  garbage here\n"
                 "\n"
                 "LOGIN_TIMEOUT: 2m\n"
                 "LOGIN_TIMEOUT: 3\n"),
            0);
  EXPECT_EQ(quor_config().transaction_timeout, 30);
  EXPECT_EQ(quor_config().login_timeout, 180);
  std::string l = log();
  EXPECT_NE(l.find("QUOR0125E Line 2: garbage here\n"), std::string::npos) << l;
  EXPECT_NE(l.find("QUOR0125E Line 3:"), std::string::npos) << l;
  EXPECT_NE(l.find("QUOR0125E Line 4: LOGIN_TIMEOUT: 2m\n"), std::string::npos) << l;
  EXPECT_EQ(l.find("Line 5"), std::string::npos) << l;
  EXPECT_NE(l.find("QUOR0110E"), std::string::npos);
}

TEST_F(ConfigFiles, ALineLongerThanTheBufferIsReadInPieces) {
  // 2047 bytes fill the buffer; the rest of the line comes as a second line.
  std::string first = "TRANSACTION_TIMEOUT: 7" + std::string(2047 - 22, ' ');
  ASSERT_EQ(first.size(), 2047u);
  ASSERT_EQ(load(first + "LOGIN_TIMEOUT: 1\n"), 0);
  EXPECT_EQ(quor_config().transaction_timeout, 7);
  EXPECT_EQ(quor_config().login_timeout, 60);
  EXPECT_EQ(log().find("QUOR0125E"), std::string::npos) << log();
}

TEST_F(ConfigFiles, ObjectMapPathsLookupsAndBadLines) {
  write("quor/etc/quorobj.map",
        "# objects\n"
        "LIST lister\n"
        "  LOCAL ./lister extra words\n"
        "ABS\t/usr/bin/lister\n"
        "LIST second\n"
        "ALONE\n");
  ASSERT_EQ(load("# defaults\n"), 0);
  ASSERT_EQ(quor_objmap().size(), 4u);
  EXPECT_EQ(quor_objmap_find("LIST")->program_path, root() + "/quor/bin/lister");
  EXPECT_EQ(quor_objmap_find("LOCAL")->program_path, "./lister");
  EXPECT_EQ(quor_objmap_find("ABS")->program_path, "/usr/bin/lister");
  EXPECT_EQ(quor_objmap_find("list"), nullptr);
  EXPECT_EQ(quor_objmap_find("ALONE"), nullptr);
  EXPECT_NE(log().find("QUOR0113E"), std::string::npos);
  EXPECT_NE(log().find("QUOR0125E Line 6:"), std::string::npos) << log();
}

TEST_F(ConfigFiles, LanguageMapAndEnvironmentEntries) {
  write("quor/etc/quorlang.map",
        "# languages\n"
        "DEFAULT english\n"
        "french /opt/msg/fr\n"
        "lonely\n"
        "DEFAULT british\n");
  ASSERT_EQ(load("# defaults\n"), 0);
  const LanguageMap& map = quor_config().language_map;
  ASSERT_EQ(map.count, 3);
  EXPECT_EQ(map.default_index, 2);
  EXPECT_NE(log().find("QUOR0131E Line 4 of the language map"), std::string::npos) << log();

  auto entries = [](std::string date, std::string language, const LanguageMap* languages = nullptr) {
    EnvBlock env{std::move(date), std::move(language)};
    EXPECT_EQ(quor_env_build(env, languages), 0);
    return env;
  };
  EXPECT_EQ(entries("DD.MM.YY", "french").message, "MO_MOXMESSAGE=/opt/msg/fr");
  EXPECT_EQ(entries("", "german").message, "MO_MOXMESSAGE=" + root() + "/messages/british");
  EXPECT_EQ(entries("", "French").message, "MO_MOXMESSAGE=" + root() + "/messages/british");
  EXPECT_EQ(entries("DD.MM.YY", "french").date_format, "MOX_DATEFMT=DD.MM.YY");
  EXPECT_EQ(entries("", "french").date_format, "MOX_DATEFMT=");

  // Without a DEFAULT line the first entry serves unknown languages; an
  // empty map leaves only the messages directory itself.
  LanguageMap no_default{"", {"english", "french"}, {"en", "/fr"}, 2, 0}, empty;
  EXPECT_EQ(entries("", "german", &no_default).message, "MO_MOXMESSAGE=" + root() + "/messages/en");
  EXPECT_EQ(entries("", "german", &empty).message, "MO_MOXMESSAGE=" + root() + "/messages");
}

TEST_F(ConfigFiles, EnvironmentSegmentOfARequest) {
  ASSERT_EQ(load("# defaults\n"), 0);
  std::array<char, BUFFER_MAX> buf{};
  OutBuf out(buf);
  tran_header_put("S", "N", out);
  std::size_t field = buf_begin_segment(out, "ZZZENV");
  buf_add_item(out, "LAN");
  buf_add_item(out, "klingon");
  buf_end_segment(out, field);
  quor_trl_put("N", out);
  std::optional<EnvBlock> env = quor_env_read(InBuf(buf.data(), out.pos));
  ASSERT_TRUE(env);
  EXPECT_EQ(env->date_format, "MOX_DATEFMT=");
  EXPECT_EQ(env->message, "MO_MOXMESSAGE=" + root() + "/messages/english");

  std::size_t length = 0;
  auto plain = testutil::make_request("S", length);
  EXPECT_FALSE(quor_env_read(InBuf(plain.data(), length)));
}

}  // namespace
