#include "ctl_files.h"

#include <fstream>
#include <sstream>

#include "quorRDW.h"
#include "quorcal.h"
#include "quorlsfl.h"
#include "quorpnfn.h"
#include "quortrl.h"
#include "quorutl.h"

namespace {

CtlOutcome failed(std::string why) { return {kCtlFailed, "", std::move(why)}; }

std::string line_error(std::size_t line, const std::string& why) { return "line " + std::to_string(line) + ": " + why; }

bool read_file(const std::string& path, std::string& bytes) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream s;
  s << in.rdbuf();
  bytes = s.str();
  return !in.bad();
}

}  // namespace

// ---------------------------------------------------------------------------
// CSV

CtlCsv ctl_csv_parse(std::string_view text) {
  CtlCsv csv;
  std::vector<std::string> row;
  std::string field;
  std::size_t line = 1, row_line = 1;
  enum class At { Start, Plain, Quoted, AfterQuote } at = At::Start;
  auto end_field = [&] {
    row.push_back(std::move(field));
    field.clear();
    at = At::Start;
  };
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (at == At::Quoted) {
      if (c == '"' && i + 1 < text.size() && text[i + 1] == '"') {
        field += '"';
        ++i;
      } else if (c == '"') {
        at = At::AfterQuote;
      } else {
        line += c == '\n';
        field += c;
      }
    } else if (c == ',') {
      end_field();
    } else if (c == '\n' || (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n')) {
      i += c == '\r';
      end_field();
      csv.rows.push_back(std::move(row));
      row.clear();
      row_line = ++line;
    } else if (at == At::AfterQuote) {
      csv.error = line_error(line, "text after a closing double quote");
      return csv;
    } else if (c == '"' && at == At::Start) {
      at = At::Quoted;
    } else {
      field += c;
      at = At::Plain;
    }
  }
  if (at == At::Quoted) {
    csv.error = line_error(row_line, "a double quote is never closed");
    return csv;
  }
  if (at != At::Start || !row.empty()) {
    end_field();
    csv.rows.push_back(std::move(row));
  }
  return csv;
}

std::string ctl_csv_row(const std::vector<std::string>& row) {
  std::string line;
  for (std::size_t i = 0; i < row.size(); ++i) {
    const std::string& v = row[i];
    if (i > 0) line += ',';
    bool quote = v.empty() || v.find_first_of(",\"\r\n") != std::string::npos || v.front() == ' ' || v.back() == ' ';
    if (!quote) {
      line += v;
      continue;
    }
    line += '"';
    for (char c : v) line += c == '"' ? std::string("\"\"") : std::string(1, c);
    line += '"';
  }
  return line + "\n";
}

// ---------------------------------------------------------------------------
// Table files

CtlOutcome ctl_table_to_csv(const std::string& table_path) {
  FilePtr table = rdw_open(table_path, 'R');
  if (!table) return failed("cannot open " + table_path);
  int columns = rdw_count_columns(table.get());
  if (columns < 0) return failed(table_path + ": the first record is damaged");
  ColumnArray buffers(static_cast<std::size_t>(columns));
  CtlOutcome outcome;
  std::size_t record = 0;
  for (int rc; (rc = rdw_read_record(table.get(), buffers, columns)) != -1;) {
    ++record;
    if (rc != 0) {
      outcome.status = kCtlFailed;
      outcome.error = table_path + ": record " + std::to_string(record) + " is damaged";
      return outcome;
    }
    std::vector<std::string> row;
    for (const ColumnBuffer& b : buffers) row.emplace_back(b.data());
    outcome.out += ctl_csv_row(row);
  }
  return outcome;
}

