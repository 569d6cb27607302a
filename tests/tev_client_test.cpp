// The client helper: a request answered with partial buffers, a server that
// never answers, and no server at all.
#include <gtest/gtest.h>

#include <array>
#include <filesystem>

#include "core_util.h"
#include "tev_client.h"

using testutil::EnvGuard;
using testutil::TempDir;

TEST(TevClientCall, CollectsPartialBuffersAnsweringEachThenTheLastReply) {
  TempDir dir;
  EnvGuard env("TEV_DIR", dir.str());
  TevIdentity server;
  server.set_app_name("HELPER.SRV");
  TevFeedback fb;
  ASSERT_EQ(TevInit(fb, server, kTevModeNormal), 0);
  testutil::Child child([&] {
    std::array<char, 256> buf{};
    TevIdentity client;
    TevInquiry inq;
    if (TevRecv(fb, server, client, buf.data(), buf.size(), kTevModeRecvAny, inq) != 0) return 1;
    std::uint32_t request = fb.FB_InConversId;
    TevIdentity partial;
    partial.set_app_name("HELPER.PART");
    TevFeedback pfb;
    if (TevInit(pfb, partial, kTevModeNormal) != 0) return 2;
    char answer[10];
    for (const char* part : {"one", "two"})
      if (Tev_Conv(pfb, partial, client, part, 3, answer, sizeof answer, kTevModeNormal, 5) != 0)
        return 3;
    TevTerm(pfb, partial, kTevModeNormal);
    return TevSend(fb, server, client, "last", 4, kTevModeNormal, request) == 0 ? 0 : 4;
  });
  TevClient client("HELPER.CLI");
  ASSERT_TRUE(client.ok());
  TevCallResult r = client.call("HELPER.SRV", {'r', 'e', 'q'}, 5000);
  ASSERT_EQ(r.rc, 0) << r.fb.FB_ErrorText;
  EXPECT_EQ(child.wait(), 0);
  ASSERT_EQ(r.replies.size(), 3u);
  std::vector<std::string> texts;
  for (auto& rep : r.replies) texts.emplace_back(rep.payload.begin(), rep.payload.end());
  EXPECT_EQ(texts, (std::vector<std::string>{"one", "two", "last"}));
  EXPECT_EQ(r.replies[0].kind, kTevKindConv);
  EXPECT_EQ(r.replies[0].sender, "HELPER.PART");
  EXPECT_EQ(r.replies[2].kind, kTevKindData);
  EXPECT_EQ(r.replies[2].sender, "HELPER.SRV");
  TevTerm(fb, server, kTevModeNormal);
}

TEST(TevClientCall, ReportsTimeOutsAndMissingServers) {
  TempDir dir;
  EnvGuard env("TEV_DIR", dir.str());
  TevClient silent("QUIET.SRV");
  TevClient client;
  ASSERT_TRUE(client.ok());
  EXPECT_EQ(client.identity().app_name(), "QUORCTL." + std::to_string(getpid()));

  TevCallResult r = client.call("QUIET.SRV", {'x'}, 200);
  EXPECT_NE(r.rc, 0);
  EXPECT_EQ(r.fb.FB_Src, kTevSrcRtmOut);

  r = client.call("NOT.THERE", {'x'}, 200);
  EXPECT_NE(r.rc, 0);
  EXPECT_EQ(r.fb.FB_Src, kTevSrcNoRcvr);
}
