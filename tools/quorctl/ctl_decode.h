// Decoding and printing of message buffers for quorctl: every segment with
// its tag, offset, declared length and strings, and a precise account of
// where a damaged buffer stops making sense. Reads only the bytes it is
// given, whatever they hold.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// How a segment body is read: name/value item pairs (the transaction header,
// the trailer, return codes, ...) or a list of bare strings (report lines,
// a configuration path).
enum class CtlBody { Pairs, Strings };

struct CtlSegment {
  std::string tag;
  std::size_t offset = 0;            // of the tag
  long declared_length = 0;          // as written in the length field
  long actual_length = 0;            // length field to end mark, as found (0 when not closed)
  CtlBody body = CtlBody::Pairs;
  std::vector<std::string> strings;  // the body, up to ZZZEOS
  bool closed = false;               // ZZZEOS was found
};

struct CtlDecoded {
  std::size_t size = 0;              // bytes decoded
  long prefix = 0;                   // the length prefix as written
  bool wire = false;                 // the body was unscrambled first
  std::vector<CtlSegment> segments;
  bool end_of_data = false;          // ZZZEOD was reached
  std::vector<std::string> problems; // framing errors, each with its offset

  bool ok() const { return problems.empty(); }
};

// Decodes a plain (unscrambled) buffer, length prefix included.
CtlDecoded ctl_decode(std::span<const char> plain);

// Undoes the wire scramble in place, with the seed the length prefix gives.
// A buffer shorter than its prefix claims (a truncated capture) has what is
// there unscrambled, so that the decoder can show how far it gets. Returns
// false, leaving the bytes alone, when the prefix is not a length in
// 7..32767.
bool ctl_unwire(std::vector<char>& bytes);

// Which form a buffer read from a file or a reply is in.
enum class CtlForm { Auto, Plain, Wire };

struct CtlLoaded {
  std::vector<char> plain;  // the bytes, unscrambled when they were in wire form
  CtlDecoded decoded;
};

// Decodes `bytes` in the given form. Auto takes the plain reading when it is
// clean, else the wire reading when that is clean, else the one whose first
// segment starts with "ZZZ" (the plain reading when both or neither do).
CtlLoaded ctl_load(std::span<const char> bytes, CtlForm form);

// The body kind of a segment with `tag`.
CtlBody ctl_body_of(std::string_view tag);

// The first segment with `tag`, or null.
const CtlSegment* ctl_find(const CtlDecoded& d, std::string_view tag);
// The value of item `name` in a pair segment (the later one when repeated),
// nothing when absent.
std::optional<std::string> ctl_item(const CtlSegment& s, std::string_view name);

// Text with non-printing bytes escaped: \n \t \r \\ and \xNN.
std::string ctl_escape(std::string_view text);
// A JSON string literal (bytes above 0x7F are taken as Latin-1).
std::string ctl_json_string(std::string_view text);

// Human-readable and JSON renderings of a decoded buffer.
std::string ctl_format(const CtlDecoded& d);
std::string ctl_format_json(const CtlDecoded& d);

// The buffer in the raw text form (see ctl_text.h), so that a captured
// buffer can be edited and sent again. What the form can state is kept
// (tags, strings, declared lengths that differ from the real ones, a missing
// ZZZEOD); the rest is repaired: a segment that is not closed gets its end
// mark, and what follows a framing error that stopped the decoder is lost.
std::string ctl_to_text(const CtlDecoded& d);
