#include "quorRDW.h"

#include <algorithm>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>
#include <new>
#include <vector>

#include "quordebug.h"
#include "quortrl.h"

void FileTransfer::reset() {
  if (stream && !unwritten.empty()) std::fwrite(unwritten.data(), 1, unwritten.size(), stream.get());
  unwritten.clear();
  rdw_release(stream, columns);
  calendar_header.reset();
  flags = 0;
  column_count = 0;
}

namespace {

void debug(const char* text) {
  if (quor_debug()) quor_trace("%s\n", text);
}

// The value of a column buffer.
std::string_view column_text(const ColumnBuffer& column) {
  return std::string_view(column.data(), strnlen(column.data(), column.size()));
}

constexpr std::size_t kNone = static_cast<std::size_t>(-1);

// The NULs of a buffer in order, found 64 bytes at a time: each ends an
// item, so walking them walks the items.
class NulScanner {
 public:
  NulScanner(InBuf buf, std::size_t from) : buf_(buf), base_(from), bits_(block(from)) {}

  // The next NUL, kNone when the buffer has no more.
  std::size_t next() {
    while (bits_ == 0) {
      base_ += 64;
      if (base_ >= buf_.size()) return kNone;
      bits_ = block(base_);
    }
    std::size_t at = base_ + static_cast<std::size_t>(__builtin_ctzll(bits_));
    bits_ &= bits_ - 1;
    return at;
  }

 private:
  std::uint64_t block(std::size_t at) const {
    if (at >= buf_.size()) return 0;
    const char* p = buf_.data() + at;
    std::size_t n = std::min<std::size_t>(64, buf_.size() - at);
    std::uint64_t bits = 0;
#if defined(__SSE2__)
    if (n == 64) {
      const __m128i zero = _mm_setzero_si128();
      for (int i = 0; i < 4; ++i) {
        __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * i));
        bits |= static_cast<std::uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, zero))))
                << (16 * i);
      }
      return bits;
    }
#endif
    for (std::size_t i = 0; i < n; ++i)
      if (p[i] == '\0') bits |= std::uint64_t{1} << i;
    return bits;
  }

  InBuf buf_;
  std::size_t base_;
  std::uint64_t bits_;
};

void put_word(char* at, std::size_t word) {
  auto w = static_cast<std::uint16_t>(word);
  std::memcpy(at, &w, sizeof w);
}

// Up to `count` items from `at` into `row`, each cut to a column's length;
// stops at the end of the segment or of the buffer. The number taken.
std::size_t take_items(InBuf buf, std::size_t at, std::size_t count, std::span<std::string_view> row) {
  std::size_t c = 0;
  for (std::optional<std::string_view> item; c < count && (item = buf_string(buf, at)) && *item != kEndOfSegment;
       ++c) {
    row[c] = item->substr(0, kMaxFieldLength);
    at += item->size() + 1;
  }
  return c;
}

int write_failed(FileTransfer& transfer) {
  quor_trace("buffer_to_RDW: Unable to write to RDW file\n");
  transfer.reset();
  return 6;
}

}  // namespace

int init_buf_toRDW(FileTransfer& transfer, std::string_view count_text) {
  long count = buf_decimal(count_text);
  if (count < 1 || count > kMaxColumns) return 3;
  if (!transfer.stream) {
    transfer.stream = rdw_open(transfer.path, 'W');
    if (!transfer.stream) {
      debug("init_buf_toRDW: Unable to open RDW for write");
      return 7;
    }
    transfer.flags |= kXferOpened;
    // Each request buffer's records go out in one write; a stream buffer
    // would only split them and copy them once more.
    std::setvbuf(transfer.stream.get(), nullptr, _IONBF, 0);
  }
  transfer.column_count = static_cast<int>(count);
  // A continuation buffer reuses the buffers; one that announces more
  // columns than before gets the extra ones.
  try {
    if (transfer.columns.size() < static_cast<std::size_t>(count)) transfer.columns.resize(count, ColumnBuffer{});
  } catch (const std::bad_alloc&) {
    debug("init_buf_toRDW: Unable to get memory");
    return 1;
  }
  return 0;
}

// The page size writes are rounded to.
constexpr std::size_t kWritePage = 4096;

