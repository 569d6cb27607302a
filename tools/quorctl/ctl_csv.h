// CSV read in one pass, a piece at a time, so that a table of any size
// takes the same memory: fields separated by commas, one row a line (LF or
// CRLF; a lone CR is data), a field that begins with a double quote runs to
// the closing one (a double quote inside doubled, line breaks allowed).
// Values are handed out as views into the reader's own buffer, unquoted in
// place: nothing is allocated per row or per value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

class CtlCsvReader {
 public:
  // Fills `into` with up to `max` bytes; the number given, 0 at the end,
  // -1 on an error (errno says which).
  using Source = std::function<long(char* into, std::size_t max)>;

  // Longest row the reader holds, its line breaks and quotes included. No
  // table row can be longer: a table record holds at most 65535 bytes, a
  // request buffer 32767.
  static constexpr std::size_t kMaxRow = std::size_t{1} << 20;

  // Reads from the open descriptor `fd` (not closed here).
  explicit CtlCsvReader(int fd);
  // Reads `text`, at most `piece` bytes at a time (small pieces test how rows
  // that straddle two reads are put together).
  explicit CtlCsvReader(std::string_view text, std::size_t piece = kReadSize);
  CtlCsvReader(Source source, std::size_t piece);

  struct Row {
    std::span<const std::string_view> values;  // valid until the next call
    std::size_t number = 0;                    // 1 for the first row
    bool has_nul = false;                      // a value holds a NUL byte
  };

  // The next row; false at the end of the text, or at an error, which
  // error() then describes ("line N: why").
  bool next(Row& row);
  const std::string& error() const { return error_; }

 private:
  static constexpr std::size_t kReadSize = std::size_t{1} << 20;
  enum class State { Unquoted, Quoted, AfterQuote };
  enum class Step { Row, More, Failed };

  Step scan();
  Step handle(std::size_t p, std::uint64_t& mask, std::size_t base);
  Step fail(std::size_t line, const char* why);
  void end_field(std::size_t end);
  bool refill();
  void grow(std::size_t capacity);
  std::uint64_t specials(std::size_t base) const;

  Source source_;
  std::size_t piece_;
  std::unique_ptr<char[]> buf_;  // capacity_ bytes (at most kMaxRow + piece_), and room for a 64-byte look past them
  std::size_t capacity_ = 0;
  std::size_t data_end_ = 0;     // bytes held
  bool eof_ = false;

  // The row being read; offsets into buf_.
  std::size_t scan_ = 0;         // next byte to look at
  std::size_t row_start_ = 0;
  std::size_t field_start_ = 0;
  std::size_t quote_write_ = 0;  // a quoted value: its text so far ends here
  std::size_t quote_read_ = 0;   // and its raw text not yet moved there starts here
  std::size_t quote_close_ = 0;  // the closing quote
  State state_ = State::Unquoted;
  bool has_nul_ = false;
  struct Field {
    std::uint32_t begin, end;  // from row_start_
  };
  std::vector<Field> fields_;  // the first field_count_ are the row's so far
  std::size_t field_count_ = 0;
  std::vector<std::string_view> values_;

  std::size_t line_ = 1;      // line of the next byte
  std::size_t row_line_ = 1;  // line the row began on
  std::size_t rows_ = 0;
  std::string error_;
};

// CSV for one row: a value that is empty or holds a comma, a double quote, a
// line break or a leading or trailing blank is written in double quotes, a
// double quote doubled. Appended to `out`, with a newline.
void ctl_csv_append_row(std::span<const std::string_view> row, std::string& out);
