// Building requests for quorctl, from a message type or from the raw text
// form, and exchanging them with the daemon.
//
// The raw text form, one directive per line ('#' starts a comment line):
//
//   header T            a transaction header of type T for this process
//                       (T may be empty: "header")
//   segment ZZZXXX      open a segment
//   item NAME VALUE     a name/value item (VALUE may be empty)
//   string TEXT         a bare string (bodies such as a configuration path)
//   end                 close the open segment
//   trailer Y|N         the trailer segment, then ZZZEOD
//   eod                 ZZZEOD alone
//
// Values and texts take C escapes: \n \t \r \\ \0 and \xNN. A message must
// not exceed 32767 bytes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ctl_decode.h"

// A plain request buffer (prefix not yet written) and its length.
struct CtlRequest {
  std::vector<char> bytes;
  std::string error;  // set when the request could not be built
};

// Header of `type`, optional "ZZZFIL" segment holding `path`, trailer "N".
CtlRequest ctl_build_request(std::string_view type, std::optional<std::string_view> path = {});

// The raw text form; errors name the line.
CtlRequest ctl_parse_text(std::string_view text);

// The outcome of one exchange with the daemon.
struct CtlExchange {
  bool ok = false;
  std::string error;                  // one line, when !ok
  std::vector<CtlDecoded> replies;    // decoded reply buffers, in order
  std::vector<std::string> kinds;     // "CONV" or "DATA" for each
  std::vector<std::string> senders;
};

// Sends `request` (plain; it is sealed here) to `server`; collects and
// decodes the replies when `expect_reply`.
CtlExchange ctl_exchange(std::string_view server, CtlRequest request, int timeout_ms,
                         bool expect_reply);