int buffer_to_RDW(FileTransfer& transfer, InBuf buf) {
  std::optional<std::size_t> first = buf_find_segment(buf, kRdwTag);
  if (!first) {
    // Whatever writes to the file next writes after the records.
    if (transfer.stream && !transfer.unwritten.empty()) {
      bool written = std::fwrite(transfer.unwritten.data(), 1, transfer.unwritten.size(), transfer.stream.get()) ==
                     transfer.unwritten.size();
      transfer.unwritten.clear();
      if (!written) return write_failed(transfer);
    }
    return 4;
  }
  std::optional<std::string_view> count_text = buf_string(buf, *first);
  int rc = count_text ? init_buf_toRDW(transfer, *count_text) : 3;
  if (rc != 0) {
    transfer.reset();
    return rc;
  }
  std::size_t at = *first + count_text->size() + 1;
  const auto columns = static_cast<std::size_t>(transfer.column_count);
  // The buffer's records, written with one call. Each item becomes a length
  // word and its bytes, at most 3 bytes for every byte it took in the
  // request; a record adds its two length words (4 bytes for an item of 1
  // column); a short last row adds at most one record of 65537 bytes.
  thread_local std::vector<char> records;
  // The records left unwritten by the buffer before go first.
  std::size_t bound = kWritePage + 7 * buf.size() + UINT16_MAX + 2 + 64;  // and room for a 32-byte copy past the end
  if (records.size() < bound) records.resize(bound);
  char* const start = records.data();
  std::copy(transfer.unwritten.begin(), transfer.unwritten.end(), start);  // none at first: no null to memcpy
  char* o = start + transfer.unwritten.size();
  // The values of the last row, for the column buffers, which carry them
  // into a short row of the next buffer.
  thread_local std::vector<std::string_view> row;
  row.resize(columns);
  bool row_known = false;
  std::size_t last_row = kNone;  // where the last whole row's items begin

  NulScanner nuls(buf, at);
  const char* const data = buf.data();
  bool ran_off = false;  // an item does not end inside the buffer
  transfer.count = 0;
  for (;;) {
    const std::size_t row_at = at;
    char* record = o;
    o += 2;
    std::size_t c = 0;
    for (; c < columns; ++c) {
      std::size_t end = nuls.next();
      if (end == kNone) {
        ran_off = true;
        break;
      }
      std::size_t length = end - at;
      if (length == kEndOfSegment.size() && std::memcmp(data + at, kEndOfSegment.data(), length) == 0) break;
      std::size_t n = std::min(length, kMaxFieldLength);
      if (n == 0) {  // an empty value is stored as one NUL byte
        put_word(o, 1);
        o[2] = '\0';
        o += 3;
      } else {
        put_word(o, n);
        if (n <= 32 && at + 32 <= buf.size())
          std::memcpy(o + 2, data + at, 32);  // most values are short: one fixed-size copy
        else
          std::memcpy(o + 2, data + at, n);
        o += 2 + n;
      }
      at = end + 1;
    }
    if (c == 0) {  // the segment (or the buffer) ended between rows
      o = record;
      break;
    }
    if (c < columns) {
      // A short last row keeps, in the columns it lacks, the values of the
      // row before it: in this buffer, or carried in the column buffers.
      if (last_row != kNone) {
        take_items(buf, last_row, columns, row);
      } else {
        for (std::size_t k = 0; k < columns; ++k) row[k] = column_text(transfer.columns[k]);
      }
      take_items(buf, row_at, c, row);
      row_known = true;
      std::size_t size = rdw_record_size(row);
      if (size == 0) return write_failed(transfer);
      rdw_encode_record(record, row);
      o = record + size;
      ++transfer.count;
      break;
    }
    std::size_t length = static_cast<std::size_t>(o - record);
    if (length > UINT16_MAX) return write_failed(transfer);  // longer than its length word can say
    put_word(record, length);
    put_word(o, length);
    o += 2;
    last_row = row_at;
    ++transfer.count;
  }
  if (!row_known && last_row != kNone) take_items(buf, last_row, columns, row);
  if (row_known || last_row != kNone) {
    for (std::size_t c = 0; c < columns; ++c) {
      std::string_view value = row[c];
      std::memmove(transfer.columns[c].data(), value.data(), value.size());
      transfer.columns[c][value.size()] = '\0';
    }
  }
  const auto used = static_cast<std::size_t>(o - start);
  const bool last = quor_trl_last(buf);
  // A transfer that goes on writes whole pages and keeps the rest for later.
  const std::size_t now = ran_off || last ? used : used - used % kWritePage;
  transfer.unwritten.clear();  // now among the records
  if (std::fwrite(start, 1, now, transfer.stream.get()) != now) return write_failed(transfer);
  transfer.unwritten.assign(start + now, start + used);
  if (ran_off) {  // the segment never ended inside the buffer
    transfer.reset();
    return 3;
  }
  if (last) {
    if (std::fflush(transfer.stream.get()) != 0) {
      transfer.reset();
      return 6;
    }
    transfer.reset();
  }
  return 0;
}

