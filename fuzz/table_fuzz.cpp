// Arbitrary "ZZZRDW" segments written as a table: no crash, no read or
// write outside the buffers, every transfer ends closed, and the table file,
// the status and the rows counted are those of a plain reading of the same
// segment, one item after another.
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "quorRDW.h"
#include "quortrl.h"
#include "segment_input.h"

namespace {

// The straightforward conversion: each item found with buf_string, each row
// gathered and written as a record.
int plain_buffer_to_rdw(FileTransfer& transfer, InBuf buf) {
  std::optional<std::size_t> first = buf_find_segment(buf, kRdwTag);
  if (!first) return 4;
  std::optional<std::string_view> count_text = buf_string(buf, *first);
  int rc = count_text ? init_buf_toRDW(transfer, *count_text) : 3;
  if (rc != 0) {
    transfer.reset();
    return rc;
  }
  std::size_t at = *first + count_text->size() + 1;
  auto is_value = [](const std::optional<std::string_view>& item) { return item && *item != kEndOfSegment; };
  const auto columns = static_cast<std::size_t>(transfer.column_count);
  std::vector<std::string_view> row(columns);
  for (std::size_t c = 0; c < columns; ++c)
    row[c] = std::string_view(transfer.columns[c].data(), strnlen(transfer.columns[c].data(), COLUMN_BUFFER_SIZE));
  std::string records;
  transfer.count = 0;
  for (std::optional<std::string_view> item = buf_string(buf, at); is_value(item); item = buf_string(buf, at)) {
    for (std::size_t c = 0; c < columns && is_value(item); ++c) {
      row[c] = item->substr(0, kMaxFieldLength);
      at += item->size() + 1;
      if (c + 1 < columns) item = buf_string(buf, at);
    }
    std::size_t size = rdw_record_size(row);
    if (size == 0) {
      transfer.reset();
      return 6;
    }
    std::string record(size, '\0');
    rdw_encode_record(record.data(), row);
    records += record;
    ++transfer.count;
  }
  for (std::size_t c = 0; c < columns; ++c) {
    std::string value(row[c]);
    std::memcpy(transfer.columns[c].data(), value.c_str(), value.size() + 1);
  }
  std::fwrite(records.data(), 1, records.size(), transfer.stream.get());
  if (!buf_string(buf, at)) {
    transfer.reset();
    return 3;
  }
  if (quor_trl_last(buf)) transfer.reset();
  return 0;
}

std::string file_path(const char* which) {
  static const std::string base = "/tmp/table_fuzz." + std::to_string(getpid());
  static bool cleanup = (std::atexit([] {
                           std::remove((base + ".fast").c_str());
                           std::remove((base + ".plain").c_str());
                         }),
                         true);
  (void)cleanup;
  return base + which;
}

std::string contents(const std::string& path) {
  std::string bytes;
  if (FilePtr f{std::fopen(path.c_str(), "rb")}) {
    char chunk[4096];
    for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, f.get())) > 0;) bytes.append(chunk, n);
  }
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FileTransfer fast, plain;
  fast.path = file_path(".fast");
  plain.path = file_path(".plain");
  std::remove(fast.path.c_str());
  std::remove(plain.path.c_str());
  for (const std::vector<char>& buf : segment_requests(kRdwTag, data, size)) {
    int rc = buffer_to_RDW(fast, buf);
    if (rc != 0 && rc != 3 && rc != 4 && rc != 6) __builtin_trap();
    if (rc != 0 && fast.stream) __builtin_trap();  // a failed transfer is closed
    if (plain_buffer_to_rdw(plain, buf) != rc || plain.count != fast.count) __builtin_trap();
    if (fast.columns.size() != plain.columns.size()) __builtin_trap();
    for (std::size_t c = 0; c < fast.columns.size() && c < static_cast<std::size_t>(fast.column_count); ++c)
      if (std::string(fast.columns[c].data()) != plain.columns[c].data()) __builtin_trap();
  }
  fast.reset();
  plain.reset();
  if (contents(fast.path) != contents(plain.path)) __builtin_trap();
  return 0;
}
