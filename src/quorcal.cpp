#include "quorcal.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "quorsmc.h"
#include "quortrl.h"

namespace {

struct TextKey {
  std::string_view key;
  std::size_t offset;
  std::size_t size;  // the field, its NUL included
};
struct IntKey {
  std::string_view key;
  std::size_t offset;
};

// In the order in which they are matched and sent.
constexpr TextKey kTextKeys[] = {{"PI", 0, 4}, {"CU", 28, 33}, {"UU", 61, 33}, {"DS", 94, 258}};
constexpr IntKey kIntKeys[] = {{"RL", 4}, {"YN", 8}, {"FX", 20}, {"UT", 24}, {"DO", 352}};
constexpr std::size_t kDataOffsetAt = 16;

std::int32_t get_int(const CalendarHeader& header, std::size_t offset) {
  std::int32_t value = 0;
  std::memcpy(&value, header.data() + offset, sizeof value);
  return value;
}
void put_int(CalendarHeader& header, std::size_t offset, std::int32_t value) {
  std::memcpy(header.data() + offset, &value, sizeof value);
}

// A key matches every keyword it is a prefix of.
bool matches(std::string_view key, std::string_view keyword) { return keyword.starts_with(key); }

// The transfer's file, created for its first buffer.
int open_calendar(FileTransfer& transfer) {
  transfer.stream.reset(std::fopen(transfer.path.c_str(), "wb+e"));
  if (!transfer.stream) return 7;
  transfer.flags |= kXferCreated;
  transfer.calendar_header = std::make_unique<CalendarHeader>();
  put_int(*transfer.calendar_header, kDataOffsetAt, kCalDataOffset);
  return 0;
}

// Writes the text after the first "=" of a line item, with a newline
// unless it holds one. 0, 3 without "=", 6 when the write failed.
int write_line(std::FILE* file, std::string_view item) {
  std::size_t eq = item.find('=');
  if (eq == std::string_view::npos) return 3;
  std::string_view text = item.substr(eq + 1);
  if (std::fwrite(text.data(), 1, text.size(), file) != text.size()) return 6;
  if (text.find('\n') == std::string_view::npos && std::fputc('\n', file) == EOF) return 6;
  return 0;
}

}  // namespace

int cal_header_item(FileTransfer& transfer, std::string_view item) {
  std::size_t eq = item.find('=');
  if (eq == std::string_view::npos || !transfer.calendar_header) return 0;
  std::string_view key = item.substr(0, eq), value = item.substr(eq + 1);
  CalendarHeader& header = *transfer.calendar_header;
  if (matches(key, "AL")) {
    if (std::fwrite(header.data(), 1, header.size(), transfer.stream.get()) != header.size()) return 6;
    transfer.calendar_header.reset();
    return 0;
  }
  for (const TextKey& k : kTextKeys)
    if (matches(key, k.key)) {
      std::size_t n = std::min(value.size(), k.size - 1);
      std::memset(header.data() + k.offset, 0, k.size);
      std::memcpy(header.data() + k.offset, value.data(), n);
      return 0;
    }
  for (const IntKey& k : kIntKeys)
    if (matches(key, k.key)) {
      put_int(header, k.offset, static_cast<std::int32_t>(buf_decimal(value)));
      return 0;
    }
  return 0;
}

int buffer_to_cal(FileTransfer& transfer, InBuf buf) {
  std::optional<std::size_t> first = buf_find_segment(buf, kCalTag);
  if (!first) return 4;
  if (!transfer.stream)
    if (int rc = open_calendar(transfer); rc != 0) return rc;
  auto fail = [&](int rc) {
    if (transfer.flags & kXferCreated) transfer.reset();
    transfer.calendar_header.reset();
    return rc;
  };
  std::size_t at = *first;
  for (;;) {
    std::optional<std::string_view> item = buf_string(buf, at);
    if (!item || item->empty()) return fail(3);
    ++transfer.count;
    if (*item == kEndOfSegment) break;
    if (transfer.calendar_header) {
      if (int rc = cal_header_item(transfer, *item); rc != 0) return fail(rc);
    }
    // The "AL" item that wrote the header is the first line.
    if (!transfer.calendar_header)
      if (int rc = write_line(transfer.stream.get(), *item); rc != 0) return fail(rc);
    at += item->size() + 1;
  }
  if ((transfer.flags & kXferCreated) && quor_trl_last(buf)) {
    if (std::fflush(transfer.stream.get()) != 0) return fail(6);
    transfer.reset();
  }
  return 0;
}

