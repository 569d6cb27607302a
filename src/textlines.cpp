#include "textlines.h"

#include <cstring>

namespace {

bool is_white(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

std::size_t word_end(std::string_view line, std::size_t from) {
  std::size_t i = from;
  while (i < line.size() && line[i] != ' ' && line[i] != '\t' && line[i] != '\n') ++i;
  return i;
}

}  // namespace

bool TextLines::next(std::string_view& line) {
  if (!file_) return false;
  std::memset(buffer_, 0, sizeof buffer_);
  if (std::fgets(buffer_, sizeof buffer_, file_.get()) == nullptr) return false;
  ++number_;
  std::string_view text(buffer_, std::strlen(buffer_));
  std::size_t i = 0;
  while (i < text.size() && is_white(text[i])) ++i;
  line = text.substr(i);
  return true;
}

bool is_comment(std::string_view line) { return !line.empty() && line.front() == '#'; }

std::string_view without_newline(std::string_view line) {
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  return line;
}

TwoWords two_words(std::string_view line) {
  TwoWords words;
  std::size_t first_end = word_end(line, 0);
  words.first = line.substr(0, first_end);
  std::size_t i = first_end + 1;
  while (i < line.size() && is_white(line[i])) ++i;
  if (i > line.size()) i = line.size();
  words.second_at = i;
  words.second = line.substr(i, word_end(line, i) - i);
  return words;
}