namespace {

// Opens the table for reading and sets up its column buffers. 0, or the
// status of the failure.
int open_for_read(const std::string& path, FilePtr& stream, ColumnArray& columns, int& count) {
  stream = rdw_open(path, 'R');
  if (!stream) {
    debug("RDWto_buffer: Fatal-- Unable to open RDW file for read");
    return 7;
  }
  count = rdw_count_columns(stream.get());
  if (count < 0) {
    debug("RDWto_buffer: Fatal-- Unable to get number of columns");
    return 5;
  }
  try {
    columns.assign(static_cast<std::size_t>(count), ColumnBuffer{});
  } catch (const std::bad_alloc&) {
    debug("RDWto_buffer: Fatal--Unable to get mem for column_array");
    return 1;
  }
  return 0;
}

// The length of the `size` bytes at `text` up to their first NUL. Short
// values (most are) are searched in one step; the 32 bytes at `text` must be
// readable.
std::size_t end_at_nul(const char* text, std::size_t size) {
#if defined(__SSE2__)
  if (size <= 32) {
    const __m128i zero = _mm_setzero_si128();
    __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text));
    __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + 16));
    std::uint64_t nuls = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(low, zero))) |
                         static_cast<std::uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(high, zero))))
                             << 16;
    nuls |= std::uint64_t{1} << size;  // none inside: the value is all of it
    return static_cast<std::size_t>(__builtin_ctzll(nuls));
  }
#endif
  const void* nul = std::memchr(text, '\0', size);
  return nul != nullptr ? static_cast<std::size_t>(static_cast<const char*>(nul) - text) : size;
}

// Copies the row's values into the column buffers and points the row at
// them, so that it outlives the bytes it was read from.
void keep_row(std::vector<std::string_view>& row, ColumnArray& columns) {
  for (std::size_t c = 0; c < row.size(); ++c) {
    std::memmove(columns[c].data(), row[c].data(), row[c].size());
    columns[c][row[c].size()] = '\0';
    row[c] = std::string_view(columns[c].data(), row[c].size());
  }
}

// The table file taken a large piece at a time, its records read from
// memory exactly as rdw_read_record reads them from the stream: the same
// fields, the same damaged records, the same place for the next one. What
// the memory cannot show the way the stream does (a field cut short by the
// end of the file, which rdw_read_record copies in part over the column
// buffer's old bytes; a record larger than the piece) is left to
// rdw_read_record itself.
class TableReader {
 public:
  enum class Kind { Record, Damaged, End, Slow };
  struct Result {
    Kind kind;
    std::size_t fields;  // fields read into the row (the others keep the previous row's)
  };

  TableReader(std::FILE* stream, std::size_t piece) : fd_(fileno(stream)), piece_(std::max<std::size_t>(piece, 2)) {
    thread_local std::vector<char> chunk;
    chunk.resize(piece_ + kSlack);
    chunk_ = chunk.data();
  }

  // The next record, its values in `row`: views into the bytes held, or
  // into `columns`, where the values of the last record go before the
  // bytes move on (a damaged record keeps some of them).
  // A record that needs more bytes is read again once they are there, so
  // the values it put into the row are put there again.
  Result next(std::vector<std::string_view>& row, ColumnArray& columns) {
    for (;;) {
      Result r = parse(row);
      if (r.kind != Kind::End || eof_) return r;
      // The record goes on past the bytes held: read on behind it.
      if (pos_ == 0 && held_ == piece_) return {Kind::Slow, 0};
      keep_row(row, columns);
      std::memmove(chunk_, chunk_ + pos_, held_ - pos_);
      chunk_at_ += static_cast<off_t>(pos_);
      held_ -= pos_;
      pos_ = 0;
      ssize_t n;
      do n = pread(fd_, chunk_ + held_, piece_ - held_, chunk_at_ + static_cast<off_t>(held_));
      while (n < 0 && errno == EINTR);
      if (n <= 0) eof_ = true;  // as for fread, an error ends the file
      else held_ += static_cast<std::size_t>(n);
    }
  }

  // The file offset of the record next() would read.
  off_t offset() const { return chunk_at_ + static_cast<off_t>(pos_); }

 private:
  static constexpr std::size_t kSlack = 32;  // a 32-byte look at a value may pass the bytes held

