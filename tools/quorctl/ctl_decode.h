// Decoding and printing of message buffers for quorctl: every segment with
// its tag, declared length and strings, and a precise account of where a
// damaged buffer stops making sense. Reads only the bytes it is given.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct CtlSegment {
  std::string tag;
  long declared_length = 0;          // as written in the length field
  std::size_t offset = 0;            // of the tag
  std::vector<std::string> strings;  // the body, up to ZZZEOS
  bool closed = false;               // ZZZEOS was found
};

struct CtlDecoded {
  long prefix = 0;                   // the length prefix as written
  std::vector<CtlSegment> segments;
  bool end_of_data = false;          // ZZZEOD was reached
  std::vector<std::string> problems; // framing errors, each with its offset
};

// Decodes a plain (not scrambled) buffer, length prefix included.
CtlDecoded ctl_decode(std::span<const char> plain);

// Undoes the wire scramble in place when the prefix allows it; returns false
// (leaving the bytes alone) when the prefix is unusable for `bytes`.
bool ctl_unwire(std::vector<char>& bytes);

// Segments whose bodies are name/value pairs; the others (report lines, a
// path) are lists of strings.
bool ctl_is_pair_segment(std::string_view tag);

// The first segment with `tag`, or null.
const CtlSegment* ctl_find(const CtlDecoded& d, std::string_view tag);
// The value of item `name` in a pair segment ("" when absent).
std::string ctl_item(const CtlSegment& s, std::string_view name);

// Text with non-printing bytes escaped: \n \t \r \\ and \xNN.
std::string ctl_escape(std::string_view text);
// A JSON string literal (bytes above 0x7F are taken as Latin-1).
std::string ctl_json_string(std::string_view text);

// Human-readable and JSON renderings of a decoded buffer.
std::string ctl_format(const CtlDecoded& d);
std::string ctl_format_json(const CtlDecoded& d);
