#include "catalogue.h"

#include <cstddef>

extern const unsigned char quor_msg_builtin[];
extern const std::size_t quor_msg_builtin_size;

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t'; }

std::string_view trim_left(std::string_view s) {
  while (!s.empty() && is_blank(s.front())) s.remove_prefix(1);
  return s;
}

// A non-negative decimal number at the start of `s`; -1 when there is none.
// Stops accumulating before overflow.
long leading_number(std::string_view& s) {
  std::size_t i = 0;
  long value = 0;
  while (i < s.size() && s[i] >= '0' && s[i] <= '9') {
    if (value < 100000000) value = value * 10 + (s[i] - '0');
    ++i;
  }
  if (i == 0) return -1;
  s.remove_prefix(i);
  return value;
}

// Splits `source` into logical lines, joining lines that end in an odd
// number of backslashes (the backslash and the newline are dropped).
template <class F>
void for_each_logical_line(std::string_view source, F f) {
  std::string line;
  while (!source.empty()) {
    std::size_t nl = source.find('\n');
    std::string_view physical = source.substr(0, nl);
    source.remove_prefix(nl == std::string_view::npos ? source.size() : nl + 1);
    if (!physical.empty() && physical.back() == '\r') physical.remove_suffix(1);
    std::size_t slashes = 0;
    while (slashes < physical.size() && physical[physical.size() - 1 - slashes] == '\\') ++slashes;
    if (slashes % 2 == 1) {
      line.append(physical.substr(0, physical.size() - 1));
      continue;
    }
    line.append(physical);
    f(std::string_view(line));
    line.clear();
  }
  if (!line.empty()) f(std::string_view(line));
}

std::string unescape(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c != '\\' || i + 1 == text.size()) {
      out.push_back(c);
      continue;
    }
    char e = text[++i];
    switch (e) {
      case 'n': out.push_back('\n'); break;
      case 't': out.push_back('\t'); break;
      case 'v': out.push_back('\v'); break;
      case 'b': out.push_back('\b'); break;
      case 'r': out.push_back('\r'); break;
      case 'f': out.push_back('\f'); break;
      default:
        if (e >= '0' && e <= '7') {
          int value = 0;
          std::size_t n = 0;
          for (; n < 3 && i < text.size() && text[i] >= '0' && text[i] <= '7'; ++n, ++i)
            value = value * 8 + (text[i] - '0');
          --i;
          out.push_back(static_cast<char>(value & 0xFF));
        } else {
          out.push_back(e);  // \\, \" and any other escaped character
        }
    }
  }
  return out;
}

// The text of a message line, without its quotes when quoted.
std::string_view message_text(std::string_view rest, char quote) {
  if (quote != '\0' && !rest.empty() && rest.front() == quote) {
    rest.remove_prefix(1);
    for (std::size_t i = 0; i < rest.size(); ++i) {
      if (rest[i] == '\\') {
        ++i;
        continue;
      }
      if (rest[i] == quote) return rest.substr(0, i);
    }
  }
  return rest;
}

}  // namespace

std::map<int, std::string> catalogue_parse(std::string_view source, int set) {
  std::map<int, std::string> messages;
  int current_set = 1;
  char quote = '\0';
  for_each_logical_line(source, [&](std::string_view line) {
    if (line.empty()) return;
    if (line.front() == '$') {
      std::string_view directive = line.substr(1);
      if (directive.empty() || is_blank(directive.front())) return;  // comment
      if (directive.substr(0, 3) == "set" ) {
        std::string_view n = trim_left(directive.substr(3));
        long v = leading_number(n);
        if (v > 0) current_set = static_cast<int>(v);
      } else if (directive.substr(0, 6) == "delset") {
        std::string_view n = trim_left(directive.substr(6));
        if (leading_number(n) == set) messages.clear();
      } else if (directive.substr(0, 5) == "quote") {
        std::string_view q = trim_left(directive.substr(5));
        quote = q.empty() ? '\0' : q.front();
      }
      return;
    }
    std::string_view rest = line;
    long number = leading_number(rest);
    if (number < 0 || current_set != set) return;
    if (rest.empty()) {
      messages.erase(static_cast<int>(number));
      return;
    }
    if (!is_blank(rest.front())) return;  // "12abc" is not a message line
    rest.remove_prefix(1);
    messages[static_cast<int>(number)] = unescape(message_text(rest, quote));
  });
  return messages;
}

const std::map<int, std::string>& catalogue_builtin() {
  static const std::map<int, std::string> builtin = catalogue_parse(
      std::string_view(reinterpret_cast<const char*>(quor_msg_builtin), quor_msg_builtin_size));
  return builtin;
}