CtlOutcome ctl_csv_to_table(std::string_view csv_text, const std::string& table_path, bool json) {
  CtlCsv csv = ctl_csv_parse(csv_text);
  if (!csv.error.empty()) return {kCtlUsage, "", "CSV " + csv.error};
  std::size_t columns = csv.rows.empty() ? 0 : csv.rows.front().size();
  for (std::size_t r = 0; r < csv.rows.size(); ++r) {
    if (csv.rows[r].size() != columns)
      return {kCtlUsage, "", "CSV row " + std::to_string(r + 1) + " has " + std::to_string(csv.rows[r].size()) +
                                 " values, the first has " + std::to_string(columns)};
    for (const std::string& v : csv.rows[r])
      if (v.size() > kMaxFieldLength || v.find('\0') != std::string::npos)
        return {kCtlUsage, "", "CSV row " + std::to_string(r + 1) +
                                   ": a value is longer than 259 bytes or holds a NUL byte"};
  }
  FilePtr table = rdw_open(table_path, 'W');
  if (!table) return failed("cannot create " + table_path);
  for (const auto& row : csv.rows) {
    std::vector<std::string_view> values(row.begin(), row.end());
    if (rdw_write_record(table.get(), values) != 0) return failed("cannot write " + table_path);
  }
  if (std::fflush(table.get()) != 0) return failed("cannot write " + table_path);
  std::string rows = std::to_string(csv.rows.size()), cols = std::to_string(columns);
  return {kCtlOk,
          json ? "{\"rows\":" + rows + ",\"columns\":" + cols + "}\n"
               : "wrote " + rows + " rows of " + cols + " columns to " + table_path + "\n",
          ""};
}

// ---------------------------------------------------------------------------
// Calendar files

CtlOutcome ctl_calendar_show(const std::string& path, bool json) {
  std::vector<std::string> items;
  CalendarHeader header{};
  int rc = cal_file_items(path, items, &header);
  if (rc == 7) return failed("cannot open " + path);
  if (rc != 0) return failed(path + ": not a calendar file (its header or a line cannot be read)");
  std::vector<std::pair<std::string_view, std::string>> fields = cal_header_fields(header);
  std::string out;
  if (json) {
    out = "{";
    for (const auto& [key, value] : fields) out += ctl_json_string(key) + ":" + ctl_json_string(value) + ",";
    out += "\"data_offset\":" + std::to_string(cal_data_offset(header)) + ",\"lines\":[";
    for (std::size_t i = fields.size(); i < items.size(); ++i)
      out += (i > fields.size() ? "," : "") + ctl_json_string(std::string_view(items[i]).substr(3));
    out += "]}\n";
  } else {
    for (const auto& [key, value] : fields) out += std::string(key) + ": " + value + "\n";
    out += "data offset: " + std::to_string(cal_data_offset(header)) + "\n";
    for (std::size_t i = fields.size(); i < items.size(); ++i) {
      std::string_view line = std::string_view(items[i]).substr(3);
      out += "AL: " + std::string(line);
      if (!line.ends_with('\n')) out += "\n";  // a piece of a longer line
    }
  }
  return {kCtlOk, std::move(out), ""};
}

// ---------------------------------------------------------------------------
// Building requests

namespace {

// The data segment's items; for a table the first is the column count,
// which every buffer's segment repeats.
struct DataItems {
  std::string tag;
  std::vector<std::string> items;
  bool repeat_first = false;
  std::size_t group = 1;  // items that must share a buffer: a table row
  std::string error;
};

DataItems data_error(std::string why) {
  DataItems d;
  d.error = std::move(why);
  return d;
}

DataItems data_items(const CtlBuild& spec) {
  DataItems d;
  switch (spec.data) {
    case CtlBuild::Data::None:
      break;
    case CtlBuild::Data::Table: {
      std::string text;
      if (!read_file(spec.source, text)) return data_error("cannot read " + spec.source);
      CtlCsv csv = ctl_csv_parse(text);
      if (!csv.error.empty()) return data_error(spec.source + ": " + csv.error);
      if (csv.rows.empty()) return data_error(spec.source + ": no rows");
      d.tag = kRdwTag;
      d.repeat_first = true;
      d.group = csv.rows.front().size();
      d.items.push_back(std::to_string(d.group));
      for (std::size_t r = 0; r < csv.rows.size(); ++r) {
        if (csv.rows[r].size() != csv.rows.front().size())
          return data_error(spec.source + ": row " + std::to_string(r + 1) + " has another number of values");
        for (std::string& v : csv.rows[r]) d.items.push_back(std::move(v));
      }
      break;
    }
    case CtlBuild::Data::Calendar: {
      d.tag = kCalTag;
      int rc = cal_file_items(spec.source, d.items);
      if (rc != 0) return data_error((rc == 7 ? "cannot open " : "not a calendar file: ") + spec.source);
      break;
    }
    case CtlBuild::Data::Commands:
      d.tag = "ZZZCMD";
      for (const std::string& line : spec.commands)
        if (!line.empty()) d.items.push_back(line);
      break;
    case CtlBuild::Data::List: {
      std::string text;
      if (!read_file(spec.source, text)) return data_error("cannot read " + spec.source);
      d.tag = "ZZZLST";
      std::istringstream lines(text);
      for (std::string line; std::getline(lines, line);)
        if (!line.empty()) d.items.push_back(line);
      break;
    }
  }
  return d;
}

// A new buffer with the transaction header, object header and, in the
// first one, the selection list.
void begin_buffer(const CtlBuild& spec, bool first, OutBuf& out) {
  tran_header_put(spec.type, first ? "N" : "Y", out);
  ObjectHeader hdr;
  hdr.object = spec.object;
  hdr.action = spec.command;
  if (!spec.format.empty()) hdr.data_format = spec.format;
  if (spec.data != CtlBuild::Data::None && spec.data != CtlBuild::Data::Commands) hdr.filename = "Y";
  quor_hdr_write(hdr, out);
  if (first && (!spec.date_format.empty() || !spec.language.empty())) {
    std::size_t field = buf_begin_segment(out, "ZZZENV");
    for (auto [name, v] : {std::pair{"DAT", &spec.date_format}, {"LAN", &spec.language}}) {
      buf_add_item(out, name);
      buf_add_item(out, *v);
    }
    buf_end_segment(out, field);
  }
  if (first && !spec.selections.empty()) {
    std::size_t field = buf_begin_segment(out, kPndTag);
    buf_add_item(out, std::to_string(spec.selections.size()));
    for (const auto& s : spec.selections)
      for (const std::string& part : s) buf_add_item(out, part);
    buf_end_segment(out, field);
  }
}

}  // namespace

