#include "ctl_request.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "quortev.h"
#include "quortran.h"
#include "quortrl.h"
#include "quorutl.h"
#include "tev_client.h"

namespace {

std::string seconds(int ms) {
  char text[32];
  std::snprintf(text, sizeof text, "%g s", ms / 1000.0);
  return text;
}

}  // namespace

CtlRequest ctl_build_request(std::string_view type, std::optional<std::string_view> path) {
  std::array<char, BUFFER_MAX> buf{};
  OutBuf out(buf);
  tran_header_put(type, "N", out);
  if (path) {
    std::size_t field = buf_begin_segment(out, "ZZZFIL");
    buf_add_item(out, *path);
    buf_end_segment(out, field);
  }
  quor_trl_put("N", out);
  return ctl_request_from(out);
}

char ctl_request_type(const std::vector<char>& plain) {
  static constexpr std::string_view names[] = {"COD"};
  std::string_view values[1];
  if (!buf_read_segment(plain, kTranTag, values, names) || values[0].empty()) return '\0';
  return values[0].front();
}

namespace {

// The replies of a transport exchange, decoded, and its failure named.
CtlExchange exchange_result(const CtlTarget& target, const TevCallResult& r) {
  CtlExchange ex;
  for (const TevReply& reply : r.replies) {
    CtlLoaded loaded = ctl_load(std::span<const char>(reinterpret_cast<const char*>(reply.payload.data()),
                                                      reply.payload.size()),
                                CtlForm::Wire);
    ex.replies.push_back(CtlReply{reply.kind == kTevKindConv, reply.sender, std::move(loaded.decoded), reply.node});
  }
  if (r.rc == 0) return ex;
  if (r.fb.FB_Src == kTevSrcNoRcvr) {
    ex.failure = CtlFailure::NotRunning;
    ex.error = "daemon not running (no receiver at " + target.server + ")";
  } else if (r.fb.FB_Src == kTevSrcRtmOut) {
    ex.failure = CtlFailure::NoReply;
    ex.error = ex.replies.empty()
                   ? "no reply from " + target.server + " within " + seconds(target.timeout_ms)
                   : "reply from " + target.server + " stopped after " +
                         std::to_string(ex.replies.size()) + " partial buffer(s): nothing more within " +
                         seconds(target.timeout_ms);
  } else {
    ex.failure = CtlFailure::Transport;
    ex.error = "transport error talking to " + target.server + ": " + r.fb.FB_ErrorText;
  }
  return ex;
}

CtlExchange failure(CtlFailure f, std::string error) {
  CtlExchange ex;
  ex.failure = f;
  ex.error = std::move(error);
  return ex;
}

}  // namespace

CtlExchange ctl_exchange(const CtlTarget& target, std::vector<char> plain, bool expect_reply) {
  if (quor_wire_seal(plain, plain.size()) != 0)
    return failure(CtlFailure::Request, "a request of " + std::to_string(plain.size()) + " bytes is outside 7.." +
                                            std::to_string(BUFFER_MAX));
  TevClient client;
  client.set_server_node(target.node);
  if (!client.ok())
    return failure(CtlFailure::Register, "cannot register with the transport in " + tev_directory() + ": " +
                                             client.feedback().FB_ErrorText);
  return exchange_result(target, client.call(target.server, std::vector<std::uint8_t>(plain.begin(), plain.end()),
                                             target.timeout_ms, expect_reply));
}

CtlExchange ctl_exchange_everywhere(const CtlTarget& target, std::vector<char> plain, int window_ms) {
  if (quor_wire_seal(plain, plain.size()) != 0) return failure(CtlFailure::Request, "the request is too long");
  TevClient client;
  if (!client.ok())
    return failure(CtlFailure::Register, "cannot register with the transport in " + tev_directory() + ": " +
                                             client.feedback().FB_ErrorText);
  return exchange_result(target, client.call_everywhere(target.server,
                                                        std::vector<std::uint8_t>(plain.begin(), plain.end()),
                                                        window_ms));
}

CtlTransaction::CtlTransaction(const CtlTarget& target) : target_(target) {
  client_.set_server_node(target.node);
  if (!client_.ok())
    failure_ = ::failure(CtlFailure::Register, "cannot register with the transport in " + tev_directory() + ": " +
                                                 client_.feedback().FB_ErrorText);
  else if (target.root_server)
    client_.require_root_peers();
}

bool CtlTransaction::send(std::span<char> plain) {
  if (!failure_.ok()) return false;
  if (quor_wire_seal(plain, plain.size()) != 0) {
    failure_ = ::failure(CtlFailure::Request, "a request buffer is too long");
    return false;
  }
  // Sent from where it was built: no reply is awaited here, so the
  // conversation id only has to be one of this registration's.
  TevIdentity remote = client_.server_identity(target_.server);
  TevCallResult sent;
  sent.rc = TevSend(sent.fb, client_.identity(), remote, plain.data(), plain.size(), kTevModeNormal, 1);
  if (sent.rc != 0) failure_ = exchange_result(target_, sent);
  return failure_.ok();
}

CtlExchange CtlTransaction::answer(const std::function<void()>& waiting) {
  if (!failure_.ok()) return failure_;
  if (waiting) waiting();
  return exchange_result(target_, client_.wait_reply(target_.timeout_ms));
}
