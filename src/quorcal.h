// Calendar files and their "ZZZCAL" segments.
//
// A calendar file is a 404-byte binary header followed, from the header's
// data offset (404 in every file the daemon writes), by text lines. Header
// fields, integers in the host's byte order:
//
//   offset size  key          offset size  key
//        0    4  PI (text)        28   33  CU (text)
//        4    4  RL               61   33  UU (text)
//        8    4  YN               94  258  DS (text)
//       16    4  data offset     352    4  DO
//       20    4  FX              12, 356: not carried (zero)
//       24    4  UT
//
// A segment carries "PI=..", "CU=..", "UU=..", "DS=..", "RL=..", "YN=..",
// "FX=..", "UT=..", "DO=.." and then one "AL=<line>" item per line. Keys
// are matched by prefix, as they always have been: "A", "AL" and an empty
// key are all "AL"; "P" is "PI". Text values longer than their fields are
// cut.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "quorRDW.h"

inline constexpr std::string_view kCalTag = "ZZZCAL";
inline constexpr std::int32_t kCalDataOffset = 404;

// Writes the buffer's "ZZZCAL" segment to the transfer's file: header items
// fill the header, which is written when the first "AL" item arrives; from
// then on every item is a line. 0; 3 an empty item, one that runs off the
// buffer, or a line item without "="; 4 no such segment; 6 a write failed;
// 7 the file cannot be created. The file is closed when the buffer's
// trailer says no more data follows (or it has none).
int buffer_to_cal(FileTransfer& transfer, InBuf buf);

// Applies one "key=value" item to the transfer's pending header, writing the
// header for an "AL" key. 0, or 6 when that write failed.
int cal_header_item(FileTransfer& transfer, std::string_view item);

// Appends the header's nine items to the open segment. The new write
// position, or 2 when a partial send failed.
std::size_t cal_header_items(const CalendarHeader& header, OutBuf& out, std::size_t capacity, ConnRecord& conn,
                             std::size_t& length_field);

// The nine keyed header fields as (key, value text), in the order they are
// sent; and where the lines begin.
std::vector<std::pair<std::string_view, std::string>> cal_header_fields(const CalendarHeader& header);
std::int32_t cal_data_offset(const CalendarHeader& header);

// The items the calendar file at `path` is sent as: the header items, then
// "AL=" and each line (in pieces of at most 255 characters; empty lines and
// lines beginning with a control character or a byte above 127 left out).
// 0, 5 the header or a line could not be read, 7 the file cannot be opened.
// The header itself goes to `header` when given.
int cal_file_items(const std::string& path, std::vector<std::string>& items, CalendarHeader* header = nullptr);

// Appends the calendar file at `path` as "ZZZCAL" segments. The new write
// position, or 2 a partial send failed, 5 the header or a line could not be
// read, 7 the file cannot be opened.
std::size_t cal_to_buffer(const std::string& path, OutBuf& out, std::size_t capacity, ConnRecord& conn);

// The same for a calendar image in a request record's data area, whose
// lines end at the record's allocSz. Each line leaves as an empty "AL"
// item, which is what clients of this form have always received.
std::size_t cal_record_to_buffer(std::span<const char> record, OutBuf& out, std::size_t capacity,
                                 ConnRecord& conn);
