// quorctl check-config against the daemon's own load: for good files, every
// kind of bad line, missing maps and files that are not regular files, the
// check prints exactly the messages the load logs, and fails exactly when
// the load fails, without writing to the daemon's log.
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

using ::testing::HasSubstr;
namespace fs = std::filesystem;

static bool operator==(const CtlOutcome& a, const CtlOutcome& b) {
  return a.status == b.status && a.out == b.out && a.error == b.error;
}
static void PrintTo(const CtlOutcome& o, std::ostream* os) {
  *os << o.status << ", out \"" << o.out << "\", error \"" << o.error << "\"";
}

namespace {

CtlOutcome check_config(const std::string& args = "") {
  testutil::TempDir dir;
  int status = std::system((std::string(QUORCTL_PATH) + " check-config " + args + " >" + dir.str() + "/out 2>" +
                            dir.str() + "/err").c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, testutil::read_file(dir.path() / "out"),
          testutil::read_file(dir.path() / "err")};
}

class CheckConfig : public ::testing::Test {
 protected:
  void TearDown() override {
    quor_config() = QuorConfig{};
    quor_objmap().clear();
  }
  std::string etc(const std::string& name) const { return root_.str() + "/quor/etc/" + name; }
  void write(const char* name, const std::string& text) const { std::ofstream(etc(name)) << text; }

  // Sample files damaged by `damage`, checked, then loaded by the daemon's
  // code: the check's output is the load's messages (each log line without
  // its time and process), with a verdict line when the load succeeds.
  CtlOutcome compare(const std::string& what, const std::function<void()>& damage) {
    SCOPED_TRACE(what);
    fs::remove_all(root_.path() / "quor");
    fs::create_directories(root_.path() / "quor/etc");
    for (const char* file : {"quor.config", "quorobj.map", "quorlang.map"})
      fs::copy_file(fs::path(QUOR_SOURCE_DIR) / "etc" / file, etc(file));
    damage();
    mo_reset();
    CtlOutcome check = check_config();
    std::string log_path = root_.str() + "/quor/log/quordaemon.log";
    EXPECT_FALSE(fs::exists(log_path)) << "the check wrote to the message log";
    int rc = quor_config_load(quor_objmap(), quor_config(), std::nullopt);
    std::istringstream log(testutil::read_file(log_path));
    std::string line, messages;
    while (std::getline(log, line)) messages += line.substr(line.find("]: ") + 3) + "\n";
    if (rc == 0) {
      EXPECT_EQ(check, (CtlOutcome{0, messages + etc("quor.config") + (messages.empty() ? ": loads without problems\n"
                                                      : ": loads; the lines reported above are skipped\n"), ""}));
    } else {
      EXPECT_EQ(check, (CtlOutcome{kCtlDaemonError, messages, check.error}));
      EXPECT_THAT(check.error, HasSubstr("(RC " + std::to_string(rc) + ")"));
    }
    return check;
  }

  testutil::TempDir root_;
  testutil::EnvGuard root_env_{"MOXGLBL0000", root_.str()};
};

TEST_F(CheckConfig, ReportsWhatTheDaemonsLoadReports) {
  compare("the sample files", [] {});
  EXPECT_THAT(compare("bad configuration lines",
                      [&] { write("quor.config", "# c\nTRANSACTION_TIMEOUT: 5x\n\nLOGIN_TIMEOUT 3\nNO_KEY: 1\n"); })
                  .out,
              HasSubstr("QUOR0110E Line not understood in the configuration file " + etc("quor.config") +
                        ":\nQUOR0125E Line 2: TRANSACTION_TIMEOUT: 5x\n"));
  EXPECT_THAT(compare("a bad object map line", [&] { write("quorobj.map", "LOGON quorlogon\n  ALONE\n"); }).out,
              HasSubstr("QUOR0113E Line not understood in the object map " + etc("quorobj.map") +
                        ":\nQUOR0125E Line 2:\n"));
  EXPECT_THAT(compare("bad language map lines", [&] { write("quorlang.map", "DEFAULT english\n\nlonely\n"); }).out,
              HasSubstr("QUOR0131E Line 3 of the language map"));

  compare("no configuration file", [&] { fs::remove(etc("quor.config")); });
  EXPECT_THAT(compare("no object map", [&] { fs::remove(etc("quorobj.map")); }).out, HasSubstr("QUOR0112E"));
  compare("an empty object map", [&] { write("quorobj.map", "# nothing\n"); });
  EXPECT_THAT(compare("no language map", [&] { fs::remove(etc("quorlang.map")); }).error,
              HasSubstr("the language map " + etc("quorlang.map") + " cannot be opened"));
  compare("an unknown default login account",
          [&] { write("quor.config", "LOGIN_REQUIRED: 0\nDEFAULT_LOGIN_NAME: no-such-user-x\n"); });
  for (const char* file : {"quor.config", "quorobj.map", "quorlang.map"})
    compare(std::string(file) + " is a directory", [&] {
      fs::remove(etc(file));
      fs::create_directory(etc(file));
    });
}

TEST_F(CheckConfig, ChecksTheFileNamedAndNeedsTheInstallationRoot) {
  std::string other = root_.str() + "/other.config";
  std::ofstream(other) << "LOGIN_TIMEOUT: x\n";
  fs::create_directories(root_.path() / "quor/etc");
  write("quorobj.map", "LOGON quorlogon\n");
  write("quorlang.map", "DEFAULT english\n");
  EXPECT_EQ(check_config(other), (CtlOutcome{0, "QUOR0110E Line not understood in the configuration file " + other +
                                                      ":\nQUOR0125E Line 1: LOGIN_TIMEOUT: x\n" + other +
                                                      ": loads; the lines reported above are skipped\n",
                                                  ""}));
  testutil::EnvGuard no_root("MOXGLBL0000", std::nullopt);
  EXPECT_EQ(check_config().status, kCtlUsage);
}

}  // namespace
