// Request buffers built around fuzzer bytes for the inbound transfers.
//
// The bytes after the first become the body of one segment with the given
// tag, framed correctly so that they reach the conversion (NULs in them
// separate items; without a final NUL the last item runs on into the
// segment's end mark). The first byte chooses how the request ends: split
// into two buffers (the first announcing more), with no trailer, or with a
// more-data value that is neither "Y" nor "N". Each buffer is exactly as
// long as its bytes, so a read past it is caught by AddressSanitizer.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#include "quortran.h"
#include "quortrl.h"
#include "quorutl.h"

inline std::vector<char> segment_request(std::string_view tag, const std::uint8_t* body, std::size_t size,
                                         std::string_view more) {
  std::vector<char> buf(BUFFER_MAX);
  OutBuf out(buf);
  tran_header_put("S", "N", out);
  std::size_t field = buf_begin_segment(out, tag);
  size = std::min(size, out.room() - 200);
  std::memcpy(buf.data() + out.pos, body, size);
  out.pos += size;
  buf_end_segment(out, field);
  if (!more.empty()) quor_trl_put(more, out);
  buf.resize(out.pos);
  return buf;
}

inline std::vector<std::vector<char>> segment_requests(std::string_view tag, const std::uint8_t* data,
                                                       std::size_t size) {
  if (size == 0) return {};
  std::uint8_t how = data[0];
  const std::uint8_t* body = data + 1;
  std::size_t length = size - 1;
  std::string_view last = (how & 2) ? "" : (how & 4) ? "X" : "N";
  if ((how & 1) == 0) return {segment_request(tag, body, length, last)};
  std::size_t half = length / 2;
  return {segment_request(tag, body, half, "Y"), segment_request(tag, body + half, length - half, last)};
}
