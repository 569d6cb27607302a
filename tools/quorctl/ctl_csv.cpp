#include "ctl_csv.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

// The bytes that mean something in CSV are looked for 64 at a time; the
// buffer has this much room past its end so that a look never leaves it.
constexpr std::size_t kLook = 64;

}  // namespace

CtlCsvReader::CtlCsvReader(int fd)
    : CtlCsvReader(
          [fd](char* into, std::size_t max) -> long {
            for (;;) {
              ssize_t n = read(fd, into, max);
              if (n >= 0 || errno != EINTR) return static_cast<long>(n);
            }
          },
          kReadSize) {}

CtlCsvReader::CtlCsvReader(std::string_view text, std::size_t piece)
    : CtlCsvReader(
          [text](char* into, std::size_t max) mutable -> long {
            std::size_t n = std::min(max, text.size());
            std::memcpy(into, text.data(), n);
            text.remove_prefix(n);
            return static_cast<long>(n);
          },
          piece) {}

CtlCsvReader::CtlCsvReader(Source source, std::size_t piece)
    : source_(std::move(source)), piece_(std::max<std::size_t>(piece, 1)) {
  grow(piece_ + 4096);
}

// Room for `capacity` bytes; those held stay. Bytes past data_end_ are
// never used, so they are not cleared.
void CtlCsvReader::grow(std::size_t capacity) {
  auto bigger = std::make_unique_for_overwrite<char[]>(capacity + kLook);
  if (data_end_ > 0) std::memcpy(bigger.get(), buf_.get(), data_end_);
  buf_ = std::move(bigger);
  capacity_ = capacity;
}

// Bit i set when byte base + i is a comma, a double quote, a line feed, a
// carriage return or a NUL; bits past the bytes held are clear.
std::uint64_t CtlCsvReader::specials(std::size_t base) const {
  const char* p = buf_.get() + base;
  std::uint64_t bits = 0;
#if defined(__SSE2__)
  const __m128i comma = _mm_set1_epi8(','), quote = _mm_set1_epi8('"'), lf = _mm_set1_epi8('\n'),
                cr = _mm_set1_epi8('\r'), nul = _mm_setzero_si128();
  for (int i = 0; i < 4; ++i) {
    __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * i));
    __m128i hit = _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, comma), _mm_cmpeq_epi8(v, quote)),
                               _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, lf), _mm_cmpeq_epi8(v, cr)),
                                            _mm_cmpeq_epi8(v, nul)));
    bits |= static_cast<std::uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(hit))) << (16 * i);
  }
#else
  for (std::size_t i = 0; i < kLook; ++i) {
    char c = p[i];
    if (c == ',' || c == '"' || c == '\n' || c == '\r' || c == '\0') bits |= std::uint64_t{1} << i;
  }
#endif
  std::size_t held = data_end_ - base;
  if (held < kLook) bits &= (std::uint64_t{1} << held) - 1;
  return bits;
}

CtlCsvReader::Step CtlCsvReader::fail(std::size_t line, const char* why) {
  error_ = "line " + std::to_string(line) + ": " + why;
  return Step::Failed;
}

inline void CtlCsvReader::end_field(std::size_t end) {
  if (field_count_ == fields_.size()) fields_.resize(std::max<std::size_t>(64, 2 * fields_.size()));
  std::size_t begin = field_start_;
  if (state_ == State::AfterQuote) {
    ++begin;
    end = quote_write_;
  }
  fields_[field_count_++] = {static_cast<std::uint32_t>(begin - row_start_), static_cast<std::uint32_t>(end - row_start_)};
}

