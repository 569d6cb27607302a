#include "quortran.h"

#include <climits>
#include <cstdio>
#include <cstring>

#include "quorRDWio.h"

// ---------------------------------------------------------------------------
// Writers

namespace {

// Copies `bytes` and a NUL at the write position, or marks the overflow.
void put_string(OutBuf& out, std::string_view bytes) {
  if (out.overflow || out.room() < bytes.size() + 1) {
    out.overflow = true;
    return;
  }
  if (!bytes.empty()) std::memcpy(out.data.data() + out.pos, bytes.data(), bytes.size());
  out.data[out.pos + bytes.size()] = '\0';
  out.pos += bytes.size() + 1;
}

std::string_view up_to_nul(std::string_view text) { return text.substr(0, text.find('\0')); }

}  // namespace

void buf_add_item(OutBuf& out, std::string_view text) { put_string(out, up_to_nul(text)); }

void buf_add_bytes(OutBuf& out, std::string_view bytes) { put_string(out, bytes); }

std::size_t buf_begin_segment(OutBuf& out, std::string_view tag) {
  put_string(out, up_to_nul(tag));
  put_string(out, kLengthMark);
  std::size_t length_field = out.pos;
  put_string(out, "00000");
  return length_field;
}

void buf_end_segment(OutBuf& out, std::size_t length_field) {
  put_string(out, kEndOfSegment);
  if (out.overflow || length_field + 6 > out.pos) return;
  // The length of a segment that fits a message has at most five digits, so
  // this overwrites exactly the placeholder and its NUL.
  buf_put_length(out.data.data() + length_field, out.pos - length_field);
}

void buf_put_length(char* to, std::size_t value) {
  char digits[6] = {' ', ' ', ' ', ' ', ' ', '\0'};
  std::size_t at = 5;
  do {
    digits[--at] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0 && at > 0);
  std::memcpy(to, digits, sizeof digits);
}

int buf_add_item_split(OutBuf& out, std::string_view item, std::size_t capacity, ConnRecord& conn,
                       std::string_view tag, std::size_t& length_field) {
  std::string_view text = up_to_nul(item);
  if (capacity <= text.size() + kSplitMargin + out.pos) {
    buf_end_segment(out, length_field);
    if (send_partial_buffer(conn, out) == 0) return 2;
    length_field = buf_begin_segment(out, tag);
  }
  buf_add_item(out, text);
  return 0;
}

// ---------------------------------------------------------------------------
// Readers

long buf_decimal(std::string_view text) {
  std::size_t i = 0;
  auto is_space = [](char c) { return c == ' ' || (c >= '\t' && c <= '\r'); };
  while (i < text.size() && is_space(text[i])) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
    negative = text[i] == '-';
    ++i;
  }
  long value = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    int digit = text[i] - '0';
    if (value > (LONG_MAX - digit) / 10) return negative ? LONG_MIN : LONG_MAX;
    value = value * 10 + digit;
  }
  return negative ? -value : value;
}

long buf_bounded_len(InBuf buf, std::size_t at) {
  if (at >= buf.size()) return -1;
  const void* nul = std::memchr(buf.data() + at, '\0', buf.size() - at);
  if (nul == nullptr) return -1;
  return static_cast<const char*>(nul) - (buf.data() + at);
}

std::optional<std::string_view> buf_string(InBuf buf, std::size_t at) {
  long n = buf_bounded_len(buf, at);
  if (n < 0) return std::nullopt;
  return std::string_view(buf.data() + at, static_cast<std::size_t>(n));
}

long buf_segment_length(InBuf buf, std::size_t at) {
  auto mark = buf_string(buf, at);
  if (!mark || *mark != kLengthMark) return -1;
  // The length field must end inside the buffer too; a field that runs off
  // the end is as unusable as one that says 0.
  auto field = buf_string(buf, at + kLengthMark.size() + 1);
  if (!field) return 0;
  long value = buf_decimal(*field);
  return (value >= 0 && value <= static_cast<long>(BUFFER_MAX)) ? value : 0;
}

std::optional<std::size_t> buf_find_segment(InBuf buf, std::string_view tag) {
  std::size_t at = LENGTH_PREFIX;
  for (;;) {
    auto current = buf_string(buf, at);
    if (!current || *current == kEndOfData) return std::nullopt;
    std::size_t mark = at + current->size() + 1;
    long length = buf_segment_length(buf, mark);
    if (length < 1) return std::nullopt;
    std::size_t length_field = mark + kLengthMark.size() + 1;
    // Items start after the five-digit length field and its NUL; a buffer
    // that ends before that (a shorter field at its very end) holds none.
    if (*current == tag) return length_field + 6 <= buf.size() ? std::optional(length_field + 6) : std::nullopt;
    at = length_field + static_cast<std::size_t>(length);
  }
}

std::optional<std::size_t> buf_get_items(InBuf buf, std::size_t first,
                                         std::span<std::string_view> values,
                                         std::span<const std::string_view> names) {
  for (auto& v : values) v = {};
  std::size_t count = values.size() < names.size() ? values.size() : names.size();
  std::size_t at = first;
  for (;;) {
    auto name = buf_string(buf, at);
    if (!name) return std::nullopt;
    at += name->size() + 1;
    if (*name == kEndOfSegment || *name == kEndOfData) return at;
    auto value = buf_string(buf, at);
    if (!value) return std::nullopt;
    at += value->size() + 1;
    for (std::size_t i = 0; i < count; ++i) {
      if (names[i] == *name) {
        values[i] = *value;
        break;
      }
    }
  }
}

std::optional<std::size_t> buf_read_segment(InBuf buf, std::string_view tag,
                                            std::span<std::string_view> values,
                                            std::span<const std::string_view> names) {
  auto first = buf_find_segment(buf, tag);
  if (!first) return std::nullopt;
  return buf_get_items(buf, *first, values, names);
}
