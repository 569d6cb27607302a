// The user table: lookups, and its save file as bytes on disk.
#include <gtest/gtest.h>

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
  }
  std::filesystem::path save_file() const { return dir_.path() / "tmp/quor.sav"; }

  static UserEntry& add(std::string user, std::time_t activity = 1000) {
    return quor_user_new() = UserEntry{std::move(user), "n", "acct", "100", activity, 0, {}};
  }
  static UserEntry* find(std::string user, bool no_create = true) {
    TransactionHeader h;
    h.user = std::move(user);
    h.node = "n";
    return quor_user_find(h, no_create);
  }
  static std::vector<std::string> names() {
    std::vector<std::string> v;
    for (const UserEntry& e : quor_users()) v.push_back(e.user_name);
    return v;
  }

  TempDir dir_;
  EnvGuard root_{"MOXGLBL0000", dir_.str()};
};

// A record: its length as three characters and a NUL, then the payload
// encoded with the length's first character as seed; one too long is left out.
TEST_F(UserTableTest, SaveFileRecords) {
  for (auto [length, text] : {std::pair{99, " 99"}, {100, "100"}}) {
    quor_users().clear();
    // Strings: user, "n", "acct", "100", "1000" -> user + 1 + 2 + 5 + 4 + 5.
    std::string user(static_cast<std::size_t>(length) - 17, 'u');
    add(user);
    add(std::string(1000, 'x'));
    ASSERT_EQ(quor_users_save(), 0);
    std::string file = testutil::read_file(save_file());
    ASSERT_EQ(file.size(), 4u + static_cast<std::size_t>(length));
    EXPECT_EQ(file.substr(0, 4), std::string(text) + '\0');
    std::string payload = testutil::nul_join({user, "n", "acct", "100", "1000"});
    body_encode(text[0], std::span<char>(payload.data(), payload.size()));
    EXPECT_EQ(file.substr(4), payload) << "seed " << int(text[0]);
  }
}

// A save and a load reverse the table (new entries go first); two give back
// the same order and file. An empty table leaves no file, which loads fine.
TEST_F(UserTableTest, SavingAndLoadingReversesAndRestoresTheOrder) {
  add("first");
  add("second", 0).login_name.clear();
  add("third");
  ASSERT_EQ(quor_users_save(), 0);
  std::string original = testutil::read_file(save_file());
  quor_users().clear();
  ASSERT_EQ(quor_users_load(), 0);
  for (const UserEntry& e : quor_users()) EXPECT_EQ(e.login_pid, 0);
  ASSERT_EQ(quor_users_save(), 0);
  quor_users().clear();
  ASSERT_EQ(quor_users_load(), 0);
  EXPECT_EQ(names(), (std::vector<std::string>{"third", "second", "first"}));
  EXPECT_EQ(quor_users().front().last_activity, 1000);
  ASSERT_EQ(quor_users_save(), 0);
  EXPECT_EQ(testutil::read_file(save_file()), original);

  quor_users().clear();
  ASSERT_EQ(quor_users_save(), 0);
  EXPECT_FALSE(std::filesystem::exists(save_file()));
  EXPECT_EQ(quor_users_load(), 0);
  EXPECT_TRUE(quor_users().empty());

  // A record cut short fails (5), keeping those before it; one without its five strings fails (1).
  testutil::write_file(save_file(), original + original.substr(0, 10));
  EXPECT_EQ(quor_users_load(), 5);
  EXPECT_EQ(names(), (std::vector<std::string>{"first", "second", "third"}));
  testutil::write_file(save_file(), std::string("  3") + '\0' + "abc");
  EXPECT_EQ(quor_users_load(), 1);
}

TEST_F(UserTableTest, LookupRules) {
  // A login in progress is never returned and never duplicated.
  add("pend", 0);
  EXPECT_EQ(find("pend", false), nullptr);
  EXPECT_EQ(quor_users().size(), 1u);
  // Unknown pairs: nothing, or a new pending entry when creation is allowed.
  EXPECT_EQ(find("new"), nullptr);
  UserEntry* created = find("new", false);
  ASSERT_NE(created, nullptr);
  EXPECT_EQ(created->last_activity, 0);
  EXPECT_EQ(find("New"), nullptr) << "names compare exactly";

  // Without a time-out: a login pid of 0 is not probed; a gone one removes the entry.
  UserEntry& no_pid = add("nopid");
  EXPECT_EQ(find("nopid"), &no_pid);
  pid_t gone = fork();
  if (gone == 0) _exit(0);
  waitpid(gone, nullptr, 0);
  add("gone").login_pid = gone;
  EXPECT_EQ(find("gone"), nullptr);
  EXPECT_EQ(quor_user_count(), 3);

  // With a time-out of a minute: 60 s idle is kept, 61 s is logged out.
  quor_config().login_timeout = 60;
  std::time_t now = std::time(nullptr);
  UserEntry& recent = add("recent", now - 60);
  add("idle", now - 61);
  EXPECT_EQ(find("recent"), &recent);
  EXPECT_EQ(find("idle"), nullptr);
  EXPECT_EQ(quor_user_count(), 4);
}

}  // namespace
