// Line-by-line reading of the daemon's text files (configuration, object map,
// language map).
//
// Lines are read into a 2048-byte buffer; a longer line arrives in pieces,
// each of which is treated as a line of its own. Leading white space is
// skipped and a line whose first remaining character is "#" is a comment.
//
// These files decide which programs run as root and as whom, so only a file
// the daemon can trust is read: a regular file (a symbolic link is followed
// to one), owned by root or by the daemon's own account, not writable by
// group or others, of at most kMaxTextFile bytes. Anything else (a device,
// a pipe, somebody else's file) is refused as if it could not be opened.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

inline constexpr std::size_t kLineBufferSize = 2048;
inline constexpr long kMaxTextFile = 1 << 20;
// Bad lines reported one by one; the rest are only counted.
inline constexpr int kMaxReportedLines = 20;

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

class TextLines {
 public:
  explicit TextLines(const std::string& path);

  bool is_open() const { return file_ != nullptr; }

  // Why a file that exists was not opened; empty otherwise.
  const std::string& refusal() const { return refusal_; }

  // True for the first kMaxReportedLines bad lines, which the caller
  // reports; later ones are counted in unreported().
  bool report_bad_line() { return ++bad_lines_ <= kMaxReportedLines; }
  int unreported() const { return bad_lines_ > kMaxReportedLines ? bad_lines_ - kMaxReportedLines : 0; }

  // The next line (or piece of one) with its leading white space skipped;
  // false at the end of the file or when reading failed.
  bool next(std::string_view& line);

  // 1 for the first line.
  int number() const { return number_; }

  // True when reading stopped because of an error rather than the end (a
  // file that grew past kMaxTextFile while it was read included).
  bool failed() const { return file_ != nullptr && (too_long_ || std::ferror(file_.get()) != 0); }

 private:
  FilePtr file_;
  char buffer_[kLineBufferSize] = {};
  int number_ = 0;
  long read_ = 0;
  bool too_long_ = false;
  int bad_lines_ = 0;
  std::string refusal_;
};

// Logs why `lines` could not be opened (message 310 when the file was
// refused), then message `number` with `path`.
void report_unopened(const TextLines& lines, const std::string& path, int number);

// Logs how many bad lines of `path` were not reported one by one (311).
void report_unreported(const TextLines& lines, const std::string& path);

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
