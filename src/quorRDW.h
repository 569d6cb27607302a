// Table transfers: the "ZZZRDW" segments of requests written row by row into
// a table file, and a table file turned into "ZZZRDW" segments of a reply.
//
//   "ZZZRDW" ... column count n, then the values row by row (n items per
//   row), "ZZZEOS"
//
// A table may span several request buffers; the state that carries it from
// one buffer to the next is a FileTransfer, which the calendar and list
// transfers share.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "quorRDWio.h"
#include "quortev.h"
#include "quortran.h"

inline constexpr std::string_view kRdwTag = "ZZZRDW";

// Most columns a table row may have: every field of a record takes at least
// three bytes and the record length is a 16-bit word.
inline constexpr int kMaxColumns = (UINT16_MAX - 2) / 3;

// FileTransfer::flags
inline constexpr int kXferCreated = 1;  // the calendar or list transfer created the file
inline constexpr int kXferOpened = 2;   // the table transfer opened it

inline constexpr std::size_t kCalendarHeaderSize = 404;
using CalendarHeader = std::array<char, kCalendarHeaderSize>;

// One inbound transfer in progress. Once its last buffer has been handled
// it is reset, so that a later transfer for the same agent starts afresh.
struct FileTransfer {
  int flags = 0;
  FilePtr stream;                                   // the file being written
  std::string path;                                 // the file to write
  int column_count = 0;                             // table transfers
  ColumnArray columns;                              // table: one buffer per column, reused per row
  std::unique_ptr<CalendarHeader> calendar_header;  // calendar: header not yet written
  int count = 0;                                    // rows or items written from the current buffer
  // Table: the end of the records so far, less than a page, not written
  // yet. Every write but a transfer's last ends on a page boundary, which
  // the file system takes faster than a write that leaves a page in part.
  std::vector<char> unwritten;

  // Writes what is left unwritten, closes the file and drops the buffers;
  // the path and count stay.
  void reset();
};

// Writes the rows of the buffer's "ZZZRDW" segment to the transfer's file,
// which the first buffer of a transfer creates (or truncates). 0; 4 no such
// segment (nothing touched); 1 no memory; 3 a damaged segment (a count
// outside 1..kMaxColumns, or an item that runs off the buffer); 6 a record
// could not be written; 7 the file could not be opened. A buffer whose
// trailer says no more data follows, or that has no trailer, ends the
// transfer.
int buffer_to_RDW(FileTransfer& transfer, InBuf buf);

// The first step of buffer_to_RDW: opens the file for the transfer's first
// buffer and sets up the column buffers. 0, 1, 3 or 7 as above.
int init_buf_toRDW(FileTransfer& transfer, std::string_view count_text);

// Appends the table file at `path` as "ZZZRDW" segments, sending full
// buffers on as partial replies. Returns the new write position; or a
// status of 8 or less: 0 the file holds no records (the segment with the
// count 0 is written), 1 no memory, 2 a partial send failed, 5 the first
// record is damaged, 7 the file cannot be opened. The file is read `piece`
// bytes at a time.
std::size_t RDWto_buffer(const std::string& path, OutBuf& out, std::size_t capacity, ConnRecord& conn,
                         std::size_t piece = std::size_t{1} << 17);
