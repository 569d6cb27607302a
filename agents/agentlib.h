// What every agent does with the daemon's hand-over: take the shared-memory
// segment, take on an account, answer the client, report a login.
#pragma once

#include <sys/types.h>

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "quorsmc.h"
#include "quortev.h"

// The request as the daemon handed it over.
struct AgentRequest {
  std::string segment;  // the whole segment, copied out

  std::span<const char> record() const { return std::span<const char>(segment).subspan(kRecordOffset); }
  std::string field(SmcField f) const { return std::string(smc_get(record(), f)); }
  // The value of the selection entry named `name`, empty when there is none.
  std::string selection(std::string_view name) const;
};

// Copies the segment `id` out and removes it, as its new owner must. False
// when it cannot be attached.
bool agent_take_request(int id, AgentRequest& request);

// Takes on the account's supplementary groups, group and user, and makes
// sure root cannot be taken back. False when any step fails.
bool agent_become(const std::string& account);

// Reads and removes a file the daemon made for this agent (a command or
// data file): only a regular file of this process's own user, reached
// without a symbolic link, is read or removed. False when `path` is not
// such a file.
bool agent_take_file(const std::string& path, std::string& text);

// Who sent the request, as the daemon learnt it from the transport (its
// QUOR_CLIENT_* environment entries): a local client's uid, or the node of
// a client on another host.
struct AgentClient {
  std::optional<uid_t> uid;  // a local client's kernel uid
  std::string host;          // a remote client's verified node
};
AgentClient agent_client();

// A registration for answering the client who sent the request. Open it
// while still root if the agent drops its rights later.
class AgentAnswer {
 public:
  bool open(const AgentRequest& request, std::string_view name);
  ~AgentAnswer();
  // Sends the answer: the lines of `output` as "ZZZLST" items (in several
  // buffers when long), then "ZZZRET" with `rc` and `message`. 0 when sent.
  int send(const std::string& output, long rc, const std::string& message);

 private:
  ConnRecord conn_;
  bool registered_ = false;
};

// Sends the daemon a LOGININFO request naming this process and `account`
// with its group `gid`. 0 when sent.
int agent_report_login(const std::string& account, const std::string& gid);
