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
  if (quor_tev_register(temporary.local, temporary.fb, quor_partial_name()) != 0) {
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
  size = std::min(size, COLUMN_BUFFER_SIZE);
  for (int i = 0; i < count && static_cast<std::size_t>(i) < columns.size(); ++i) {
    std::int16_t n = 0;
    if (std::fread(&n, sizeof n, 1, stream) != 1 || n < 0 || size < static_cast<std::size_t>(n) + 1) return 1;
    char* text = columns[static_cast<std::size_t>(i)].data();
    if (std::fread(text, 1, static_cast<std::size_t>(n), stream) != static_cast<std::size_t>(n)) return 1;
    std::size_t end = static_cast<std::size_t>(n);
    while (end > 0 && text[end - 1] == ' ') --end;
    text[end] = '\0';
  }
  std::uint16_t closing = 0;
  if (!read_word(stream, closing)) return 1;
  return closing == length ? 0 : 1;
}

int rdw_read_fields(std::FILE* stream, ColumnArray& columns, int max) {
  std::uint16_t length = 0;
  if (!read_word(stream, length)) return 0;
  int count = 0;
  for (; count < max && static_cast<std::size_t>(count) < columns.size(); ++count) {
    std::uint16_t word = 0;
    if (!read_word(stream, word)) return -1;
    if (word == length) break;
    char* text = columns[static_cast<std::size_t>(count)].data();
    if (word > kMaxFieldLength || std::fread(text, 1, word, stream) != word) return -1;
    text[word] = '\0';
  }
  return count;
}

int rdw_write_record(std::FILE* stream, std::span<const std::string_view> values) {
  // The whole record is built first and written with one call.
  thread_local std::vector<char> record;
  record.assign(2, '\0');
  auto put_word = [](std::size_t word) {
    auto w = static_cast<std::uint16_t>(word);
    const char* bytes = reinterpret_cast<const char*>(&w);
    record.insert(record.end(), bytes, bytes + sizeof w);
  };
  for (std::string_view value : values) {
    std::string_view stored = value.empty() ? std::string_view("\0", 1) : value;
    if (stored.size() > INT16_MAX) return 1;  // readers take lengths as signed
    put_word(stored.size());
    record.insert(record.end(), stored.begin(), stored.end());
    if (record.size() > UINT16_MAX) return 1;
  }
  std::size_t length = record.size();
  std::uint16_t word = static_cast<std::uint16_t>(length);
  std::memcpy(record.data(), &word, sizeof word);
  put_word(length);
  return std::fwrite(record.data(), 1, record.size(), stream) == record.size() ? 0 : 1;
}

void rdw_release(FilePtr& stream, ColumnArray& columns) {
  columns.clear();
  columns.shrink_to_fit();
  stream.reset();
}
