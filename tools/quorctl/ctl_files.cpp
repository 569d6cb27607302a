#include "ctl_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <utility>

#include "ctl_csv.h"
#include "quorRDW.h"
#include "quorcal.h"
#include "quorlsfl.h"
#include "quorpnfn.h"
#include "quortrl.h"
#include "quorutl.h"

namespace {

CtlOutcome failed(std::string why) { return {kCtlFailed, "", std::move(why)}; }

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
// Table files

CtlOutcome ctl_table_to_csv(const std::string& table_path) {
  FilePtr table = rdw_open(table_path, 'R');
  if (!table) return failed("cannot open " + table_path);
  int columns = rdw_count_columns(table.get());
  if (columns < 0) return failed(table_path + ": the first record is damaged");
  ColumnArray buffers(static_cast<std::size_t>(columns));
  std::vector<std::string_view> row(buffers.size());
  CtlOutcome outcome;
  std::size_t record = 0;
  for (int rc; (rc = rdw_read_record(table.get(), buffers, columns)) != -1;) {
    ++record;
    if (rc != 0) {
      outcome.status = kCtlFailed;
      outcome.error = table_path + ": record " + std::to_string(record) + " is damaged";
      return outcome;
    }
    for (std::size_t c = 0; c < buffers.size(); ++c) row[c] = buffers[c].data();
    ctl_csv_append_row(row, outcome.out);
  }
  return outcome;
}

namespace {

// The table file csv-to-table writes. A regular file (or a new one) is
// written under a temporary name beside it and renamed over it once
// complete, so that a conversion that fails half-way leaves the old table
// as it was; it keeps the old file's mode (and owner, for root). Anything
// else (a device, a pipe), or a file in a directory where no new file can
// be made, is written in place.
class TableOut {
 public:
  ~TableOut() {
    if (fd_ >= 0) close(fd_);
    if (!temporary_.empty()) unlink(temporary_.c_str());
  }

  bool open(const std::string& path) {
    struct stat st {};
    bool exists = stat(path.c_str(), &st) == 0;
    if (!exists || S_ISREG(st.st_mode)) {
      char* real = exists ? realpath(path.c_str(), nullptr) : nullptr;
      target_ = real != nullptr ? real : path;
      std::free(real);
      std::string name = target_ + ".XXXXXX";
      fd_ = mkostemp(name.data(), O_CLOEXEC);
      if (fd_ >= 0) {
        temporary_ = name;
        mode_t mask = umask(0);
        umask(mask);
        (void)!fchmod(fd_, exists ? st.st_mode & 07777 : 0666 & ~mask);
        if (exists && geteuid() == 0) (void)!fchown(fd_, st.st_uid, st.st_gid);
        return true;
      }
    }
    fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    return fd_ >= 0;
  }

  bool write(const char* bytes, std::size_t size) {
    while (size > 0) {
      ssize_t n = ::write(fd_, bytes, size);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      bytes += n;
      size -= static_cast<std::size_t>(n);
    }
    return true;
  }

  bool commit() {
    int fd = std::exchange(fd_, -1);
    if (close(fd) != 0) return false;
    if (temporary_.empty()) return true;
    if (rename(temporary_.c_str(), target_.c_str()) != 0) return false;
    temporary_.clear();
    return true;
  }

