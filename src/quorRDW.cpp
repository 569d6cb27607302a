#include "quorRDW.h"

#include <algorithm>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#include <cstring>
#include <new>
#include <vector>

#include "quordebug.h"
#include "quortrl.h"

void FileTransfer::reset() {
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

// buf_string, quicker for the short values tables are mostly made of: the
// first 16 bytes are searched for the NUL in one step.
std::optional<std::string_view> short_string(InBuf buf, std::size_t at) {
#if defined(__SSE2__)
  if (at + 16 <= buf.size()) {
    __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(buf.data() + at));
    int nuls = _mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_setzero_si128()));
    if (nuls != 0) return std::string_view(buf.data() + at, static_cast<std::size_t>(__builtin_ctz(static_cast<unsigned>(nuls))));
  }
#endif
  return buf_string(buf, at);
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

int buffer_to_RDW(FileTransfer& transfer, InBuf buf) {
  std::optional<std::size_t> first = buf_find_segment(buf, kRdwTag);
  if (!first) return 4;
  std::optional<std::string_view> count_text = buf_string(buf, *first);
  int rc = count_text ? init_buf_toRDW(transfer, *count_text) : 3;
  if (rc != 0) {
    transfer.reset();
    return rc;
  }
  std::size_t at = *first + count_text->size() + 1;
  auto next_item = [&] { return short_string(buf, at); };
  auto is_value = [](const std::optional<std::string_view>& item) { return item && *item != kEndOfSegment; };
  const auto columns = static_cast<std::size_t>(transfer.column_count);
  // The row being built: values in the request buffer, or, for columns a
  // short row leaves out, the previous row's (kept in the column buffers
  // across buffers). The buffer's records are written with one call.
  std::vector<std::string_view> row(columns);
  for (std::size_t c = 0; c < columns; ++c) row[c] = column_text(transfer.columns[c]);
  thread_local std::vector<char> records;  // grows to the largest buffer's need
  std::size_t used = 0;
  transfer.count = 0;
  for (std::optional<std::string_view> item = next_item(); is_value(item); item = next_item()) {
    for (std::size_t c = 0; c < columns && is_value(item); ++c) {
      row[c] = item->substr(0, kMaxFieldLength);  // longer values are cut
      at += item->size() + 1;
      if (c + 1 < columns) item = next_item();
    }
    std::size_t size = rdw_record_size(row);
    if (size == 0) return write_failed(transfer);
    if (used + size > records.size()) records.resize(std::max(2 * records.size(), used + size));
    rdw_encode_record(records.data() + used, row);
    used += size;
    ++transfer.count;
  }
  for (std::size_t c = 0; c < columns; ++c) {
    std::string_view value = row[c];
    std::memmove(transfer.columns[c].data(), value.data(), value.size());
    transfer.columns[c][value.size()] = '\0';
  }
  if (std::fwrite(records.data(), 1, used, transfer.stream.get()) != used)
    return write_failed(transfer);
  if (!buf_string(buf, at)) {  // the segment never ended inside the buffer
    transfer.reset();
    return 3;
  }
  if (quor_trl_last(buf)) {
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

}  // namespace

std::size_t RDWto_buffer(const std::string& path, OutBuf& out, std::size_t capacity, ConnRecord& conn) {
  if (capacity <= out.pos + 73 && send_partial_buffer(conn, out) == 0) return 2;
  FilePtr stream;
  ColumnArray columns;
  int count = 0;
  if (int rc = open_for_read(path, stream, columns, count); rc != 0) return static_cast<std::size_t>(rc);

  const std::string count_item = std::to_string(count);
  std::size_t length_field = buf_begin_segment(out, kRdwTag);
  buf_add_item(out, count_item);
  int rc = rdw_read_record(stream.get(), columns, count);
  if (rc == -1) {
    buf_end_segment(out, length_field);
    return 0;
  }
  // A damaged record is still sent, as far as it could be read.
  for (; rc != -1; rc = rdw_read_record(stream.get(), columns, count)) {
    for (const ColumnBuffer& column : columns) {
      std::string_view value = column_text(column);
      if (capacity <= out.pos + value.size() + 1 + kSplitMargin) {
        buf_end_segment(out, length_field);
        if (send_partial_buffer(conn, out) == 0) return 2;
        length_field = buf_begin_segment(out, kRdwTag);
        buf_add_item(out, count_item);
      }
      buf_add_item(out, value);
    }
  }
  buf_end_segment(out, length_field);
  if (quor_debug())
    for (std::size_t c = 0; c < columns.size(); ++c)
      quor_trace("column_array[%zu] = %s\n", c, columns[c].data());
  return out.pos;
}
