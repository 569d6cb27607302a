#include "textlines.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "quorderr.h"

namespace {

bool is_white(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

std::size_t word_end(std::string_view line, std::size_t from) {
  std::size_t i = from;
  while (i < line.size() && line[i] != ' ' && line[i] != '\t' && line[i] != '\n') ++i;
  return i;
}

}  // namespace

TextLines::TextLines(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return;
  struct stat st {};
  if (fstat(fd, &st) != 0)
    refusal_ = std::strerror(errno);
  else if (!S_ISREG(st.st_mode))
    refusal_ = "not a regular file";
  else if (st.st_uid != 0 && st.st_uid != geteuid())
    refusal_ = "owned by uid " + std::to_string(st.st_uid);
  else if (st.st_mode & (S_IWGRP | S_IWOTH))
    refusal_ = "writable by group or others";
  else if (st.st_size > kMaxTextFile)
    refusal_ = "larger than " + std::to_string(kMaxTextFile) + " bytes";
  if (!refusal_.empty()) {
    close(fd);
    return;
  }
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  file_.reset(fdopen(fd, "r"));
  if (!file_) close(fd);
}

bool TextLines::next(std::string_view& line) {
  if (!file_ || too_long_) return false;
  std::memset(buffer_, 0, sizeof buffer_);
  if (std::fgets(buffer_, sizeof buffer_, file_.get()) == nullptr) return false;
  std::string_view text(buffer_, std::strlen(buffer_));
  read_ += static_cast<long>(text.size());
  if (read_ > kMaxTextFile) {
    too_long_ = true;
    return false;
  }
  ++number_;
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

void report_unopened(const TextLines& lines, const std::string& path, int number) {
  if (!lines.refusal().empty()) quor_msg_log(310, 2, path + ": " + lines.refusal());
  quor_msg_log(number, 2, path);
}

void report_unreported(const TextLines& lines, const std::string& path) {
  if (lines.unreported() > 0) quor_msg_log(311, 2, std::to_string(lines.unreported()) + " more lines of " + path);
}
