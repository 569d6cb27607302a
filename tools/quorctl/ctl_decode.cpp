#include "ctl_decode.h"

#include <algorithm>
#include <cstdio>

#include "ctl_text.h"
#include "mocrypt.h"
#include "quortev.h"
#include "quortran.h"

namespace {

constexpr std::string_view kPairTags[] = {"ZZZTRN", "ZZZHDR", "ZZZTRL", "ZZZRET"};
constexpr std::string_view kStringTags[] = {"ZZZSTS", "ZZZFIL"};

std::string at_offset(std::size_t offset, const std::string& what) {
  return "offset " + std::to_string(offset) + ": " + what;
}

std::string quoted(std::string_view text) { return "\"" + ctl_escape(text) + "\""; }

// A number as "%5ld" prints one that fits: blanks, then at least one digit,
// five characters in all.
bool is_printed_length(std::string_view text) {
  if (text.size() != 5) return false;
  std::size_t i = text.find_first_not_of(' ');
  if (i == std::string_view::npos) return false;
  return std::all_of(text.begin() + static_cast<long>(i), text.end(),
                     [](char c) { return c >= '0' && c <= '9'; });
}

bool is_tag(std::string_view tag) {
  return tag.size() == 6 && tag.substr(0, 3) == "ZZZ" &&
         std::all_of(tag.begin() + 3, tag.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
}

bool is_known_pair_tag(std::string_view tag) {
  return std::find(std::begin(kPairTags), std::end(kPairTags), tag) != std::end(kPairTags);
}

void check_after_end(CtlDecoded& d, std::size_t after) {
  if (after < d.size)
    d.problems.push_back(at_offset(after, std::to_string(d.size - after) +
                                              " bytes after ZZZEOD"));
}

bool starts_with_tag(const std::vector<char>& bytes) {
  return bytes.size() >= LENGTH_PREFIX + 3 &&
         std::string_view(bytes.data() + LENGTH_PREFIX, 3) == "ZZZ";
}

}  // namespace

CtlDecoded ctl_decode(std::span<const char> buf) {
  CtlDecoded d;
  d.size = buf.size();
  if (buf.size() < LENGTH_PREFIX) {
    d.problems.push_back("buffer of " + std::to_string(buf.size()) +
                         " bytes is shorter than the 6-byte length prefix");
    return d;
  }
  std::string_view prefix(buf.data(), LENGTH_PREFIX);
  d.prefix = buf_decimal(prefix);
  if (!is_printed_length(prefix.substr(0, 5)) || prefix[5] != '\0')
    d.problems.push_back(at_offset(0, "length prefix " + quoted(prefix) +
                                          " is not a length printed in 5 characters and a NUL"));
  else if (d.prefix != static_cast<long>(buf.size()))
    d.problems.push_back(at_offset(0, "length prefix says " + std::to_string(d.prefix) +
                                          " but the buffer has " + std::to_string(buf.size()) +
                                          " bytes"));
  if (buf.size() > BUFFER_MAX)
    d.problems.push_back("buffer of " + std::to_string(buf.size()) + " bytes exceeds the " +
                         std::to_string(BUFFER_MAX) + "-byte maximum");

  std::size_t at = LENGTH_PREFIX;
  for (;;) {
    if (at >= buf.size()) {
      d.problems.push_back(at_offset(at, "buffer ends without ZZZEOD"));
      return d;
    }
    auto tag = buf_string(buf, at);
    if (!tag) {
      d.problems.push_back(at_offset(at, "tag runs off the end of the buffer (no NUL)"));
      return d;
    }
    if (*tag == kEndOfData) {
      d.end_of_data = true;
      check_after_end(d, at + kEndOfData.size() + 1);
      return d;
    }
    CtlSegment seg;
    seg.tag = std::string(*tag);
    seg.offset = at;
    seg.body = ctl_body_of(seg.tag);
    if (!is_tag(*tag))
      d.problems.push_back(at_offset(at, "tag " + quoted(*tag) +
                                             " is not ZZZ and three upper-case letters"));

    std::size_t mark = at + tag->size() + 1;
    auto length_mark = buf_string(buf, mark);
    if (!length_mark || *length_mark != kLengthMark) {
      d.problems.push_back(at_offset(
          mark, "expected ZZZLEN after tag " + quoted(*tag) + ", found " +
                    (length_mark ? quoted(*length_mark) : std::string("the end of the buffer"))));
      return d;
    }
    std::size_t field = mark + kLengthMark.size() + 1;
    auto length_text = buf_string(buf, field);
    if (!length_text) {
      d.problems.push_back(at_offset(field, "length field of segment " + seg.tag +
                                                " runs off the end of the buffer"));
      d.segments.push_back(std::move(seg));
      return d;
    }
    seg.declared_length = buf_decimal(*length_text);
    if (!is_printed_length(*length_text))
      d.problems.push_back(at_offset(field, "length field " + quoted(*length_text) +
                                                " of segment " + seg.tag +
                                                " is not a length printed in 5 characters"));

    std::size_t item = field + length_text->size() + 1;
    std::size_t last_string = item;
    for (;;) {
      auto s = buf_string(buf, item);
      if (!s) {
        d.problems.push_back(at_offset(item, "segment " + seg.tag +
                                                 " runs off the end of the buffer (no ZZZEOS)"));
        d.segments.push_back(std::move(seg));
        return d;
      }
      if (*s == kEndOfData) {
        d.problems.push_back(at_offset(item, "ZZZEOD inside segment " + seg.tag +
                                                 " (no ZZZEOS)"));
        d.segments.push_back(std::move(seg));
        d.end_of_data = true;
        check_after_end(d, item + kEndOfData.size() + 1);
        return d;
      }
      if (*s == kEndOfSegment) {
        item += kEndOfSegment.size() + 1;
        seg.closed = true;
        break;
      }
      last_string = item;
      seg.strings.emplace_back(*s);
      item += s->size() + 1;
    }
    seg.actual_length = static_cast<long>(item - field);
    if (seg.declared_length != seg.actual_length)
      d.problems.push_back(at_offset(field, "segment " + seg.tag + " declares length " +
                                                std::to_string(seg.declared_length) +
                                                ", its ZZZEOS ends " +
                                                std::to_string(seg.actual_length) +
                                                " bytes after the length field"));
    if (seg.strings.size() % 2 != 0 && is_known_pair_tag(seg.tag))
      d.problems.push_back(at_offset(last_string, "item " + quoted(seg.strings.back()) +
                                                      " of segment " + seg.tag + " has no value"));
    d.segments.push_back(std::move(seg));
    at = item;
  }
}

bool ctl_unwire(std::vector<char>& bytes) {
  if (bytes.size() < LENGTH_PREFIX) return false;
  long length = buf_decimal(std::string_view(bytes.data(), LENGTH_PREFIX));
  if (length < static_cast<long>(kMinMessage) || length > static_cast<long>(BUFFER_MAX))
    return false;
  if (quor_wire_open(bytes, bytes.size()) != 0) return true;
  // Shorter than the prefix says: the scramble runs front to back, so what
  // arrived can still be read with the seed of the full length.
  body_decode(static_cast<int>(length % 256),
              std::span<char>(bytes).subspan(LENGTH_PREFIX, bytes.size() - LENGTH_PREFIX));
  return true;
}

CtlLoaded ctl_load(std::span<const char> bytes, CtlForm form) {
  CtlLoaded plain;
  plain.plain.assign(bytes.begin(), bytes.end());
  CtlLoaded wire;
  wire.plain = plain.plain;
  bool unwired = form != CtlForm::Plain && ctl_unwire(wire.plain);

  if (form != CtlForm::Wire) {
    plain.decoded = ctl_decode(plain.plain);
    if (form == CtlForm::Plain || plain.decoded.ok() || !unwired) return plain;
  }
  if (!unwired) {
    wire.decoded.size = wire.plain.size();
    wire.decoded.wire = true;
    wire.decoded.problems.push_back(
        "the length prefix is not a length in 7.." + std::to_string(BUFFER_MAX) +
        ", so the buffer cannot be unscrambled");
    return wire;
  }
  wire.decoded = ctl_decode(wire.plain);
  wire.decoded.wire = true;
  if (form == CtlForm::Wire || wire.decoded.ok()) return wire;
  return starts_with_tag(wire.plain) && !starts_with_tag(plain.plain) ? wire : plain;
}

CtlBody ctl_body_of(std::string_view tag) {
  return std::find(std::begin(kStringTags), std::end(kStringTags), tag) != std::end(kStringTags)
             ? CtlBody::Strings
             : CtlBody::Pairs;
}

const CtlSegment* ctl_find(const CtlDecoded& d, std::string_view tag) {
  for (const auto& s : d.segments)
    if (s.tag == tag) return &s;
  return nullptr;
}

std::optional<std::string> ctl_item(const CtlSegment& s, std::string_view name) {
  std::optional<std::string> value;
  for (std::size_t i = 0; i + 1 < s.strings.size(); i += 2)
    if (s.strings[i] == name) value = s.strings[i + 1];
  return value;
}

std::string ctl_escape(std::string_view text) {
  std::string out;
  for (unsigned char c : text) {
    switch (c) {
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      case '\r': out += "\\r"; break;
      case '\\': out += "\\\\"; break;
      default:
        if (c < 0x20 || c >= 0x7F) {
          char hex[8];
          std::snprintf(hex, sizeof hex, "\\x%02X", c);
          out += hex;
        } else {
          out.push_back(static_cast<char>(c));
        }
    }
  }
  return out;
}

std::string ctl_json_string(std::string_view text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      case '\r': out += "\\r"; break;
      default:
        if (c < 0x20 || c >= 0x7F) {
          char hex[8];
          std::snprintf(hex, sizeof hex, "\\u%04X", c);
          out += hex;
        } else {
          out.push_back(static_cast<char>(c));
        }
    }
  }
  return out + "\"";
}

