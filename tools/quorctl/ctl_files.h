// quorctl's tools for the data files that travel in requests: table files
// to CSV and back, calendar files printed, and request buffers built around
// a table (from CSV), a calendar, a list or a selection list, to save and
// send with 'quorctl raw --file'.
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "ctl_commands.h"

// CSV as written and read here: fields separated by commas, a field that
// is empty or holds a comma, a double quote, a line break or a leading or
// trailing blank in double quotes (a double quote doubled), one row a line.
struct CtlCsv {
  std::vector<std::vector<std::string>> rows;
  std::string error;  // "line N: why"
};
CtlCsv ctl_csv_parse(std::string_view text);
std::string ctl_csv_row(const std::vector<std::string>& row);

// table-to-csv TABLE: the table's rows as CSV.
CtlOutcome ctl_table_to_csv(const std::string& table_path);

// csv-to-table CSV TABLE: writes the rows of `csv` (every row with the same
// number of values, each at most 259 bytes) as the table file `table_path`.
CtlOutcome ctl_csv_to_table(std::string_view csv, const std::string& table_path, bool json);

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

// The request's buffers: each with a transaction header of this process
// (continuation "Y" after the first), the object header (asking for a data
// file when data goes with it), the environment (date format, language) and
// the selection list in the first, as much of
// the data segment as fits, and a trailer announcing whether more follow.
CtlBuilt ctl_build_transaction(const CtlBuild& spec);

// build ... --out PREFIX: writes the buffers to PREFIX.1, PREFIX.2, ...
CtlOutcome ctl_build_files(const CtlBuild& spec, const std::string& prefix, bool json);
