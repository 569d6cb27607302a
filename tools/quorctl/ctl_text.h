// The raw text form: a request written by hand, one directive per line.
//
//   header [TYPE [CONT]]    a transaction header for this process: COD TYPE,
//                           ADD CONT (default "N"), and PID, NOD, USR, GID, OS
//   segment TAG [LENGTH]    open a segment; LENGTH, when given, is written as
//                           its length instead of the real one
//   item NAME [VALUE]       a name/value item (no VALUE: an empty value)
//   string [TEXT]           a bare string (report lines, a configuration path)
//   end                     close the open segment
//   trailer Y|N             the trailer segment (MD Y or N), then ZZZEOD
//   eod                     ZZZEOD alone
//
// Blank lines and lines whose first non-blank character is '#' are skipped.
// A directive and its first argument are separated by one blank or tab; the
// VALUE of an item and the TEXT of a string are the rest of the line exactly
// (leading and trailing blanks included, a final carriage return dropped).
// TAG, NAME, VALUE and TEXT take the escapes \n \t \r \\ \0 \xNN; "\0" puts
// a NUL into the buffer, which splits the string there (for making damaged
// requests on purpose). A message must fit in 32767 bytes.
#pragma once

#include "quortran.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct CtlRequest {
  std::vector<char> bytes;  // a plain buffer, length prefix written
  std::string error;        // "line N: why" when the text is not valid
};

CtlRequest ctl_parse_text(std::string_view text);

// The bytes written to `out`, with their length prefix; an error when the
// writes overflowed the buffer.
CtlRequest ctl_request_from(const OutBuf& out);

// The escapes above undone; nothing when an escape is malformed.
std::optional<std::string> ctl_text_unescape(std::string_view text);

// `text` written so that ctl_text_unescape gives it back from a directive
// line. A `word` (a tag or item name) has its blanks escaped too; a value
// only a blank at its end, which editors tend to drop.
std::string ctl_text_escape(std::string_view text, bool word);