  // One record from pos_ in the bytes held; End when they run out before it
  // does (also at the end of the file, where it means the file's end).
  Result parse(std::vector<std::string_view>& row) {
    const char* p = chunk_ + pos_;
    const std::size_t held = held_ - pos_;
    auto word = [p](std::size_t at) {
      std::uint16_t w;
      std::memcpy(&w, p + at, sizeof w);
      return w;
    };
    if (held < 2) return {Kind::End, 0};  // at the end of the file, a lone byte is no record either
    const std::uint16_t length = word(0);
    std::size_t at = 2;
    const std::size_t columns = row.size();
    for (std::size_t c = 0; c < columns; ++c) {
      if (held - at < 2) return cut_short({Kind::Damaged, c}, held);
      auto n = static_cast<std::int16_t>(word(at));
      at += 2;
      if (n < 0 || static_cast<std::size_t>(n) > kMaxFieldLength) return done({Kind::Damaged, c}, at);
      if (held - at < static_cast<std::size_t>(n)) return cut_short({Kind::Slow, 0}, held);
      // Trailing blanks go, and the value ends at its first NUL (an empty
      // value is stored as one NUL).
      std::size_t end = static_cast<std::size_t>(n);
      while (end > 0 && p[at + end - 1] == ' ') --end;
      row[c] = std::string_view(p + at, end_at_nul(p + at, end));
      at += static_cast<std::size_t>(n);
    }
    if (held - at < 2) return cut_short({Kind::Damaged, columns}, held);
    bool closed = word(at) == length;
    return done({closed ? Kind::Record : Kind::Damaged, columns}, at + 2);
  }

  Result done(Result r, std::size_t used) {
    pos_ += used;
    return r;
  }

  // The bytes held end inside the record: more are read first, unless the
  // file ends there, where the record is `at_end`.
  Result cut_short(Result at_end, std::size_t held) {
    if (!eof_) return {Kind::End, 0};
    return at_end.kind == Kind::Slow ? at_end : done(at_end, held);
  }

  int fd_;
  std::size_t piece_;
  char* chunk_ = nullptr;
  std::size_t held_ = 0;  // bytes in chunk_
  std::size_t pos_ = 0;   // where the next record starts in them
  off_t chunk_at_ = 0;    // the file offset of chunk_[0]
  bool eof_ = false;
};

}  // namespace

std::size_t RDWto_buffer(const std::string& path, OutBuf& out, std::size_t capacity, ConnRecord& conn,
                         std::size_t piece) {
  if (capacity <= out.pos + 73 && send_partial_buffer(conn, out) == 0) return 2;
  FilePtr stream;
  ColumnArray columns;
  int count = 0;
  if (int rc = open_for_read(path, stream, columns, count); rc != 0) return static_cast<std::size_t>(rc);

  const std::string count_item = std::to_string(count);
  std::size_t length_field = buf_begin_segment(out, kRdwTag);
  buf_add_item(out, count_item);
  // A damaged record is still sent, as far as it could be read.
  auto send_row = [&](std::span<const std::string_view> row) {
    for (std::string_view value : row) {
      if (capacity <= out.pos + value.size() + 1 + kSplitMargin) {
        buf_end_segment(out, length_field);
        if (send_partial_buffer(conn, out) == 0) return false;
        length_field = buf_begin_segment(out, kRdwTag);
        buf_add_item(out, count_item);
      }
      char* to = out.data.data() + out.pos;
      if (value.size() <= 32 && out.pos + 33 <= out.data.size()) {  // a value's 32 bytes are readable: see TableReader
        std::memcpy(to, value.data(), 32);  // one fixed-size copy; the bytes past the value are overwritten later
        to[value.size()] = '\0';
        out.pos += value.size() + 1;
      } else if (out.pos + value.size() + 1 <= out.data.size()) {
        std::memcpy(to, value.data(), value.size());
        to[value.size()] = '\0';
        out.pos += value.size() + 1;
      } else {
        buf_add_item(out, value);  // marks the buffer overflowed
      }
    }
    return true;
  };

  std::vector<std::string_view> row(columns.size());
  for (std::size_t c = 0; c < row.size(); ++c) row[c] = column_text(columns[c]);
  TableReader reader(stream.get(), piece);
  bool any = false;
  bool slow = false;
  for (;;) {
    TableReader::Result r = reader.next(row, columns);
    if (r.kind == TableReader::Kind::End) break;
    if (r.kind == TableReader::Kind::Slow) {
      slow = true;
      break;
    }
    any = true;
    if (!send_row(row)) return 2;
  }
  if (slow) {
    // The column buffers as rdw_read_record leaves them, from the start.
    off_t from = reader.offset();
    std::rewind(stream.get());
    while (std::ftell(stream.get()) < from && rdw_read_record(stream.get(), columns, count) != -1) {
    }
    std::vector<std::string_view> values(columns.size());
    for (int rc; (rc = rdw_read_record(stream.get(), columns, count)) != -1;) {
      any = true;
      for (std::size_t c = 0; c < columns.size(); ++c) values[c] = column_text(columns[c]);
      if (!send_row(values)) return 2;
    }
  }
  if (!slow) keep_row(row, columns);
  buf_end_segment(out, length_field);
  if (!any) return 0;
  if (quor_debug())
    for (std::size_t c = 0; c < columns.size(); ++c)
      quor_trace("column_array[%zu] = %s\n", c, columns[c].data());
  return out.pos;
}
