// Line-by-line reading of the daemon's text files (configuration, object map,
// language map).
//
// Lines are read into a 2048-byte buffer; a longer line arrives in pieces,
// each of which is treated as a line of its own. Leading white space is
// skipped and a line whose first remaining character is "#" is a comment.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

inline constexpr std::size_t kLineBufferSize = 2048;

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

class TextLines {
 public:
  explicit TextLines(const std::string& path) : file_(std::fopen(path.c_str(), "re")) {}

  bool is_open() const { return file_ != nullptr; }

  // The next line (or piece of one) with its leading white space skipped;
  // false at the end of the file or when reading failed.
  bool next(std::string_view& line);

  // 1 for the first line.
  int number() const { return number_; }

  // True when reading stopped because of an error rather than the end.
  bool failed() const { return file_ != nullptr && std::ferror(file_.get()) != 0; }

 private:
  FilePtr file_;
  char buffer_[kLineBufferSize] = {};
  int number_ = 0;
};

bool is_comment(std::string_view line);

// The line without its trailing newline, for messages.
std::string_view without_newline(std::string_view line);

// The two words of a map line: the first up to a blank, tab or newline; the
// second starting one character after the first and past any white space,
// up to the next blank, tab or newline. Either may be empty.
struct TwoWords {
  std::string_view first;
  std::string_view second;
  std::size_t second_at = 0;  // where the second word starts in the line
};
TwoWords two_words(std::string_view line);
