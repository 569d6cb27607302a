// The request record (SMCDAT) that an agent finds in its shared-memory
// segment, and the debug dumps of request buffers and records.
//
// The segment is 33502 bytes; the record starts at byte 190 (the bytes
// before it hold the two transport identity blocks). The record is a binary
// interface to separately built agents, so its layout is fixed: the 32-bit
// layout, at the byte offsets below, from the start of the record. Text
// fields are NUL-terminated; every copy into one is bounded by the field.
//
//   offset  size  field          offset  size  field
//        0     4  prev              402    33  username
//        4     4  next              435     9  gid
//        8     8  allocSz           444     9  pid
//       16     4  extention         453     9  source ("MOQuor")
//       20    12  row_count         462    65  node
//       32     4  cmdfile           527     9  date
//       36   257  fileName          536    12  time
//      293     9  lineOfCmd         548     4  alignment
//      302    20  command           552    50  forFutureUse
//      322    20  commandSyn        602     1  format (64 'P', else 16)
//      342    20  verbLabel         603     1  flag (64)
//      362    20  object            604     -  PDat, the data area
//      382    20  objectSyn
//
// The data area holds either a calendar image or the column selection list:
// count (decimal text) at 604, then 100 slots each of column names (20
// bytes) at 907, operators (3 bytes) at 2907 and values (260 bytes) at 3207.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <string_view>

#include "quortran.h"
#include "quortrl.h"
#include "quorutl.h"

inline constexpr std::size_t kShmSize = 33502;
inline constexpr std::size_t kRecordOffset = 190;
inline constexpr std::size_t kRecordSize = kShmSize - kRecordOffset;

// One fixed field of the record.
struct SmcField {
  std::size_t offset;
  std::size_t size;
};

namespace smc {
inline constexpr SmcField prev{0, 4}, next{4, 4}, allocSz{8, 8}, extention{16, 4}, row_count{20, 12},
    cmdfile{32, 4}, fileName{36, 257}, lineOfCmd{293, 9}, command{302, 20}, commandSyn{322, 20},
    verbLabel{342, 20}, object{362, 20}, objectSyn{382, 20}, username{402, 33}, gid{435, 9}, pid{444, 9},
    source{453, 9}, node{462, 65}, date{527, 9}, time{536, 12}, alignment{548, 4}, forFutureUse{552, 50},
    format{602, 1}, flag{603, 1};
inline constexpr std::size_t PDat = 604;

// The column selection list inside PDat.
inline constexpr SmcField csl_count{604, 303};
inline constexpr std::size_t csl_max = 100;
inline constexpr SmcField csl_name{907, 20}, csl_oper{2907, 3}, csl_value{3207, 260};
// Slot `i` of one of the three arrays.
constexpr SmcField slot(SmcField array, std::size_t i) { return {array.offset + i * array.size, array.size}; }

static_assert(flag.offset + flag.size == PDat);
static_assert(csl_name.offset == csl_count.offset + csl_count.size);
static_assert(csl_oper.offset == csl_name.offset + csl_max * csl_name.size);
static_assert(csl_value.offset == csl_oper.offset + csl_max * csl_oper.size);
static_assert(csl_value.offset + csl_max * csl_value.size <= kRecordSize);
}  // namespace smc

inline constexpr std::uint8_t kFormatPacked = 64;  // "FMT" "P"
inline constexpr std::uint8_t kFormatPlain = 16;
inline constexpr std::uint8_t kRecordFlag = 64;

// Writes `text` into `field`: at most size - 1 bytes, the rest of the field
// zeroed, so the field always ends with a NUL.
void smc_put(std::span<char> record, SmcField field, std::string_view text);
// The text of `field`, up to its first NUL (or the whole field).
std::string_view smc_get(std::span<const char> record, SmcField field);

// Fills a zeroed record from the request's transaction and object headers.
// When the object header asks for a data file ("FN" beginning with 'Y'),
// a new, empty, private temporary file is created for it and its name put
// in fileName (left empty when none can be made). Returns that name.
std::string quor_smc_fill(std::span<char> record, const TransactionHeader& tran, const ObjectHeader& hdr);

// Debug dumps to `out`: a request buffer up to `length` or "ZZZEOD"; the
// items of a segment from `first` up to "ZZZEOS"; a whole record.
void quor_dump_buffer(InBuf buf, std::size_t length, std::FILE* out = stdout);
void quor_dump_items(InBuf buf, std::size_t first, std::FILE* out = stdout);
void quor_dump_record(std::span<const char> record, std::FILE* out = stdout);