 private:
  int fd_ = -1;
  std::string target_;
  std::string temporary_;  // removed unless renamed
};

CtlOutcome csv_error(std::size_t row, const std::string& why) {
  return {kCtlUsage, "", "CSV row " + std::to_string(row) + why};
}

}  // namespace

CtlOutcome ctl_csv_to_table(CtlCsvReader& csv, const std::string& table_path, bool json) {
  TableOut table;
  if (!table.open(table_path)) return failed("cannot create " + table_path);
  // Records are gathered and written a large piece at a time.
  constexpr std::size_t kPiece = std::size_t{1} << 20;
  std::vector<char> records(kPiece + 2 * (UINT16_MAX + 2));
  std::size_t used = 0, columns = 0, rows = 0;
  CtlCsvReader::Row row;
  while (csv.next(row)) {
    if (row.number == 1) columns = row.values.size();
    if (row.values.size() != columns)
      return csv_error(row.number, " has " + std::to_string(row.values.size()) + " values, the first has " +
                                       std::to_string(columns));
    bool too_long = row.has_nul;
    for (std::string_view v : row.values) too_long |= v.size() > kMaxFieldLength;
    if (too_long) return csv_error(row.number, ": a value is longer than 259 bytes or holds a NUL byte");
    std::size_t size = rdw_record_size(row.values);
    if (size == 0) return csv_error(row.number, " is too long for a table record (65535 bytes)");
    rdw_encode_record(records.data() + used, row.values);
    used += size;
    rows = row.number;
    if (used >= kPiece) {
      if (!table.write(records.data(), used)) return failed("cannot write " + table_path);
      used = 0;
    }
  }
  if (!csv.error().empty()) return {kCtlUsage, "", "CSV " + csv.error()};
  if (!table.write(records.data(), used) || !table.commit()) return failed("cannot write " + table_path);
  std::string rows_text = std::to_string(rows), cols = std::to_string(columns);
  return {kCtlOk,
          json ? "{\"rows\":" + rows_text + ",\"columns\":" + cols + "}\n"
               : "wrote " + rows_text + " rows of " + cols + " columns to " + table_path + "\n",
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

// The data segment's items: a calendar's, a list's lines, commands.
struct DataItems {
  std::string tag;
  std::vector<std::string> items;
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
    case CtlBuild::Data::Table:  // streamed instead: build_table
      break;
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

// The buffers of one request, built one at a time in the same place and
// handed on as each is complete.
class Buffers {
 public:
  Buffers(const CtlBuild& spec, const CtlBufferSink& sink, std::string_view tag)
      : spec_(spec), sink_(sink), tag_(tag) {}

  OutBuf& out() { return out_; }
  std::size_t delivered() const { return delivered_; }

  // A new buffer: the headers (the selection list in the first), and the
  // data segment opened with `first_item` (a table's column count) in it.
  void begin(std::string_view first_item = {}) {
    out_ = OutBuf(buf_);
    begin_buffer(spec_, delivered_ == 0, out_);
    if (tag_.empty()) return;
    field_ = buf_begin_segment(out_, tag_);
    if (!first_item.empty()) buf_add_item(out_, first_item);
  }

  // Ends the buffer with a trailer saying whether more follow, and hands it
  // on. False when it does not fit (`error` says so) or the sink stopped.
  bool finish(bool more, std::string& error) {
    if (!tag_.empty()) buf_end_segment(out_, field_);
    quor_trl_put(more ? "Y" : "N", out_);
    if (out_.overflow) {
      error = "request does not fit in " + std::to_string(BUFFER_MAX) + " bytes";
      return false;
    }
    char prefix[LENGTH_PREFIX];
    std::snprintf(prefix, sizeof prefix, "%5ld", static_cast<long>(out_.pos));
    std::memcpy(buf_.data(), prefix, LENGTH_PREFIX);
    if (!sink_(std::span<char>(buf_.data(), out_.pos))) return false;
    ++delivered_;
    return true;
  }

 private:
  const CtlBuild& spec_;
  const CtlBufferSink& sink_;
  std::string_view tag_;
  std::array<char, BUFFER_MAX> buf_{};
  OutBuf out_{buf_};
  std::size_t field_ = 0;
  std::size_t delivered_ = 0;
};

// Room a table row leaves in a buffer for the end of the segment and the
// trailer.
constexpr std::size_t kRowMargin = kSplitMargin + 32;

// A table: the CSV read a piece at a time, as many whole rows in each
// buffer as fit, every buffer's segment beginning with the column count.
CtlBuildResult build_table(const CtlBuild& spec, const CtlBufferSink& sink) {
  Buffers buffers(spec, sink, kRdwTag);
  CtlBuildResult result;
  auto fail = [&](std::string why) {
    result.error = std::move(why);
    result.delivered = buffers.delivered();
    return result;
  };
  int fd = open(spec.source.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return fail("cannot read " + spec.source);
  struct Closer {
    int fd;
    ~Closer() { close(fd); }
  } closer{fd};
  CtlCsvReader csv(fd);
  CtlCsvReader::Row row;
  if (!csv.next(row)) return fail(spec.source + ": " + (csv.error().empty() ? "no rows" : csv.error()));
  const std::size_t columns = row.values.size();
  const std::string count = std::to_string(columns);
  buffers.begin(count);
  std::size_t in_buffer = 0;  // rows
  do {
    if (row.values.size() != columns)
      return fail(spec.source + ": row " + std::to_string(row.number) + " has another number of values");
    std::size_t need = 0;
    for (std::string_view v : row.values) need += v.size() + 1;
    if (buffers.out().pos + need + kRowMargin > BUFFER_MAX) {
      if (in_buffer == 0) return fail("a row or item is too long for a request buffer");
      std::string error;
      if (!buffers.finish(true, error)) return fail(error);
      buffers.begin(count);
      in_buffer = 0;
      if (buffers.out().pos + need + kRowMargin > BUFFER_MAX)
        return fail("a row or item is too long for a request buffer");
    }
    OutBuf& out = buffers.out();
    if (row.has_nul) {  // an item ends at its first NUL
      for (std::string_view v : row.values) buf_add_item(out, v);
    } else {
      char* to = out.data.data() + out.pos;
      for (std::string_view v : row.values) {
        std::memcpy(to, v.data(), v.size());
        to[v.size()] = '\0';
        to += v.size() + 1;
      }
      out.pos += need;
    }
    ++in_buffer;
  } while (csv.next(row));
  if (!csv.error().empty()) return fail(spec.source + ": " + csv.error());
  std::string error;
  buffers.finish(false, error);
  return fail(error);
}

}  // namespace

CtlBuildResult ctl_build_stream(const CtlBuild& spec, const CtlBufferSink& sink) {
  CtlBuildResult result;
  if (spec.selections.size() > 100) {
    result.error = "at most 100 selections";
    return result;
  }
  if (spec.data == CtlBuild::Data::Table) return build_table(spec, sink);
  DataItems data = data_items(spec);
  if (!data.error.empty()) {
    result.error = data.error;
    return result;
  }
  // These are in memory whole: the buffers are built first, so that an
  // item too long for a buffer is found before any is delivered.
  std::vector<std::vector<char>> built;
  CtlBufferSink keep = [&](std::span<char> plain) {
    built.emplace_back(plain.begin(), plain.end());
    return true;
  };
  Buffers buffers(spec, keep, data.tag);
  std::size_t next = 0;
  do {
    buffers.begin();
    OutBuf& out = buffers.out();
    // Whole items, as long as they leave room for the end of the segment
    // and the trailer.
    std::size_t added = 0;
    for (; !data.tag.empty() && next < data.items.size(); ++next, ++added) {
      if (out.pos + data.items[next].size() + 1 + kRowMargin > BUFFER_MAX) break;
      buf_add_item(out, data.items[next]);
    }
    if (added == 0 && next < data.items.size()) {
      result.error = "a row or item is too long for a request buffer";
      return result;
    }
    if (!buffers.finish(next < data.items.size(), result.error)) return result;
  } while (next < data.items.size());
  for (std::vector<char>& plain : built) {
    if (!sink(plain)) break;
    ++result.delivered;
  }
  return result;
}

std::vector<char> ctl_cancel_request(const CtlBuild& spec) {
  std::array<char, BUFFER_MAX> buf{};
  OutBuf out(buf);
  begin_buffer(spec, false, out);
  std::size_t field = buf_begin_segment(out, kRdwTag);
  buf_add_item(out, "0");
  buf_end_segment(out, field);
  quor_trl_put("N", out);
  return ctl_request_from(out).bytes;
}

CtlBuilt ctl_build_transaction(const CtlBuild& spec) {
  CtlBuilt built;
  CtlBuildResult result = ctl_build_stream(spec, [&](std::span<char> plain) {
    built.buffers.emplace_back(plain.begin(), plain.end());
    return true;
  });
  if (!result.error.empty()) {
    built.buffers.clear();
    built.error = result.error;
  }
  return built;
}

CtlOutcome ctl_build_files(const CtlBuild& spec, const std::string& prefix, bool json) {
  std::vector<std::string> names;
  std::string out = json ? "{\"files\":[" : "", write_error;
  CtlBuildResult result = ctl_build_stream(spec, [&](std::span<char> plain) {
    std::string name = prefix + "." + std::to_string(names.size() + 1);
    std::ofstream file(name, std::ios::binary | std::ios::trunc);
    file.write(plain.data(), static_cast<std::streamsize>(plain.size()));
    file.close();
    names.push_back(name);
    if (!file) {
      write_error = "cannot write " + name;
      return false;
    }
    out += json ? (names.size() > 1 ? "," : "") + ctl_json_string(name)
                : name + " (" + std::to_string(plain.size()) + " bytes)\n";
    return true;
  });
  if (!result.error.empty() || !write_error.empty()) {
    // A request that cannot be built whole leaves no part of it behind.
    for (const std::string& name : names) std::remove(name.c_str());
    return write_error.empty() ? CtlOutcome{kCtlUsage, "", result.error} : failed(write_error);
  }
  if (json) out += "]}\n";
  return {kCtlOk, std::move(out), ""};
}
