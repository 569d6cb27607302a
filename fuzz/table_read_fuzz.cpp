// Arbitrary bytes as a table file turned into "ZZZRDW" segments: no crash,
// no read or write outside the buffers, and the same reply (and status) as
// reading the file record by record with rdw_read_record, whatever the size
// of the pieces the file is read in (the first input byte chooses it, so
// records straddle pieces and some are larger than one).
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "quorRDW.h"

namespace {

// The reply as a plain record-by-record reading writes it; 2 where a full
// buffer would have to be sent.
std::size_t plain_rdw_to_buffer(const std::string& path, OutBuf& out, std::size_t capacity) {
  FilePtr stream = rdw_open(path, 'R');
  if (!stream) return 7;
  int count = rdw_count_columns(stream.get());
  if (count < 0) return 5;
  ColumnArray columns(static_cast<std::size_t>(count));
  std::size_t field = buf_begin_segment(out, kRdwTag);
  buf_add_item(out, std::to_string(count));
  int rc = rdw_read_record(stream.get(), columns, count);
  if (rc == -1) {
    buf_end_segment(out, field);
    return 0;
  }
  for (; rc != -1; rc = rdw_read_record(stream.get(), columns, count))
    for (const ColumnBuffer& column : columns) {
      std::string_view value(column.data(), strnlen(column.data(), column.size()));
      if (capacity <= out.pos + value.size() + 1 + kSplitMargin) return 2;
      buf_add_item(out, value);
    }
  buf_end_segment(out, field);
  return out.pos;
}

// A file in memory, named through /proc so that it is opened by path like a
// table file; nothing is left behind in the file system.
const std::string& file_path() {
  static const std::string path = "/proc/self/fd/" + std::to_string(memfd_create("table_read_fuzz", 0));
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  std::size_t piece = data[0] % 64 + 2;
  {
    FilePtr f(std::fopen(file_path().c_str(), "wb"));
    std::fwrite(data + 1, 1, size - 1, f.get());
  }
  // A reply that would need a partial send (a damaged record repeats the
  // values before it) is not compared: there is no client to send it to.
  constexpr std::size_t capacity = std::size_t{1} << 20;
  static std::vector<char> fast_buf(capacity), plain_buf(capacity);
  OutBuf fast_out(fast_buf), plain_out(plain_buf);
  std::size_t plain = plain_rdw_to_buffer(file_path(), plain_out, capacity);
  if (plain == 2) return 0;
  ConnRecord unused;
  std::size_t fast = RDWto_buffer(file_path(), fast_out, capacity, unused, piece);
  if (fast != plain || fast_out.pos != plain_out.pos) __builtin_trap();
  if (std::string_view(fast_buf.data(), fast_out.pos) != std::string_view(plain_buf.data(), plain_out.pos))
    __builtin_trap();
  return 0;
}
