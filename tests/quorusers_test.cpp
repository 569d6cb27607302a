// The user table: lookups, and its save file as bytes on disk.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "core_util.h"
#include "mocrypt.h"
#include "quorconfig.h"
#include "quorusers.h"

using testutil::EnvGuard;
using testutil::TempDir;

namespace {

class UserTableTest : public ::testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directories(dir_.path() / "tmp"); }
  void TearDown() override {
    quor_users().clear();
    quor_config() = QuorConfig{};
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
  }
  std::string save_file() const { return testutil::read_file(dir_.path() / "tmp/quor.sav"); }
  bool saved() const { return std::filesystem::exists(dir_.path() / "tmp/quor.sav"); }

  static UserEntry& add(std::string user, std::string node, std::time_t activity = 1000) {
    UserEntry& e = quor_user_new();
    e.user_name = std::move(user);
    e.node_name = std::move(node);
    e.login_name = "acct";
    e.group_id = "100";
    e.last_activity = activity;
    return e;
  }
  static TransactionHeader header(std::string user, std::string node) {
    TransactionHeader h;
    h.user = std::move(user);
    h.node = std::move(node);
    return h;
  }

  TempDir dir_;
  EnvGuard root_{"MOXGLBL0000", dir_.str()};
};

TEST_F(UserTableTest, RecordLengthTextAndSeed) {
  // Strings: user, "n", "acct", "100", "1000" -> user + 1 + 2 + 5 + 4 + 5.
  for (auto [length, text] : {std::pair{99, " 99"}, {100, "100"}}) {
    quor_users().clear();
    std::string user(static_cast<std::size_t>(length) - 17, 'u');
    add(user, "n");
    ASSERT_EQ(quor_users_save(), 0);
    std::string file = save_file();
    ASSERT_EQ(file.size(), 4u + static_cast<std::size_t>(length));
    EXPECT_EQ(file.substr(0, 4), std::string(text) + '\0');
    std::string payload = testutil::nul_join({user, "n", "acct", "100", "1000"});
    body_encode(text[0], std::span<char>(payload.data(), payload.size()));
    EXPECT_EQ(file.substr(4), payload) << "seed " << int(text[0]);
  }
}

TEST_F(UserTableTest, SavingAndLoadingReversesAndRestoresTheOrder) {
  add("first", "n1");
  add("second", "n2", 0).login_name.clear();  // a login in progress
  add("third", "n3");
  ASSERT_EQ(quor_users_save(), 0);
  std::string original = save_file();
  EXPECT_NE(original.find('\0'), std::string::npos);

  auto names = [] {
    std::vector<std::string> v;
    for (const UserEntry& e : quor_users()) v.push_back(e.user_name);
    return v;
  };
  quor_users().clear();
  ASSERT_EQ(quor_users_load(), 0);
  EXPECT_EQ(names(), (std::vector<std::string>{"first", "second", "third"}));
  // "acct" is no account here: its users are kept without a login program.
  for (const UserEntry& e : quor_users()) EXPECT_EQ(e.login_pid, 0);
  ASSERT_EQ(quor_users_save(), 0);
  quor_users().clear();
  ASSERT_EQ(quor_users_load(), 0);
  EXPECT_EQ(names(), (std::vector<std::string>{"third", "second", "first"}));
  EXPECT_EQ(quor_users().front().last_activity, 1000);
  ASSERT_EQ(quor_users_save(), 0);
  EXPECT_EQ(save_file(), original);

  // An empty table leaves no file; loading without one is not an error.
  quor_users().clear();
  ASSERT_EQ(quor_users_save(), 0);
  EXPECT_FALSE(saved());
  EXPECT_EQ(quor_users_load(), 0);
  EXPECT_TRUE(quor_users().empty());
}

TEST_F(UserTableTest, OverlongAndDamagedRecords) {
  add(std::string(1000, 'x'), "n");  // cannot be saved: left out
  add("kept", "n");
  ASSERT_EQ(quor_users_save(), 0);
  std::string file = save_file();
  EXPECT_EQ(file.find("xxx"), std::string::npos);
  ASSERT_EQ(file.substr(0, 4), std::string(" 21") + '\0');

  // A record cut short: the entries before it stay, the load fails.
  std::ofstream(dir_.path() / "tmp/quor.sav", std::ios::binary) << file << file.substr(0, 10);
  quor_users().clear();
  EXPECT_EQ(quor_users_load(), 5);
  EXPECT_EQ(quor_users().size(), 1u);
  // A payload without its five strings.
  std::string broken = std::string("  3") + '\0' + "abc";
  std::ofstream(dir_.path() / "tmp/quor.sav", std::ios::binary) << broken;
  quor_users().clear();
  EXPECT_EQ(quor_users_load(), 1);
}

TEST_F(UserTableTest, LookupRules) {
  // A login in progress is never returned and never duplicated.
  add("pend", "n", 0);
  EXPECT_EQ(quor_user_find(header("pend", "n"), false), nullptr);
  EXPECT_EQ(quor_users().size(), 1u);
  // Unknown pairs: nothing, or a new pending entry when creation is allowed.
  EXPECT_EQ(quor_user_find(header("new", "n"), true), nullptr);
  UserEntry* created = quor_user_find(header("new", "n"), false);
  ASSERT_NE(created, nullptr);
  EXPECT_EQ(created->last_activity, 0);
  EXPECT_EQ(quor_user_find(header("New", "n"), true), nullptr) << "names compare exactly";

  // Without a time-out: a login pid of 0 is returned unprobed; a gone login
  // process removes the entry.
  UserEntry& no_pid = add("nopid", "n");
  EXPECT_EQ(quor_user_find(header("nopid", "n"), true), &no_pid);
  pid_t gone = fork();
  if (gone == 0) _exit(0);
  waitpid(gone, nullptr, 0);
  add("gone", "n").login_pid = gone;
  EXPECT_EQ(quor_user_find(header("gone", "n"), true), nullptr);
  EXPECT_EQ(quor_user_count(), 3);

  // With a time-out of a minute: 60 s idle is kept, 61 s is logged out.
  quor_config().login_timeout = 60;
  std::time_t now = std::time(nullptr);
  UserEntry& recent = add("recent", "n", now - 60);
  add("idle", "n", now - 61);
  EXPECT_EQ(quor_user_find(header("recent", "n"), true), &recent);
  EXPECT_EQ(quor_user_find(header("idle", "n"), true), nullptr);
  EXPECT_EQ(quor_user_count(), 4);
}

}  // namespace