std::vector<std::pair<std::string_view, std::string>> cal_header_fields(const CalendarHeader& header) {
  std::vector<std::pair<std::string_view, std::string>> fields;
  for (const TextKey& k : kTextKeys) {
    std::string_view field(header.data() + k.offset, k.size);
    fields.emplace_back(k.key, field.substr(0, field.find('\0')));
  }
  for (const IntKey& k : kIntKeys) fields.emplace_back(k.key, std::to_string(get_int(header, k.offset)));
  return fields;
}

std::int32_t cal_data_offset(const CalendarHeader& header) { return get_int(header, kDataOffsetAt); }

std::size_t cal_header_items(const CalendarHeader& header, OutBuf& out, std::size_t capacity, ConnRecord& conn,
                             std::size_t& length_field) {
  for (const auto& [key, value] : cal_header_fields(header)) {
    std::string item = std::string(key) + "=" + value;
    if (buf_add_item_split(out, item, capacity, conn, kCalTag, length_field) != 0) return 2;
  }
  return out.pos;
}

namespace {

// Below 32 as a signed character: control characters, and bytes 128 to 255.
bool below_blank(char c) { return static_cast<signed char>(c) < 32; }

}  // namespace

int cal_file_items(const std::string& path, std::vector<std::string>& items, CalendarHeader* header_out) {
  FilePtr file(std::fopen(path.c_str(), "rbe"));
  if (!file) return 7;
  CalendarHeader header{};
  if (std::fread(header.data(), 1, header.size(), file.get()) != header.size()) return 5;
  if (header_out != nullptr) *header_out = header;
  for (const auto& [key, value] : cal_header_fields(header)) items.push_back(std::string(key) + "=" + value);
  std::int32_t offset = cal_data_offset(header);
  if (offset < 0 || std::fseek(file.get(), offset, SEEK_SET) != 0) return 5;
  // "AL=" and at most 255 characters of a line; a longer line in pieces.
  char line[259] = "AL=";
  while (std::fgets(line + 3, sizeof line - 3, file.get()) != nullptr)
    if (!below_blank(line[3])) items.emplace_back(line);
  return std::ferror(file.get()) ? 5 : 0;
}

std::size_t cal_to_buffer(const std::string& path, OutBuf& out, std::size_t capacity, ConnRecord& conn) {
  if (capacity <= out.pos + 73 && send_partial_buffer(conn, out) == 0) return 2;
  // A file that cannot be read leaves the reply untouched.
  std::vector<std::string> items;
  if (int rc = cal_file_items(path, items); rc != 0) return static_cast<std::size_t>(rc);
  std::size_t length_field = buf_begin_segment(out, kCalTag);
  for (const std::string& item : items)
    if (buf_add_item_split(out, item, capacity, conn, kCalTag, length_field) != 0) return 2;
  buf_end_segment(out, length_field);
  return out.pos;
}

std::size_t cal_record_to_buffer(std::span<const char> record, OutBuf& out, std::size_t capacity,
                                 ConnRecord& conn) {
  if (capacity <= out.pos + 73 && send_partial_buffer(conn, out) == 0) return 2;
  std::size_t length_field = buf_begin_segment(out, kCalTag);
  std::span<const char> data = record.subspan(smc::PDat);
  CalendarHeader header{};
  std::copy_n(data.begin(), std::min(header.size(), data.size()), header.begin());
  if (std::size_t rc = cal_header_items(header, out, capacity, conn, length_field); rc <= 8) return rc;
  // The lines, kept inside the record whatever its fields say.
  long offset = std::clamp<long>(get_int(header, kDataOffsetAt), 0, static_cast<long>(data.size()));
  long used = std::clamp<long>(buf_decimal(smc_get(record, smc::allocSz)), 0, static_cast<long>(record.size()));
  std::size_t at = smc::PDat + static_cast<std::size_t>(offset), end = static_cast<std::size_t>(used);
  while (at < end) {
    if (below_blank(record[at])) {
      ++at;
      continue;
    }
    // A line (in pieces of at most 256 characters) is copied behind an item
    // prefix that was cleared, so the item sent for it is empty.
    for (std::size_t n = 0; at < end && n < 256 && !below_blank(record[at]); ++n) ++at;
    if (buf_add_item_split(out, "", capacity, conn, kCalTag, length_field) != 0) return 2;
  }
  buf_end_segment(out, length_field);
  return out.pos;
}