namespace {

CtlBuilt build_error(std::string why) {
  CtlBuilt built;
  built.error = std::move(why);
  return built;
}

}  // namespace

CtlBuilt ctl_build_transaction(const CtlBuild& spec) {
  CtlBuilt built;
  if (spec.selections.size() > 100) return build_error("at most 100 selections");
  DataItems data = data_items(spec);
  if (!data.error.empty()) return build_error(data.error);
  std::size_t next = 0;
  do {
    std::vector<char> buf(BUFFER_MAX);
    OutBuf out(buf);
    begin_buffer(spec, built.buffers.empty(), out);
    if (!data.tag.empty()) {
      std::size_t field = buf_begin_segment(out, data.tag);
      if (data.repeat_first) {
        buf_add_item(out, data.items.front());
        next = std::max<std::size_t>(next, 1);
      }
      // Whole groups (table rows), as long as they leave room for the end
      // of the segment and the trailer.
      std::size_t added = 0;
      while (next < data.items.size()) {
        std::size_t end = std::min(next + data.group, data.items.size()), need = 0;
        for (std::size_t i = next; i < end; ++i) need += data.items[i].size() + 1;
        if (out.pos + need + kSplitMargin + 32 > BUFFER_MAX) break;
        for (; next < end; ++next, ++added) buf_add_item(out, data.items[next]);
      }
      if (added == 0 && next < data.items.size()) return build_error("a row or item is too long for a request buffer");
      buf_end_segment(out, field);
    }
    bool more = next < data.items.size();
    quor_trl_put(more ? "Y" : "N", out);
    CtlRequest request = ctl_request_from(out);
    if (!request.error.empty()) return build_error(request.error);
    built.buffers.push_back(std::move(request.bytes));
  } while (next < data.items.size());
  return built;
}

CtlOutcome ctl_build_files(const CtlBuild& spec, const std::string& prefix, bool json) {
  CtlBuilt built = ctl_build_transaction(spec);
  if (!built.error.empty()) return {kCtlUsage, "", built.error};
  std::string out = json ? "{\"files\":[" : "";
  for (std::size_t i = 0; i < built.buffers.size(); ++i) {
    std::string name = prefix + "." + std::to_string(i + 1);
    std::ofstream file(name, std::ios::binary | std::ios::trunc);
    file.write(built.buffers[i].data(), static_cast<std::streamsize>(built.buffers[i].size()));
    file.close();
    if (!file) return failed("cannot write " + name);
    out += json ? (i > 0 ? "," : "") + ctl_json_string(name)
                : name + " (" + std::to_string(built.buffers[i].size()) + " bytes)\n";
  }
  if (json) out += "]}\n";
  return {kCtlOk, std::move(out), ""};
}