// Goes through the bytes held from scan_ on, a byte that means something at
// a time, until the row ends (Row, scan_ just after it), the bytes run out
// or a byte needs the one after it first (More, scan_ where to go on), or
// the text is wrong (Failed).
CtlCsvReader::Step CtlCsvReader::scan() {
  char* const b = buf_.get();
  std::size_t skip_to = scan_;  // the second quote of a pair was taken with the first
  for (std::size_t base = scan_; base < data_end_; base += kLook) {
    for (std::uint64_t mask = specials(base); mask != 0; mask &= mask - 1) {
      const std::size_t p = base + static_cast<std::size_t>(__builtin_ctzll(mask));
      if (p < skip_to) continue;
      const char c = b[p];
      if (state_ == State::Quoted) {
        if (c == '\n') {
          ++line_;
        } else if (c == '\0') {
          has_nul_ = true;
        } else if (c == '"') {
          if (p + 1 == data_end_ && !eof_) {
            scan_ = p;
            return Step::More;
          }
          // The value's text up to here joins what it has (it moves only
          // after a doubled quote).
          if (quote_write_ != quote_read_) std::memmove(b + quote_write_, b + quote_read_, p - quote_read_);
          quote_write_ += p - quote_read_;
          if (p + 1 < data_end_ && b[p + 1] == '"') {
            b[quote_write_++] = '"';
            quote_read_ = skip_to = p + 2;
          } else {
            quote_close_ = p;
            state_ = State::AfterQuote;
          }
        }
        continue;  // commas and carriage returns are part of a quoted value
      }
      if (state_ == State::AfterQuote && (p != quote_close_ + 1 || c == '"' || c == '\0'))
        return fail(line_, "text after a closing double quote");
      if (c == ',') {
        end_field(p);
        field_start_ = p + 1;
        state_ = State::Unquoted;
      } else if (c == '\n' || c == '\r') {
        if (c == '\r') {
          if (p + 1 == data_end_ && !eof_) {
            scan_ = p;
            return Step::More;
          }
          if (p + 1 == data_end_ || b[p + 1] != '\n') {  // a carriage return alone is data
            if (state_ == State::AfterQuote) return fail(line_, "text after a closing double quote");
            continue;
          }
        }
        end_field(p);
        ++line_;
        scan_ = p + (c == '\r' ? 2 : 1);
        return Step::Row;
      } else if (c == '"') {
        if (p == field_start_) {  // inside an unquoted value a quote is data
          state_ = State::Quoted;
          quote_read_ = quote_write_ = p + 1;
        }
      } else {
        has_nul_ = true;
      }
    }
  }
  scan_ = data_end_;
  return Step::More;
}

// Keeps the row begun so far, moved to the front, and reads on behind it.
bool CtlCsvReader::refill() {
  if (std::size_t shift = row_start_; shift > 0) {
    char* const b = buf_.get();
    std::memmove(b, b + shift, data_end_ - shift);
    data_end_ -= shift;
    scan_ -= shift;
    field_start_ -= shift;
    if (state_ != State::Unquoted) {
      quote_read_ -= shift;
      quote_write_ -= shift;
      quote_close_ -= shift;
    }
    row_start_ = 0;
  }
  if (data_end_ >= kMaxRow) {
    fail(row_line_, "a row longer than 1048576 bytes");
    return false;
  }
  // A long row needs a larger buffer, up to the longest row and a piece.
  if (data_end_ + piece_ > capacity_) grow(std::min(std::max(2 * capacity_, data_end_ + piece_), kMaxRow + piece_));
  long n = source_(buf_.get() + data_end_, std::min(piece_, capacity_ - data_end_));
  if (n < 0) {
    error_ = std::string("read error: ") + std::strerror(errno);
    return false;
  }
  if (n == 0) eof_ = true;
  data_end_ += static_cast<std::size_t>(n);
  return true;
}

bool CtlCsvReader::next(Row& row) {
  if (!error_.empty()) return false;
  field_count_ = 0;
  has_nul_ = false;
  row_line_ = line_;
  state_ = State::Unquoted;
  row_start_ = field_start_ = scan_;
  for (;;) {
    Step step = scan();
    if (step == Step::Failed) return false;
    if (step == Step::Row) break;
    if (!eof_) {
      if (!refill()) return false;
      continue;
    }
    // The end of the text ends the last row, if there is one.
    if (state_ == State::Quoted) {
      fail(row_line_, "a double quote is never closed");
      return false;
    }
    if (state_ == State::AfterQuote && data_end_ != quote_close_ + 1) {
      fail(line_, "text after a closing double quote");
      return false;
    }
    if (field_count_ == 0 && state_ == State::Unquoted && data_end_ == field_start_) return false;
    end_field(data_end_);
    scan_ = data_end_;
    break;
  }
  values_.resize(field_count_);
  const char* start = buf_.get() + row_start_;
  for (std::size_t i = 0; i < field_count_; ++i)
    values_[i] = std::string_view(start + fields_[i].begin, fields_[i].end - fields_[i].begin);
  row.values = values_;
  row.number = ++rows_;
  row.has_nul = has_nul_;
  return true;
}

void ctl_csv_append_row(std::span<const std::string_view> row, std::string& out) {
  for (std::size_t i = 0; i < row.size(); ++i) {
    std::string_view v = row[i];
    if (i > 0) out += ',';
    bool quote = v.empty() || v.find_first_of(",\"\r\n") != std::string_view::npos || v.front() == ' ' ||
                 v.back() == ' ';
    if (!quote) {
      out += v;
      continue;
    }
    out += '"';
    for (char c : v) {
      if (c == '"') out += '"';
      out += c;
    }
    out += '"';
  }
  out += '\n';
}
