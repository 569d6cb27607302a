// Who a client is and what it may use, and finding transactions by client
// and by agent.
#include <gtest/gtest.h>
#include <unistd.h>

#include "core_util.h"
#include "momsg.h"
#include "quoraccess.h"
#include "quoraccount.h"
#include "quorkids.h"
#include "quorusers.h"

namespace {

TransactionHeader from(std::string pid, std::string node) {
  TransactionHeader h;
  h.pid = std::move(pid);
  h.node = std::move(node);
  return h;
}

// By client, pid (as text) and node match and the flags share a bit with
// the mask: a second first buffer makes a second transaction. By agent, the
// pid is read as a number and the node must be this host.
TEST(ChildLookup, ByClientAndByAgent) {
  ChildEntry* first = quor_child_find(from("42", "far"), kChildContinuing, false);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->flags, kChildNew);
  EXPECT_EQ(first->client_pid + first->client_node, "42far");
  EXPECT_EQ(quor_child_find(from("42", "far"), kChildContinuing, true), nullptr);
  EXPECT_EQ(quor_child_find(from("42", "far"), kChildNew, true), first);
  EXPECT_NE(quor_child_find(from("42", "far"), kChildContinuing, false), first);
  first->flags = kChildContinuing;
  EXPECT_EQ(quor_child_find(from("42", "far"), kChildContinuing, true), first);
  for (auto [pid, node] : {std::pair{"042", "far"}, {"42", "near"}})
    EXPECT_EQ(quor_child_find(from(pid, node), kChildContinuing, true), nullptr) << pid << node;
  quor_children().clear();

  const std::string local = mo_nodename();
  ChildEntry& running = quor_child_new();
  running.agent_pid = 123;
  running.flags = kChildRunning;
  ChildEntry& kept = quor_child_new();
  kept.agent_pid = 456;
  kept.flags = kChildKept;
  const std::uint32_t mask = kChildRunning | kChildKept;
  for (const char* pid : {"123", "0123", " +123"}) EXPECT_EQ(quor_child_find_agent(from(pid, local), mask), &running) << pid;
  EXPECT_EQ(quor_child_find_agent(from("456", local), mask), &kept);
  EXPECT_EQ(quor_child_find_agent(from("456", local), kChildRunning), nullptr);
  EXPECT_EQ(quor_child_find_agent(from("123", local + "x"), mask), nullptr);
  for (const char* pid : {"", "x123", "-123", "99999999999999999999"})
    EXPECT_EQ(quor_child_find_agent(from(pid, local), mask), nullptr) << pid;
  EXPECT_EQ(quor_child_count(), 2);
  quor_children().clear();
}

}  // namespace

// An account whose login shell field is empty gets /bin/sh, as login does
// (agents run with SHELL set from it); one that does not exist is not found.
TEST(Accounts, AnEmptyShellFieldMeansTheStandardShell) {
  EXPECT_FALSE(quor_account("no such account here"));
  if (geteuid() != 0) GTEST_SKIP() << "needs root to make a throw-away account";
  std::string name = "qsh" + std::to_string(getpid() % 100000);
  ASSERT_EQ(std::system(("useradd -M -N -r -s '' -d /nonexistent " + name + " >/dev/null 2>&1").c_str()), 0);
  std::optional<Account> account = quor_account(name);
  (void)!std::system(("userdel " + name + " >/dev/null 2>&1").c_str());
  ASSERT_TRUE(account);
  EXPECT_EQ(account->home + " " + account->shell, "/nonexistent /bin/sh");
}

// Who a client is, as the owners file keeps it (the round trip is the users
// fuzz target's), and what that identity may do.
TEST(ClientIdentity, TextReadsBackAndDecidesTrustAndUse) {
  const ClientId user{true, 1000, ""}, other{true, 1001, ""}, root{true, 0, ""}, self{true, geteuid(), ""},
      remote{true, static_cast<uid_t>(-1), "far"}, remote_root{true, 0, "far"}, unknown{};
  EXPECT_EQ(quor_client_text(user) + "," + quor_client_text(remote), "uid 1000,host far");
  EXPECT_EQ(quor_client_parse("uid 1000"), user);
  for (const char* bad : {"uid", "uid x", "uid 12x", "uid -1", "host ", "nobody", ""})
    EXPECT_FALSE(quor_client_parse(bad)) << bad;

  EXPECT_TRUE(quor_client_trusted(root) && quor_client_trusted(self));
  EXPECT_FALSE(quor_client_trusted(remote_root) || quor_client_trusted(unknown));
  EXPECT_TRUE(quor_client_may_use(user, user) && quor_client_may_use(user, root));
  EXPECT_FALSE(quor_client_may_use(user, other) || quor_client_may_use(unknown, unknown) ||
               quor_client_may_use(user, remote));
}

// The sessions a client holds (its limit at login) follow entries as they
// are made, before any lookup, and as they go, one by one or together.
TEST(SessionCount, FollowsEntriesAsTheyComeAndGo) {
  quor_users().clear();
  const ClientId alice{true, 1000, ""}, bob{true, 1001, ""}, far{true, static_cast<uid_t>(-1), "far"};
  std::vector<UserEntry*> made;
  for (int i = 0; i < 6; ++i) {
    made.push_back(&quor_user_new());
    *made.back() = UserEntry{"u" + std::to_string(i), "n", "", "", 0, 0, i < 3 ? alice : i < 5 ? bob : far};
  }
  auto counts = [&] { return std::vector{quor_user_count_owned(alice), quor_user_count_owned(bob), quor_user_count_owned(far)}; };
  EXPECT_EQ(counts(), (std::vector{3, 2, 1}));
  quor_user_remove_ended(made[0]);
  quor_users_remove_ended(std::span(made).subspan(3, 2));
  EXPECT_EQ(counts(), (std::vector{2, 0, 1}));
  quor_user_new().owner = bob;
  EXPECT_EQ(counts(), (std::vector{2, 1, 1}));
  quor_user_remove_ended(&quor_users().front());
  EXPECT_EQ(counts(), (std::vector{2, 0, 1}));
  quor_users().clear();
  EXPECT_EQ(counts(), (std::vector{0, 0, 0}));
}
