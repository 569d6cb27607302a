#include "quoraccess.h"

#include <unistd.h>

#include <charconv>

#include "quorconfig.h"
#include "quorderr.h"
#include "quortev.h"

ClientId quor_client_of(const TevInquiry& sender) {
  ClientId client;
  if (!sender.valid) return client;
  client.known = true;
  client.host = sender.host;
  if (client.host.empty()) client.uid = sender.uid;
  return client;
}

bool quor_client_trusted(const ClientId& client) {
  return client.local() && (client.uid == 0 || client.uid == geteuid());
}

std::string quor_client_text(const ClientId& client) {
  if (!client.known) return "unknown";
  if (!client.host.empty()) return "host " + client.host;
  return "uid " + std::to_string(static_cast<unsigned long>(client.uid));
}

std::optional<ClientId> quor_client_parse(std::string_view text) {
  ClientId client;
  if (text == "unknown") return client;
  client.known = true;
  if (text.starts_with("host ") && text.size() > 5) {
    client.host = std::string(text.substr(5));
    return client;
  }
  if (!text.starts_with("uid ")) return std::nullopt;
  text.remove_prefix(4);
  unsigned long uid = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), uid);
  if (ec != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  client.uid = static_cast<uid_t>(uid);
  return client;
}

bool quor_client_may_use(const ClientId& owner, const ClientId& client) {
  return quor_client_trusted(client) || (client.known && client == owner);
}

bool quor_control_permitted(char type, ConnRecord& conn) {
  ClientId client = quor_client_of(conn.inquiry);
  if (quor_client_trusted(client) || (client.known && quor_admin_node(client.host))) return true;
  std::string what = std::string(1, type) + " request from " + quor_client_text(client);
  quor_msg_log(304, 2, what);
  quor_error_reply(1, quor_msg_text(304, 2, what), conn);
  return false;
}

bool quor_node_claim_permitted(std::string_view claimed_node, ConnRecord& conn) {
  const std::string& host = conn.inquiry.host;
  if (!conn.inquiry.valid || host.empty() || claimed_node == host) return true;
  std::string what = host + " (NOD " + std::string(claimed_node) + ")";
  quor_msg_log(313, 2, what);
  quor_error_reply(1, quor_msg_text(313, 2, what), conn);
  return false;
}
