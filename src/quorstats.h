// The status report: the answer to BRIEFSTATUS ('B') and FULLSTATUS ('F').
//
// The reply carries the report as text lines, one item each, in a "ZZZSTS"
// segment. The brief report describes the daemon (pid, start time,
// configuration, counts of users and transactions); the full report adds a
// line per logged-in user and per running agent and goes out as several
// buffers (partial replies) when it does not fit one.
#pragma once

#include <span>

#include "quortev.h"

inline constexpr std::string_view kStatusTag = "ZZZSTS";

// Builds the report for `type` in `buffer` and sends it to the requester.
// Returns 0 when the reply was sent, 2 when a partial send failed, or the
// transport's send result.
int quor_status_report(char type, ConnRecord& conn, std::span<char> buffer);
