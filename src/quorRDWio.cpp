#include "quorRDWio.h"

#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "quortrl.h"
#include "quorutl.h"

std::string quor_partial_name() { return "QUOR." + std::to_string(static_cast<long>(getpid())); }

namespace {

// Hands the failure of the temporary connection to the caller's record,
// which keeps addressing the request being answered.
void report_failure(ConnRecord& conn, const TevFeedback& failed) {
  std::uint32_t in_conversation = conn.fb.FB_InConversId;
  conn.fb = failed;
  conn.fb.FB_InConversId = in_conversation;
}

}  // namespace

std::size_t send_partial_buffer(ConnRecord& conn, OutBuf& out, std::string_view transcode) {
  quor_trl_put("Y", out);
  if (out.overflow) return 0;

  ConnRecord temporary = conn;
  if (quor_tev_register_server(temporary.local, temporary.fb, quor_partial_name()) != 0) {
    report_failure(conn, temporary.fb);
    return 0;
  }
  int rc = quor_tev_converse(temporary, out.data, out.pos);
  TevFeedback term_fb;
  quor_tev_deregister(temporary.local, term_fb);
  if (rc != 0) {
    report_failure(conn, temporary.fb);
    return 0;
  }
  out.pos = LENGTH_PREFIX;
  tran_header_put(transcode, "Y", out);
  return out.pos;
}

// ---------------------------------------------------------------------------
// Table records

FilePtr rdw_open(const std::string& path, char mode) {
  if (path.empty()) return nullptr;
  const char* how = mode == 'R' ? "rbe" : mode == 'W' ? "wb+e" : "rb+e";
  return FilePtr(std::fopen(path.c_str(), how));
}

namespace {

bool read_word(std::FILE* stream, std::uint16_t& word) { return std::fread(&word, sizeof word, 1, stream) == 1; }

}  // namespace

int rdw_count_columns(std::FILE* stream) {
  std::rewind(stream);
  std::uint16_t length = 0;
  if (!read_word(stream, length)) return 0;
  int count = 0;
  for (;;) {
    std::uint16_t word = 0;
    if (!read_word(stream, word)) return -1;
    if (word == length) break;
    char scratch[COLUMN_BUFFER_SIZE];
    if (word > kMaxFieldLength || std::fread(scratch, 1, word, stream) != word) return -1;
    ++count;
  }
  std::rewind(stream);
  return count;
}

int rdw_read_record(std::FILE* stream, ColumnArray& columns, int count, std::size_t size) {
  std::uint16_t length = 0;
  if (!read_word(stream, length)) return -1;
  // The record as its length word says it is (fields and closing word) in
  // one read. The fields are taken from it one after the other, reading on
  // from the stream if they run past it, and the stream is left just after
  // what they used: exactly as if they had been read one by one, so that a
  // damaged record does not change where the next one is looked for.
  thread_local std::vector<char> bytes;
  bytes.resize(length);
  const std::size_t got = std::fread(bytes.data(), 1, length, stream);
  std::size_t at = 0;
  auto take = [&](void* into, std::size_t n) {
    char* to = static_cast<char*>(into);
    std::size_t from_bytes = at < got ? std::min(n, got - at) : 0;
    if (from_bytes > 0) std::memcpy(to, bytes.data() + at, from_bytes);
    at += from_bytes;
    if (from_bytes == n) return true;
    std::size_t rest = std::fread(to + from_bytes, 1, n - from_bytes, stream);
    at += rest;
    return from_bytes + rest == n;
  };
  auto finish = [&](int rc) {
    if (at < got) std::fseek(stream, static_cast<long>(at) - static_cast<long>(got), SEEK_CUR);
    return rc;
  };
  size = std::min(size, COLUMN_BUFFER_SIZE);
  for (int i = 0; i < count && static_cast<std::size_t>(i) < columns.size(); ++i) {
    std::int16_t n = 0;
    if (!take(&n, sizeof n) || n < 0 || size < static_cast<std::size_t>(n) + 1) return finish(1);
    char* text = columns[static_cast<std::size_t>(i)].data();
    if (!take(text, static_cast<std::size_t>(n))) return finish(1);
    std::size_t end = static_cast<std::size_t>(n);
    while (end > 0 && text[end - 1] == ' ') --end;
    text[end] = '\0';
  }
  std::uint16_t closing = 0;
  if (!take(&closing, sizeof closing)) return finish(1);
  return finish(closing == length ? 0 : 1);
}

namespace {

// An empty value is stored as one NUL byte.
std::size_t stored_size(std::string_view value) { return value.empty() ? 1 : value.size(); }

}  // namespace

std::size_t rdw_record_size(std::span<const std::string_view> values) {
  std::size_t length = 2;
  for (std::string_view value : values) {
    // Readers take field lengths as signed, and the record length has 16 bits.
    if (stored_size(value) > INT16_MAX) return 0;
    length += 2 + stored_size(value);
  }
  return length > UINT16_MAX ? 0 : length + 2;
}

void rdw_encode_record(char* dest, std::span<const std::string_view> values) {
  std::size_t length = 2;
  for (std::string_view value : values) length += 2 + stored_size(value);
  auto put_word = [&dest](std::size_t word) {
    auto w = static_cast<std::uint16_t>(word);
    std::memcpy(dest, &w, sizeof w);
    dest += sizeof w;
  };
  put_word(length);
  for (std::string_view value : values) {
    put_word(stored_size(value));
    if (value.empty()) {
      *dest++ = '\0';
    } else if (value.size() <= 16) {  // most values are short: no library call
      for (char c : value) *dest++ = c;
    } else {
      std::memcpy(dest, value.data(), value.size());
      dest += value.size();
    }
  }
  put_word(length);
}

int rdw_write_record(std::FILE* stream, std::span<const std::string_view> values) {
  std::size_t size = rdw_record_size(values);
  if (size == 0) return 1;
  thread_local std::vector<char> record;
  record.resize(size);
  rdw_encode_record(record.data(), values);
  return std::fwrite(record.data(), 1, size, stream) == size ? 0 : 1;
}

void rdw_release(FilePtr& stream, ColumnArray& columns) {
  columns.clear();
  columns.shrink_to_fit();
  stream.reset();
}
