#include "ctl_text.h"

#include <array>
#include <cstdio>
#include <cstring>

#include "quortran.h"
#include "quortrl.h"
#include "quorutl.h"

namespace {

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Splits off the first blank-separated word of `rest`.
std::string_view next_word(std::string_view& rest) {
  std::size_t start = rest.find_first_not_of(" \t");
  if (start == std::string_view::npos) {
    rest = {};
    return {};
  }
  rest.remove_prefix(start);
  std::size_t end = rest.find_first_of(" \t");
  std::string_view word = rest.substr(0, end);
  rest.remove_prefix(end == std::string_view::npos ? rest.size() : end);
  return word;
}

bool is_blank(std::string_view s) { return s.find_first_not_of(" \t") == std::string_view::npos; }

}  // namespace

std::optional<std::string> ctl_text_unescape(std::string_view s) {
  std::string out;
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (s[i] != '\\') {
      out.push_back(s[i]);
      continue;
    }
    if (++i == s.size()) return std::nullopt;
    switch (s[i]) {
      case 'n': out.push_back('\n'); break;
      case 't': out.push_back('\t'); break;
      case 'r': out.push_back('\r'); break;
      case '0': out.push_back('\0'); break;
      case '\\': out.push_back('\\'); break;
      case 'x': {
        int hi = i + 1 < s.size() ? hex_digit(s[i + 1]) : -1;
        int lo = i + 2 < s.size() ? hex_digit(s[i + 2]) : -1;
        if (hi < 0 || lo < 0) return std::nullopt;
        out.push_back(static_cast<char>(hi * 16 + lo));
        i += 2;
        break;
      }
      default: return std::nullopt;
    }
  }
  return out;
}

std::string ctl_text_escape(std::string_view text, bool word) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    auto c = static_cast<unsigned char>(text[i]);
    bool last = i + 1 == text.size();
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c < 0x20 || c >= 0x7F || (c == ' ' && (word || last))) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02X", c);
      out += hex;
    } else {
      out.push_back(static_cast<char>(c));
    }
  }
  return out;
}

CtlRequest ctl_parse_text(std::string_view text) {
  std::array<char, BUFFER_MAX> buf{};
  OutBuf out(buf);
  bool in_segment = false;
  std::size_t length_field = 0;
  long forced_length = -1;  // a length given with 'segment', or -1
  int line_no = 0;
  auto fail = [&](const std::string& why) {
    CtlRequest r;
    r.error = "line " + std::to_string(line_no) + ": " + why;
    return r;
  };

  while (!text.empty()) {
    ++line_no;
    std::size_t nl = text.find('\n');
    std::string_view line = text.substr(0, nl);
    text.remove_prefix(nl == std::string_view::npos ? text.size() : nl + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    std::size_t start = line.find_first_not_of(" \t");
    if (start == std::string_view::npos || line[start] == '#') continue;
    line.remove_prefix(start);
    std::size_t sp = line.find_first_of(" \t");
    std::string_view word = line.substr(0, sp);
    // Everything after the one separator, for the directives that take the
    // rest of the line as it is.
    std::string_view rest = sp == std::string_view::npos ? std::string_view() : line.substr(sp + 1);
    std::string_view args = rest;

    if (word == "header") {
      if (in_segment) return fail("header inside an open segment (missing 'end')");
      auto type = ctl_text_unescape(next_word(args));
      std::string_view cont_word = next_word(args);
      auto cont = ctl_text_unescape(cont_word.empty() ? std::string_view("N") : cont_word);
      if (!type || !cont) return fail("bad escape");
      if (!is_blank(args)) return fail("header takes a type and a continuation flag");
      tran_header_put(*type, *cont, out);
    } else if (word == "segment") {
      if (in_segment) return fail("segment inside an open segment (missing 'end')");
      std::string_view tag_word = next_word(args);
      if (tag_word.empty()) return fail("segment needs a tag");
      auto tag = ctl_text_unescape(tag_word);
      if (!tag) return fail("bad escape");
      std::string_view length_word = next_word(args);
      forced_length = -1;
      if (!length_word.empty()) {
        if (length_word.size() > 5 ||
            length_word.find_first_not_of("0123456789") != std::string_view::npos)
          return fail("segment length must be a number below 100000");
        forced_length = buf_decimal(length_word);
      }
      if (!is_blank(args)) return fail("segment takes a tag and an optional length");
      buf_add_bytes(out, *tag);
      buf_add_bytes(out, kLengthMark);
      length_field = out.pos;
      buf_add_bytes(out, "00000");
      in_segment = true;
    } else if (word == "item") {
      if (!in_segment) return fail("item outside a segment");
      std::size_t gap = rest.find_first_of(" \t");
      std::string_view name_text = rest.substr(0, gap);
      if (name_text.empty()) return fail("item needs a name");
      auto name = ctl_text_unescape(name_text);
      auto value =
          ctl_text_unescape(gap == std::string_view::npos ? std::string_view() : rest.substr(gap + 1));
      if (!name || !value) return fail("bad escape");
      buf_add_bytes(out, *name);
      buf_add_bytes(out, *value);
    } else if (word == "string") {
      if (!in_segment) return fail("string outside a segment");
      auto value = ctl_text_unescape(rest);
      if (!value) return fail("bad escape");
      buf_add_bytes(out, *value);
    } else if (word == "end") {
      if (!in_segment) return fail("end without a segment");
      if (!is_blank(rest)) return fail("end takes no argument");
      buf_end_segment(out, length_field);
      if (forced_length >= 0 && !out.overflow) {
        char digits[32];
        std::snprintf(digits, sizeof digits, "%5ld", forced_length);
        std::memcpy(out.data.data() + length_field, digits, 6);
      }
      in_segment = false;
    } else if (word == "trailer") {
      if (in_segment) return fail("trailer inside an open segment (missing 'end')");
      std::string_view flag = next_word(args);
      if ((flag != "Y" && flag != "N") || !is_blank(args)) return fail("trailer takes Y or N");
      quor_trl_put(flag, out);
    } else if (word == "eod") {
      if (in_segment) return fail("eod inside an open segment (missing 'end')");
      if (!is_blank(rest)) return fail("eod takes no argument");
      buf_add_bytes(out, kEndOfData);
    } else {
      return fail("unknown directive '" + std::string(word) + "'");
    }
    if (out.overflow) return fail("request does not fit in " + std::to_string(BUFFER_MAX) + " bytes");
  }
  if (in_segment) return fail("segment not closed with 'end'");
  if (out.pos == LENGTH_PREFIX) return fail("no directives: empty request");

  return ctl_request_from(out);
}

CtlRequest ctl_request_from(const OutBuf& out) {
  CtlRequest r;
  if (out.overflow) {
    r.error = "request does not fit in " + std::to_string(BUFFER_MAX) + " bytes";
    return r;
  }
  char prefix[16];
  std::snprintf(prefix, sizeof prefix, "%5ld", static_cast<long>(out.pos));
  r.bytes.assign(out.data.begin(), out.data.begin() + static_cast<long>(out.pos));
  std::memcpy(r.bytes.data(), prefix, LENGTH_PREFIX);
  return r;
}
