#include "quorlsfl.h"

#include <cstdio>
#include <cstring>

#include "quortrl.h"

namespace {

// Writes one list item; false when the write failed.
bool write_line(std::FILE* file, std::string_view item) {
  if (std::fwrite(item.data(), 1, item.size(), file) != item.size()) return false;
  return item.find('\n') != std::string_view::npos || std::fputc('\n', file) != EOF;
}

}  // namespace

int buffer_to_list(FileTransfer& transfer, std::string_view tag, InBuf buf) {
  std::optional<std::size_t> first = buf_find_segment(buf, tag);
  if (!first) return 4;
  if (!transfer.stream) {
    transfer.stream.reset(std::fopen(transfer.path.c_str(), "w+e"));
    if (!transfer.stream) return 7;
    transfer.flags |= kXferCreated;
  }
  // Only a file this transfer created is closed here.
  auto fail = [&](int rc) {
    if (transfer.flags & kXferCreated) transfer.reset();
    return rc;
  };
  transfer.count = 0;
  std::size_t at = *first;
  for (;;) {
    std::optional<std::string_view> item = buf_string(buf, at);
    if (!item || item->empty()) return fail(3);
    if (*item == kEndOfSegment) break;
    if (!write_line(transfer.stream.get(), *item)) return fail(6);
    ++transfer.count;
    at += item->size() + 1;
  }
  if ((transfer.flags & kXferCreated) && quor_trl_last(buf)) {
    if (std::fflush(transfer.stream.get()) != 0) return fail(6);
    transfer.reset();
  }
  return 0;
}

std::size_t list_to_buffer(const std::string& path, OutBuf& out, std::size_t capacity, ConnRecord& conn,
                           std::string_view tag) {
  FilePtr file(std::fopen(path.c_str(), "re"));
  if (!file) return 7;
  if (capacity <= out.pos + 73 && send_partial_buffer(conn, out) == 0) return 2;
  std::size_t length_field = buf_begin_segment(out, tag);
  char line[260];
  while (std::fgets(line, sizeof line, file.get()) != nullptr) {
    std::size_t n = std::strlen(line);
    if (capacity <= out.pos + n + kSplitMargin) {
      buf_end_segment(out, length_field);
      // List replies continue as "U" transactions.
      if (send_partial_buffer(conn, out, "U") == 0) return 2;
      length_field = buf_begin_segment(out, tag);
    }
    buf_add_item(out, std::string_view(line, n));
  }
  buf_end_segment(out, length_field);
  return out.pos;
}
