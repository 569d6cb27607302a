// Table files ("RDW" files) record by record, and the partial reply send.
//
// A table file has no header: it is a sequence of records
//
//   L (16 bits) | len 1 (16 bits), field 1 | ... | len n, field n | L
//
// with L = 2 + the sum of (2 + len) over the fields, counting the leading
// word and the fields but not the closing word. Words are in the host's byte
// order. An empty value is written with length 1 and one NUL byte, so no
// field length is 0. The column count is not stored; every record of a
// file has the same number of fields, and readers take it from the first.
// Readers accept fields of at most 259 bytes (a 260-byte column buffer with
// its NUL) and strip trailing blanks.
//
// A reply that does not fit one buffer goes out as several. Every buffer
// but the last is sent as a conversation (the client answers it) from a
// temporary registration "QUOR.<daemon pid>", which is opened and closed
// around each send; the last buffer is the plain reply.
#pragma once

#include <array>
#include <cstddef>
#include <cstdio>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "quortev.h"
#include "quortran.h"
#include "textlines.h"

inline constexpr std::size_t COLUMN_BUFFER_SIZE = 260;
inline constexpr std::size_t kMaxFieldLength = COLUMN_BUFFER_SIZE - 1;

// One column's value, NUL-terminated; the array holds one per column.
using ColumnBuffer = std::array<char, COLUMN_BUFFER_SIZE>;
using ColumnArray = std::vector<ColumnBuffer>;

// 'R' opens for reading, 'W' creates or truncates for writing and reading,
// any other letter opens for reading and writing. None for an empty path.
FilePtr rdw_open(const std::string& path, char mode);

// Fields in the first record: 0 for an empty file, -1 when the first record
// is damaged (or has a field longer than 259 bytes). Rewinds before and
// after.
int rdw_count_columns(std::FILE* stream);

// Reads the next record into the first `count` column buffers, each used up
// to `size` bytes. 0 a good record, 1 a damaged one, -1 end of file.
int rdw_read_record(std::FILE* stream, ColumnArray& columns, int count, std::size_t size = COLUMN_BUFFER_SIZE);

// Appends one record of `values`. 0, or 1 when writing failed or the record
// would be longer than its 16-bit length word can say.
int rdw_write_record(std::FILE* stream, std::span<const std::string_view> values);

// The size of the record of `values`, its two length words included; 0 when
// it would be too long to write.
std::size_t rdw_record_size(std::span<const std::string_view> values);

// Writes that record, rdw_record_size(values) bytes, at `dest`.
void rdw_encode_record(char* dest, std::span<const std::string_view> values);

// Frees the column buffers and closes the stream.
void rdw_release(FilePtr& stream, ColumnArray& columns);

// Ends the buffer with a trailer "MD" = "Y" and "ZZZEOD", sends it as a
// partial reply to the sender of `conn`'s request, and restarts the buffer at
// position 6 with a transaction header of `transcode` (normally "S") and
// continuation "Y". Returns the new write position, or 0 when the buffer
// could not be sent (its failure is then in conn.fb).
std::size_t send_partial_buffer(ConnRecord& conn, OutBuf& out, std::string_view transcode = "S");

// The name of the temporary registration: "QUOR.<pid>".
std::string quor_partial_name();
