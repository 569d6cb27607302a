// quorctl's tools for the data files that travel in requests: table files
// to CSV and back, calendar files printed, and request buffers built around
// a table (from CSV), a calendar, a list or a selection list, to save and
// send with 'quorctl raw --file'.
#pragma once

#include <array>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ctl_commands.h"
#include "ctl_csv.h"

// table-to-csv TABLE: the table's rows as CSV.
CtlOutcome ctl_table_to_csv(const std::string& table_path);

// csv-to-table CSV TABLE: writes the rows of `csv` (every row with the same
// number of values, each at most 259 bytes) as the table file `table_path`,
// a piece at a time. The file is replaced only once it is complete.
CtlOutcome ctl_csv_to_table(CtlCsvReader& csv, const std::string& table_path, bool json);

// calendar FILE: the header fields and the lines of a calendar file.
CtlOutcome ctl_calendar_show(const std::string& path, bool json);

// What a built request carries.
struct CtlBuild {
  std::string type = "S";  // message type
  std::string object;      // OBJ
  std::string command;     // CMD
  std::string format;      // FMT ("P": packed)
  std::vector<std::array<std::string, 3>> selections;  // name, operator, value
  std::string date_format;  // the agent's MOX_DATEFMT, when set
  std::string language;     // chooses the agent's message directory, when set
  enum class Data { None, Table, Calendar, List, Commands } data = Data::None;
  std::string source;                  // the CSV, calendar or list file
  std::vector<std::string> commands;   // Commands: the command lines ("ZZZCMD")
};

struct CtlBuilt {
  std::vector<std::vector<char>> buffers;  // plain buffers, in sending order
  std::string error;
};

// Takes each plain buffer of a request as soon as it is built (its length
// prefix written); false stops the building.
using CtlBufferSink = std::function<bool(std::span<char> plain)>;

struct CtlBuildResult {
  std::string error;          // why the request cannot be built; empty when it was, or the sink stopped
  std::size_t delivered = 0;  // buffers the sink took
};

// The request's buffers, built and handed to `sink` one at a time: a table
// is read a piece at a time, so it may be of any size; an error in it may
// come after buffers were delivered.
CtlBuildResult ctl_build_stream(const CtlBuild& spec, const CtlBufferSink& sink);

// The last buffer of a request whose table turned out to be wrong after
// some buffers went out: a table segment with the column count 0, which the
// daemon refuses, dropping the transaction, its partial table and its
// agent's segment, and answering with an error.
std::vector<char> ctl_cancel_request(const CtlBuild& spec);

// The request's buffers: each with a transaction header of this process
// (continuation "Y" after the first), the object header (asking for a data
// file when data goes with it), the environment (date format, language) and
// the selection list in the first, as much of
// the data segment as fits, and a trailer announcing whether more follow.
// All of them at once (ctl_build_stream collected).
CtlBuilt ctl_build_transaction(const CtlBuild& spec);

// build ... --out PREFIX: writes the buffers to PREFIX.1, PREFIX.2, ...
// as they are built; none stay when the request cannot be built whole.
CtlOutcome ctl_build_files(const CtlBuild& spec, const std::string& prefix, bool json);
