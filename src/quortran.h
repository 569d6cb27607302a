// Segmented text buffer: the framing of every request and reply.
//
// A message is one flat buffer of at most 32767 bytes:
//
//   offset 0   6 bytes  length prefix: total length printed "%5ld" and a NUL
//   offset 6            segments, back to back
//   end                 "ZZZEOD" and its NUL
//
// A segment is NUL-terminated strings: its tag ("ZZZ" + three upper-case
// letters), "ZZZLEN", the segment length L printed "%5ld", name/value item
// pairs, and "ZZZEOS". L counts from the first byte of the length field to the
// NUL of "ZZZEOS" inclusive, so a segment without items has L = 13 and the
// next segment starts L bytes after the length field.
//
// Writers append at a running position in an OutBuf. Unlike the bare framing,
// they never write past the buffer: a write that does not fit writes nothing
// and sets OutBuf::overflow, and a caller that sees it sends nothing.
//
// Readers look only at the bytes of the InBuf they are given; every string
// they take must end with a NUL inside it, or the read fails. Offsets are
// byte indexes into the buffer.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string_view>

inline constexpr std::size_t BUFFER_MAX = 32767;
inline constexpr std::size_t LENGTH_PREFIX = 6;
inline constexpr std::size_t kMinMessage = LENGTH_PREFIX + 1;  // 7

inline constexpr std::string_view kEndOfSegment = "ZZZEOS";
inline constexpr std::string_view kEndOfData = "ZZZEOD";
inline constexpr std::string_view kLengthMark = "ZZZLEN";

// Bytes a segment needs beyond its items: tag, "ZZZLEN", length, "ZZZEOS".
inline constexpr std::size_t kSegmentOverhead = 7 + 7 + 6 + 7;
// Room that a partial reply keeps free for closing the open segment, the
// trailer segment and "ZZZEOD".
inline constexpr std::size_t kSplitMargin = 46;

struct ConnRecord;

// ---------------------------------------------------------------------------
// Writers

struct OutBuf {
  std::span<char> data;             // the whole buffer, length prefix included
  std::size_t pos = LENGTH_PREFIX;  // next byte to write
  bool overflow = false;            // a write did not fit; do not send

  explicit OutBuf(std::span<char> d, std::size_t start = LENGTH_PREFIX) : data(d), pos(start) {}
  std::size_t capacity() const { return data.size(); }
  std::size_t room() const { return pos < data.size() ? data.size() - pos : 0; }
};

// Appends `text` up to its first NUL, then a NUL. An empty text is an empty
// value: one NUL byte.
void buf_add_item(OutBuf& out, std::string_view text);

// Appends `bytes` exactly, embedded NULs included, then a NUL. For tools
// that build damaged messages on purpose; the daemon uses buf_add_item.
void buf_add_bytes(OutBuf& out, std::string_view bytes);

// Writes the tag, "ZZZLEN" and the placeholder "00000"; returns the position
// of the length field, which buf_end_segment needs.
std::size_t buf_begin_segment(OutBuf& out, std::string_view tag);

// Writes "ZZZEOS" and prints the segment length over the placeholder.
void buf_end_segment(OutBuf& out, std::size_t length_field);

// Writes `value` (below 100000) as "%5ld" prints it, and a NUL: six bytes.
void buf_put_length(char* to, std::size_t value);

// Appends an item to a segment that may outgrow the buffer: when fewer than
// strlen(item) + 46 bytes are left before `capacity`, closes the segment,
// sends the buffer as a partial reply (send_partial_buffer), and reopens a
// segment with the same tag in the restarted buffer, updating `length_field`.
// Returns 0, or 2 when the partial send failed (nothing more may be written).
int buf_add_item_split(OutBuf& out, std::string_view item, std::size_t capacity, ConnRecord& conn,
                       std::string_view tag, std::size_t& length_field);

// ---------------------------------------------------------------------------
// Readers

using InBuf = std::span<const char>;

// Decimal conversion as the wire uses it: leading white space skipped, an
// optional sign, digits up to the first non-digit; saturates instead of
// overflowing. Only looks inside `text`.
long buf_decimal(std::string_view text);

// Length of the NUL-terminated string at `at`, or -1 when it has no NUL
// inside the buffer (or `at` is outside it).
long buf_bounded_len(InBuf buf, std::size_t at);

// The string at `at` when it ends inside the buffer.
std::optional<std::string_view> buf_string(InBuf buf, std::size_t at);

// -1 when the string at `at` is not exactly "ZZZLEN"; otherwise the value of
// the string 7 bytes further when it lies in 0..32767, else 0.
long buf_segment_length(InBuf buf, std::size_t at);

// Offset of the first item name of the first segment tagged `tag`, scanning
// from offset 6. Stops (nothing found) at "ZZZEOD", at the first segment
// that is not well framed, or when the buffer ends before the offset.
std::optional<std::size_t> buf_find_segment(InBuf buf, std::string_view tag);

// Reads the items of one segment, from `first` up to "ZZZEOS" or "ZZZEOD":
// values[i] receives the value of the item named names[i] (later duplicates
// win; unknown names are skipped; absent items stay empty). Returns the
// offset just after the terminating mark, or nothing when a string runs off
// the end of the buffer. The views point into `buf`.
std::optional<std::size_t> buf_get_items(InBuf buf, std::size_t first,
                                         std::span<std::string_view> values,
                                         std::span<const std::string_view> names);

// buf_find_segment + buf_get_items: the items of the segment tagged `tag`.
std::optional<std::size_t> buf_read_segment(InBuf buf, std::string_view tag,
                                            std::span<std::string_view> values,
                                            std::span<const std::string_view> names);
