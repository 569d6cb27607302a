#include "tev_client.h"

#include <unistd.h>

#include <chrono>


TevClient::TevClient(std::string name) {
  if (name.empty()) name = "QUORCTL." + std::to_string(static_cast<long>(getpid()));
  id_.set_app_name(name);
  registered_ = TevInit(fb_, id_, kTevModeNormal) == 0;
  if (registered_) id_ = fb_.FB_Local_Id;
}

TevClient::~TevClient() {
  if (registered_) TevTerm(fb_, id_, kTevModeNormal);
}

TevCallResult TevClient::call(std::string_view server, const std::vector<std::uint8_t>& payload,
                              int timeout_ms, bool expect_reply) {
  TevCallResult result;
  if (!registered_) {
    result.rc = 1;
    result.fb = fb_;
    return result;
  }
  TevIdentity remote = server_identity(server);
  std::uint32_t conversation = next_conv_++;
  if (next_conv_ == 0) next_conv_ = 1;

  TevFeedback fb;
  if (TevSend(fb, id_, remote, payload.data(), payload.size(), kTevModeNormal, conversation) != 0) {
    result.rc = 1;
    result.fb = fb;
    return result;
  }
  if (!expect_reply) return result;
  collect(result, timeout_ms, conversation);
  return result;
}

TevIdentity TevClient::server_identity(std::string_view server) const {
  TevIdentity remote;
  remote.set_system_id(server_node_.empty() ? tev_node_name() : server_node_);
  remote.set_app_name(server);
  return remote;
}

TevCallResult TevClient::wait_reply(int timeout_ms) {
  TevCallResult result;
  if (!registered_) {
    result.rc = 1;
    result.fb = fb_;
    return result;
  }
  collect(result, timeout_ms, std::nullopt);
  return result;
}

void TevClient::collect(TevCallResult& result, int timeout_ms, std::optional<std::uint32_t> conversation) {
  std::vector<std::uint8_t> buffer(kTevMaxPayload);
  for (;;) {
    TevIdentity sender;
    TevInquiry inquiry;
    TevFeedback fb;
    if (TevRecvTimed(fb, id_, sender, buffer.data(), buffer.size(), inquiry, timeout_ms) != 0) {
      if (fb.FB_Src == kTevSrcRcvCnc) continue;
      result.rc = 1;
      result.fb = fb;
      return;
    }
    std::uint8_t kind = fb.FB_InKind;
    std::uint32_t in_conversation = fb.FB_InConversId;
    if (kind == kTevKindConv) {
      TevFeedback answer_fb;
      TevAnswer(answer_fb, id_, sender, in_conversation, "OK");
    } else if (conversation && in_conversation != *conversation) {
      continue;  // a late reply to an earlier request
    }
    result.replies.push_back(TevReply{kind, std::string(sender.app_name()), std::string(sender.system_id()),
                                      std::vector<std::uint8_t>(buffer.begin(),
                                                                buffer.begin() + fb.FB_DataLen)});
    if (kind == kTevKindData) return;
  }
}

TevCallResult TevClient::call_everywhere(std::string_view server, const std::vector<std::uint8_t>& payload,
                                         int window_ms) {
  TevCallResult result;
  if (!registered_) {
    result.rc = 1;
    result.fb = fb_;
    return result;
  }
  std::uint32_t conversation = next_conv_++;
  if (next_conv_ == 0) next_conv_ = 1;
  bool sent = false;
  const std::string here = tev_node_name();
  for (std::string_view node : {std::string_view(here), kTevEveryNode}) {
    if (node == kTevEveryNode && !tev_broker_configured()) continue;
    TevIdentity remote;
    remote.set_system_id(node);
    remote.set_app_name(server);
    TevFeedback fb;
    if (TevSend(fb, id_, remote, payload.data(), payload.size(), kTevModeNormal, conversation) == 0)
      sent = true;
    else
      result.fb = fb;
  }
  if (!sent) {
    result.rc = 1;
    return result;
  }
  std::vector<std::uint8_t> buffer(kTevMaxPayload);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(window_ms);
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return result;
    TevIdentity sender;
    TevInquiry inquiry;
    TevFeedback fb;
    if (TevRecvTimed(fb, id_, sender, buffer.data(), buffer.size(), inquiry, static_cast<int>(left.count())) != 0) {
      if (fb.FB_Src == kTevSrcRcvCnc || fb.FB_Src == kTevSrcRtmOut) continue;
      result.rc = 1;
      result.fb = fb;
      return result;
    }
    if (fb.FB_InKind == kTevKindConv) {
      TevFeedback answer_fb;
      TevAnswer(answer_fb, id_, sender, fb.FB_InConversId, "OK");
      continue;
    }
    if (fb.FB_InConversId != conversation) continue;
    result.replies.push_back(TevReply{fb.FB_InKind, std::string(sender.app_name()), std::string(sender.system_id()),
                                      std::vector<std::uint8_t>(buffer.begin(), buffer.begin() + fb.FB_DataLen)});
  }
}
