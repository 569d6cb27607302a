// Who sent a request, and what that sender may do.
//
// A request's "USR", "NOD" and "PID" are what the client claims; they label
// a session or a transaction but prove nothing. Who sent a request is what
// the transport established: for a local client the kernel's uid of the
// sending process, for a client on another host the node the broker
// verified. Everything the daemon grants is decided on that identity:
//
//   - a trusted client (local root, or the account the daemon itself runs
//     under) may control the daemon and may use any user's session: it is
//     the operator, or a gateway that authenticated its own clients;
//   - a session belongs to the client that logged it in, and only that
//     client (or a trusted one) may use it;
//   - every client holds a bounded number of unfinished transactions,
//     running agents and sessions (limits below).
#pragma once

#include <sys/types.h>

#include <compare>
#include <optional>
#include <string>
#include <string_view>

struct ConnRecord;
struct TevInquiry;

struct ClientId {
  bool known = false;                 // the transport said who sent it
  uid_t uid = static_cast<uid_t>(-1); // a local sender's kernel uid
  std::string host;                   // a remote sender's verified node; empty for a local one

  bool local() const { return known && host.empty(); }
  friend auto operator<=>(const ClientId&, const ClientId&) = default;
};

// The sender of the message whose inquiry handle is `sender`.
ClientId quor_client_of(const TevInquiry& sender);

// Local uid 0, or the account the daemon runs under.
bool quor_client_trusted(const ClientId& client);

// "uid 1000", "host NAME" or "unknown", for the log and the owners file;
// quor_client_parse reads it back.
std::string quor_client_text(const ClientId& client);
std::optional<ClientId> quor_client_parse(std::string_view text);

// Whether `client` may act in a session that `owner` logged in.
bool quor_client_may_use(const ClientId& owner, const ClientId& client);

// TERMINATE, KILLALL, REFRESH and CLEANUP come only from trusted clients,
// or from clients on a host listed in ADMIN_NODES. For anybody else the
// request is answered with an error reply, logged, and false returned.
bool quor_control_permitted(char type, ConnRecord& conn);

// A client on another host may name only its own node in a request's "NOD"
// (sessions are kept by user and node). A request that names another is
// answered with an error reply, logged, and false returned.
bool quor_node_claim_permitted(std::string_view claimed_node, ConnRecord& conn);

// What one client may hold at a time. A trusted client may be a gateway
// relaying for many users, so its limit on unfinished transactions is high
// and it has none on agents and sessions.
inline constexpr int kPendingPerClient = 16;
inline constexpr int kPendingPerTrustedClient = 1024;
inline constexpr int kPendingTotal = 2048;
inline constexpr int kAgentsPerClient = 256;
inline constexpr int kSessionsPerClient = 64;

// An unfinished transaction whose next buffer has not come for this long is
// dropped with its segment and files.
inline constexpr int kPendingExpirySeconds = 60;
