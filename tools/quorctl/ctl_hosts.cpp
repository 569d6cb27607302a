// quorctl hosts: which daemons answer, on this host and across the broker.
#include <algorithm>
#include <string>
#include <vector>

#include "ctl_commands.h"
#include "ctl_text.h"

namespace {

struct HostLine {
  std::string node, name, pid, started;
};

// The text after `marker` in `line` up to `end` (or the line's end).
std::string after(const std::string& line, std::string_view marker, std::string_view end = {}) {
  std::size_t at = line.find(marker);
  if (at == std::string::npos) return {};
  at += marker.size();
  std::size_t stop = end.empty() ? std::string::npos : line.find(end, at);
  std::string text = line.substr(at, stop == std::string::npos ? std::string::npos : stop - at);
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

// The daemon's pid and start time from its brief status report:
// "Status of quordaemon, pid=N, on ..." and "Daemon started at ...".
HostLine host_line(const CtlReply& reply) {
  HostLine h{reply.node, reply.sender, "?", "?"};
  for (const CtlSegment& s : reply.decoded.segments) {
    if (s.tag != "ZZZSTS") continue;
    for (const std::string& line : s.strings) {
      if (std::string pid = after(line, "pid=", ","); !pid.empty()) h.pid = pid;
      if (std::string started = after(line, "Daemon started at "); !started.empty()) h.started = started;
    }
  }
  return h;
}

}  // namespace

CtlOutcome ctl_hosts(const CtlTarget& target, int window_ms, bool json) {
  CtlExchange ex = ctl_exchange_everywhere(target, ctl_build_request("B").bytes, window_ms);
  CtlOutcome o;
  if (!ex.ok()) {
    o.status = ex.failure == CtlFailure::NotRunning ? kCtlNotRunning : kCtlFailed;
    o.error = ex.error;
    return o;
  }
  std::vector<HostLine> hosts;
  for (const CtlReply& reply : ex.replies) hosts.push_back(host_line(reply));
  std::sort(hosts.begin(), hosts.end(), [](const HostLine& a, const HostLine& b) { return a.node < b.node; });
  if (json) {
    o.out = "[";
    for (std::size_t i = 0; i < hosts.size(); ++i)
      o.out += std::string(i ? "," : "") + "{\"node\":" + ctl_json_string(hosts[i].node) +
               ",\"name\":" + ctl_json_string(hosts[i].name) + ",\"pid\":" + ctl_json_string(hosts[i].pid) +
               ",\"started\":" + ctl_json_string(hosts[i].started) + "}";
    o.out += "]\n";
    return o;
  }
  for (const HostLine& h : hosts) o.out += h.node + "  " + h.name + "  pid " + h.pid + "  started " + h.started + "\n";
  if (hosts.empty()) {
    o.status = kCtlNoReply;
    o.error = "no daemon answered within " + std::to_string(window_ms) + " ms";
  }
  return o;
}
