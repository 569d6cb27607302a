#include "ctl_decode.h"

#include <cstdio>

#include "quortev.h"
#include "quortran.h"

namespace {

std::string at_offset(std::size_t offset, const std::string& what) {
  return "offset " + std::to_string(offset) + ": " + what;
}

}  // namespace

CtlDecoded ctl_decode(std::span<const char> plain) {
  CtlDecoded d;
  if (plain.size() < LENGTH_PREFIX) {
    d.problems.push_back("buffer of " + std::to_string(plain.size()) +
                         " bytes is shorter than the length prefix");
    return d;
  }
  d.prefix = buf_decimal(std::string_view(plain.data(), LENGTH_PREFIX));
  if (d.prefix != static_cast<long>(plain.size()))
    d.problems.push_back("length prefix says " + std::to_string(d.prefix) + " but the buffer has " +
                         std::to_string(plain.size()) + " bytes");
  std::size_t at = LENGTH_PREFIX;
  while (at < plain.size()) {
    auto tag = buf_string(plain, at);
    if (!tag) {
      d.problems.push_back(at_offset(at, "tag runs off the end of the buffer"));
      return d;
    }
    if (*tag == kEndOfData) {
      d.end_of_data = true;
      return d;
    }
    CtlSegment seg;
    seg.tag = std::string(*tag);
    seg.offset = at;
    std::size_t mark = at + tag->size() + 1;
    auto len_mark = buf_string(plain, mark);
    if (!len_mark || *len_mark != kLengthMark) {
      d.problems.push_back(at_offset(mark, "expected ZZZLEN after tag \"" + ctl_escape(*tag) + "\""));
      return d;
    }
    std::size_t field = mark + kLengthMark.size() + 1;
    auto length_text = buf_string(plain, field);
    if (!length_text) {
      d.problems.push_back(at_offset(field, "segment length runs off the end of the buffer"));
      return d;
    }
    seg.declared_length = buf_decimal(*length_text);
    std::size_t item = field + 6;
    while (true) {
      auto s = buf_string(plain, item);
      if (!s) {
        d.problems.push_back(at_offset(item, "string in segment " + seg.tag +
                                                 " runs off the end of the buffer"));
        d.segments.push_back(std::move(seg));
        return d;
      }
      item += s->size() + 1;
      if (*s == kEndOfSegment) {
        seg.closed = true;
        break;
      }
      seg.strings.emplace_back(*s);
    }
    long actual = static_cast<long>(item - field);
    if (seg.declared_length != actual)
      d.problems.push_back(at_offset(field, "segment " + seg.tag + " declares length " +
                                                std::to_string(seg.declared_length) + ", has " +
                                                std::to_string(actual)));
    d.segments.push_back(std::move(seg));
    at = item;
  }
  d.problems.push_back("no ZZZEOD at the end");
  return d;
}

bool ctl_unwire(std::vector<char>& bytes) {
  std::vector<char> copy = bytes;
  std::size_t total = quor_wire_open(copy, copy.size());
  if (total == 0) return false;
  copy.resize(total);
  bytes.swap(copy);
  return true;
}

bool ctl_is_pair_segment(std::string_view tag) {
  for (std::string_view t : {"ZZZTRN", "ZZZHDR", "ZZZTRL", "ZZZRET", "ZZZENV", "ZZZCMD"})
    if (t == tag) return true;
  return false;
}

const CtlSegment* ctl_find(const CtlDecoded& d, std::string_view tag) {
  for (const auto& s : d.segments)
    if (s.tag == tag) return &s;
  return nullptr;
}

std::string ctl_item(const CtlSegment& s, std::string_view name) {
  std::string value;
  for (std::size_t i = 0; i + 1 < s.strings.size(); i += 2)
    if (s.strings[i] == name) value = s.strings[i + 1];  // the later one counts
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
    if (c == '"' || c == '\\') {
      out.push_back('\\');
      out.push_back(static_cast<char>(c));
    } else if (c == '\n') {
      out += "\\n";
    } else if (c < 0x20 || c >= 0x7F) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\u%04X", c);
      out += hex;
    } else {
      out.push_back(static_cast<char>(c));
    }
  }
  return out + "\"";
}

std::string ctl_format(const CtlDecoded& d) {
  std::string out = "length " + std::to_string(d.prefix) + "\n";
  for (const auto& s : d.segments) {
    out += ctl_escape(s.tag) + " (length " + std::to_string(s.declared_length) + ")\n";
    if (ctl_is_pair_segment(s.tag)) {
      for (std::size_t i = 0; i < s.strings.size(); i += 2) {
        out += "  " + ctl_escape(s.strings[i]) + " = ";
        out += i + 1 < s.strings.size() ? "\"" + ctl_escape(s.strings[i + 1]) + "\"" : "(missing)";
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
  std::string out = "{\"length\":" + std::to_string(d.prefix) + ",\"segments\":[";
  for (std::size_t n = 0; n < d.segments.size(); ++n) {
    const auto& s = d.segments[n];
    if (n) out += ",";
    out += "{\"tag\":" + ctl_json_string(s.tag) + ",\"length\":" + std::to_string(s.declared_length);
    if (ctl_is_pair_segment(s.tag)) {
      out += ",\"items\":[";
      for (std::size_t i = 0; i < s.strings.size(); i += 2) {
        if (i) out += ",";
        out += "[" + ctl_json_string(s.strings[i]) + "," +
               (i + 1 < s.strings.size() ? ctl_json_string(s.strings[i + 1]) : "null") + "]";
      }
      out += "]}";
    } else {
      out += ",\"strings\":[";
      for (std::size_t i = 0; i < s.strings.size(); ++i)
        out += (i ? "," : "") + ctl_json_string(s.strings[i]);
      out += "]}";
    }
  }
  out += "],\"end_of_data\":" + std::string(d.end_of_data ? "true" : "false") + ",\"problems\":[";
  for (std::size_t i = 0; i < d.problems.size(); ++i)
    out += (i ? "," : "") + ctl_json_string(d.problems[i]);
  return out + "]}";
}
