// The column selection list: a count and up to 100 triples of column name,
// relational operator and value, carried in a "ZZZPND" segment
//
//   "ZZZPND" ... n, name 1, operator 1, value 1, ..., "ZZZEOS"
//
// and handed to the agent in the request record (PDat.csl). The daemon
// passes operators and values on without interpreting them. Every copy is
// bounded by its slot (names 19, operators 2, values 259 characters); a
// count above 100 is recorded as 100, since the record has no more slots.
#pragma once

#include <cstddef>
#include <span>

#include "quortran.h"

inline constexpr std::string_view kPndTag = "ZZZPND";

// Copies the request's selection list into the record. Returns the offset
// after the last item copied, or 0 when the request carries none (which is
// normal; the record is then left alone).
std::size_t quor_pnd_to_record(std::span<char> record, InBuf buf);

// Appends the record's selection list as a "ZZZPND" segment; returns the new
// write position.
std::size_t quor_pnd_from_record(std::span<const char> record, OutBuf& out);