std::string ctl_format(const CtlDecoded& d) {
  std::string out = d.wire ? "wire buffer (unscrambled with seed " +
                                 std::to_string(((d.prefix % 256) + 256) % 256) + "), "
                           : "plain buffer, ";
  out += std::to_string(d.size) + " bytes, length prefix " + std::to_string(d.prefix) + "\n";
  for (const auto& s : d.segments) {
    out += ctl_escape(s.tag) + " at " + std::to_string(s.offset) + ", length " +
           std::to_string(s.declared_length) + (s.closed ? "" : " (not closed)") + "\n";
    if (s.body == CtlBody::Pairs) {
      for (std::size_t i = 0; i < s.strings.size(); i += 2) {
        out += "  " + ctl_escape(s.strings[i]);
        out += i + 1 < s.strings.size() ? "=" + ctl_escape(s.strings[i + 1]) : " (no value)";
        out += "\n";
      }
    } else {
      for (const auto& str : s.strings) out += "  \"" + ctl_escape(str) + "\"\n";
    }
  }
  if (d.end_of_data) out += "ZZZEOD\n";
  for (const auto& p : d.problems) out += "problem: " + p + "\n";
  return out;
}

std::string ctl_format_json(const CtlDecoded& d) {
  std::string out = "{\"form\":\"" + std::string(d.wire ? "wire" : "plain") +
                    "\",\"size\":" + std::to_string(d.size) +
                    ",\"length\":" + std::to_string(d.prefix) + ",\"segments\":[";
  for (std::size_t n = 0; n < d.segments.size(); ++n) {
    const auto& s = d.segments[n];
    if (n) out += ",";
    out += "{\"tag\":" + ctl_json_string(s.tag) + ",\"offset\":" + std::to_string(s.offset) +
           ",\"length\":" + std::to_string(s.declared_length) +
           ",\"closed\":" + (s.closed ? "true" : "false");
    if (s.body == CtlBody::Pairs) {
      out += ",\"items\":[";
      for (std::size_t i = 0; i < s.strings.size(); i += 2) {
        if (i) out += ",";
        out += "[" + ctl_json_string(s.strings[i]) + "," +
               (i + 1 < s.strings.size() ? ctl_json_string(s.strings[i + 1]) : "null") + "]";
      }
    } else {
      out += ",\"strings\":[";
      for (std::size_t i = 0; i < s.strings.size(); ++i)
        out += (i ? "," : "") + ctl_json_string(s.strings[i]);
    }
    out += "]}";
  }
  out += "],\"end_of_data\":" + std::string(d.end_of_data ? "true" : "false") + ",\"problems\":[";
  for (std::size_t i = 0; i < d.problems.size(); ++i)
    out += (i ? "," : "") + ctl_json_string(d.problems[i]);
  return out + "]}";
}

std::string ctl_to_text(const CtlDecoded& d) {
  std::string out = "# " + std::string(d.wire ? "wire" : "plain") + " buffer of " +
                    std::to_string(d.size) + " bytes" +
                    (d.ok() ? "" : ", " + std::to_string(d.problems.size()) + " problem(s)") +
                    "\n";
  for (const auto& s : d.segments) {
    out += "segment " + ctl_text_escape(s.tag, true);
    if (s.closed && s.declared_length != s.actual_length)
      out += " " + std::to_string(s.declared_length);
    out += "\n";
    for (std::size_t i = 0; i < s.strings.size(); ++i) {
      // A pair whose name the item directive can state goes out as one;
      // anything else as bare strings, which make the same bytes.
      if (s.body == CtlBody::Pairs && i % 2 == 0 && i + 1 < s.strings.size() &&
          !s.strings[i].empty()) {
        out += "item " + ctl_text_escape(s.strings[i], true) + " " +
               ctl_text_escape(s.strings[i + 1], false) + "\n";
        ++i;
      } else {
        out += "string " + ctl_text_escape(s.strings[i], false) + "\n";
      }
    }
    out += "end\n";
  }
  if (d.end_of_data) out += "eod\n";
  return out;
}
