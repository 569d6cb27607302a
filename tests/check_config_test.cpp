// quorctl check-config against the daemon's own load: for good files, every
// kind of bad line, missing maps and files that are not regular files, the
// check prints exactly the messages the load logs, and fails exactly when
// the load fails.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include "core_util.h"
#include "ctl_commands.h"
#include "momsg.h"
#include "quorconfig.h"

using testutil::EnvGuard;
using testutil::TempDir;
using ::testing::HasSubstr;

namespace {

namespace fs = std::filesystem;

CtlOutcome check_config(const std::vector<std::string>& args) {
  TempDir dir;
  std::string cmd = std::string(QUORCTL_PATH) + " check-config";
  for (const auto& a : args) cmd += " '" + a + "'";
  int status = std::system((cmd + " >" + dir.str() + "/out 2>" + dir.str() + "/err").c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, testutil::read_file(dir.path() / "out"),
          testutil::read_file(dir.path() / "err")};
}

// The messages of a log, as "QUOR0125E Line 2: ..." lines: each log line
// without its time and process.
std::string messages_of(const std::string& log) {
  std::istringstream in(log);
  std::string line, out;
  while (std::getline(in, line)) out += line.substr(line.find("]: ") + 3) + "\n";
  return out;
}

class CheckConfig : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* file : {"quor.config", "quorobj.map", "quorlang.map"}) {
      fs::remove_all(etc(file));
      fs::create_directories(root_dir_.path() / "quor/etc");
      fs::copy_file(fs::path(QUOR_SOURCE_DIR) / "etc" / file, etc(file));
    }
    fs::remove_all(root_dir_.path() / "quor/log");
    mo_reset();
  }
  void TearDown() override {
    quor_config() = QuorConfig{};
    quor_objmap().clear();
  }

  std::string etc(const char* name) const { return (root_dir_.path() / "quor/etc" / name).string(); }
  void write(const char* name, const std::string& text) const { std::ofstream(etc(name)) << text; }
  std::string log() const { return testutil::read_file(root_dir_.path() / "quor/log/quordaemon.log"); }

  // The daemon's load and the check of the same files: the same messages in
  // the same order, and the check fails exactly when the load does. The
  // check writes nothing to the daemon's log. Returns the check's run.
  CtlOutcome compare(const std::string& what) {
    SCOPED_TRACE(what);
    SetUp();
    prepare_();
    CtlOutcome check = check_config({});
    EXPECT_EQ(log(), "") << "the check wrote to the message log";
    int rc = quor_config_load(quor_objmap(), quor_config(), std::nullopt);
    std::string messages = messages_of(log());
    if (rc == 0) {
      EXPECT_EQ(check.status, 0) << check.error;
      EXPECT_EQ(check.out, messages + etc("quor.config") +
                               (messages.empty() ? ": loads without problems\n"
                                                 : ": loads; the lines reported above are skipped\n"));
    } else {
      EXPECT_EQ(check.status, kCtlDaemonError);
      EXPECT_EQ(check.out, messages);
      EXPECT_THAT(check.error, HasSubstr("(RC " + std::to_string(rc) + ")"));
    }
    return check;
  }

  TempDir root_dir_;
  EnvGuard root_{"MOXGLBL0000", root_dir_.str()};
  std::function<void()> prepare_ = [] {};
};

TEST_F(CheckConfig, ReportsWhatTheDaemonsLoadReports) {
  EXPECT_EQ(compare("the sample files").out, etc("quor.config") + ": loads without problems\n");

  prepare_ = [&] {
    write("quor.config", "# comment\nTRANSACTION_TIMEOUT: 5x\n\nLOGIN_TIMEOUT 3\nNO_SUCH_KEY: 1\nLOGIN_TIMEOUT: 3\n");
  };
  EXPECT_THAT(compare("bad configuration lines").out,
              HasSubstr("QUOR0110E Line not understood in the configuration file " + etc("quor.config") +
                        ":\nQUOR0125E Line 2: TRANSACTION_TIMEOUT: 5x\n"));
  prepare_ = [&] { write("quorobj.map", "LOGON quorlogon\n  ALONE\n"); };
  EXPECT_THAT(compare("a bad object map line").out, HasSubstr("QUOR0113E Line not understood in the object map " + etc("quorobj.map") + ":\nQUOR0125E Line 2:\n"));
  prepare_ = [&] { write("quorlang.map", "DEFAULT english\n\nlonely\n"); };
  EXPECT_THAT(compare("bad language map lines").out, HasSubstr("QUOR0131E Line 3 of the language map"));

  prepare_ = [&] { fs::remove(etc("quor.config")); };
  compare("no configuration file");
  prepare_ = [&] { fs::remove(etc("quorobj.map")); };
  EXPECT_THAT(compare("no object map").out, HasSubstr("QUOR0112E"));
  prepare_ = [&] { write("quorobj.map", "# nothing\n"); };
  compare("an empty object map");
  prepare_ = [&] { fs::remove(etc("quorlang.map")); };
  EXPECT_THAT(compare("no language map").error, HasSubstr("the language map " + etc("quorlang.map") + " cannot be opened"));
  prepare_ = [&] { write("quor.config", "LOGIN_REQUIRED: 0\nDEFAULT_LOGIN_NAME: no-such-user-x\n"); };
  compare("an unknown default login account");

  for (const char* file : {"quor.config", "quorobj.map", "quorlang.map"}) {
    prepare_ = [&] {
      fs::remove(etc(file));
      fs::create_directory(etc(file));
    };
    compare(std::string(file) + " is a directory");
  }
}

TEST_F(CheckConfig, NamesTheFileToCheckAndNeedsTheInstallationRoot) {
  std::string other = (root_dir_.path() / "other.config").string();
  std::ofstream(other) << "LOGIN_TIMEOUT: x\n";
  CtlOutcome run = check_config({other});
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(run.out, HasSubstr("file " + other + ":\nQUOR0125E Line 1: LOGIN_TIMEOUT: x\n"));

  EnvGuard no_root("MOXGLBL0000", std::nullopt);
  run = check_config({});
  EXPECT_EQ(run.status, kCtlUsage);
  EXPECT_THAT(run.error, HasSubstr("MOXGLBL0000"));
}

}  // namespace
