// Who a client is, as the owners file keeps it, and what that identity may do.
#include <gtest/gtest.h>
#include <unistd.h>

#include "quoraccess.h"

TEST(ClientIdentity, TextReadsBackAndDecidesTrustAndUse) {
  const ClientId user{true, 1000, ""}, other{true, 1001, ""}, root{true, 0, ""}, self{true, geteuid(), ""},
      remote{true, static_cast<uid_t>(-1), "far"}, remote_root{true, 0, "far"}, unknown{};
  for (const ClientId& c : {user, root, remote, unknown}) EXPECT_EQ(quor_client_parse(quor_client_text(c)), c);
  EXPECT_EQ(quor_client_text(user) + "," + quor_client_text(remote), "uid 1000,host far");
  for (const char* bad : {"uid", "uid x", "uid 12x", "uid -1", "host ", "nobody", ""})
    EXPECT_FALSE(quor_client_parse(bad)) << bad;

  EXPECT_TRUE(quor_client_trusted(root) && quor_client_trusted(self));
  EXPECT_FALSE(quor_client_trusted(remote_root) || quor_client_trusted(unknown));
  EXPECT_TRUE(quor_client_may_use(user, user) && quor_client_may_use(user, root));
  EXPECT_FALSE(quor_client_may_use(user, other) || quor_client_may_use(unknown, unknown) ||
               quor_client_may_use(user, remote));
}
