#include "quorsmc.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "quorconfig.h"

namespace {

std::span<char> field_bytes(std::span<char> record, SmcField field) {
  return record.subspan(field.offset, field.size);
}

// Puts at most `most` bytes of `text` (and never past the field's last
// byte, which stays a NUL) into `field`.
void put_bounded(std::span<char> record, SmcField field, std::string_view text, std::size_t most) {
  std::span<char> bytes = field_bytes(record, field);
  std::size_t n = std::min({text.size(), most, field.size - 1});
  std::fill(std::copy_n(text.begin(), n, bytes.begin()), bytes.end(), '\0');
}

void put_int32(std::span<char> record, SmcField field, std::int32_t value) {
  std::memcpy(record.data() + field.offset, &value, sizeof value);
}

std::uint32_t get_uint32(std::span<const char> record, SmcField field) {
  std::uint32_t value = 0;
  std::memcpy(&value, record.data() + field.offset, sizeof value);
  return value;
}

// The value of an optional header field, empty when absent.
std::string_view value(const std::optional<std::string>& field) { return field ? *field : std::string_view{}; }

// A new private file for the request's data; its name, or empty.
std::string new_data_file() {
  std::string path;
  int fd = quor_temp_file("quor", 0, path);
  if (fd < 0) return {};
  close(fd);
  // A name that does not fit the field would be cut and name another file.
  if (path.size() >= smc::fileName.size) {
    unlink(path.c_str());
    return {};
  }
  return path;
}

}  // namespace

void smc_put(std::span<char> record, SmcField field, std::string_view text) {
  put_bounded(record, field, text, field.size - 1);
}

std::string_view smc_get(std::span<const char> record, SmcField field) {
  std::string_view bytes(record.data() + field.offset, field.size);
  return bytes.substr(0, bytes.find('\0'));
}

std::string quor_smc_fill(std::span<char> record, const TransactionHeader& tran, const ObjectHeader& hdr) {
  smc_put(record, smc::pid, tran.pid);
  smc_put(record, smc::node, tran.node);
  smc_put(record, smc::gid, tran.gid);
  smc_put(record, smc::username, tran.user);
  smc_put(record, smc::source, "MOQuor");
  smc_put(record, smc::object, value(hdr.object));
  smc_put(record, smc::command, value(hdr.action));
  smc_put(record, smc::verbLabel, value(hdr.vl_text));
  put_bounded(record, smc::row_count, value(hdr.cnt_text), 9);
  record[smc::format.offset] = static_cast<char>(value(hdr.data_format) == "P" ? kFormatPacked : kFormatPlain);
  if (value(hdr.cmdfile).starts_with('Y')) std::memcpy(record.data() + smc::cmdfile.offset, "YYYY", 4);
  std::string data_file;
  if (value(hdr.filename).starts_with('Y')) {
    data_file = new_data_file();
    smc_put(record, smc::fileName, data_file);
  }
  if (value(hdr.ex_flag) == "1") put_int32(record, smc::extention, 1);
  record[smc::flag.offset] = static_cast<char>(kRecordFlag);
  return data_file;
}

namespace {

// Prints bytes from `at` as the dumps do: a newline before every 80th byte
// (the first included), NUL as "^", up to `end` or the first `mark`, which
// is printed with a newline.
void dump_bytes(InBuf buf, std::size_t at, std::size_t end, std::string_view mark, std::FILE* out) {
  end = std::min(end, buf.size());
  for (std::size_t i = at; i < end; ++i) {
    if ((i - at) % 80 == 0) std::fputc('\n', out);
    if (std::string_view(buf.data() + i, end - i).starts_with(mark)) {
      std::fprintf(out, "%.*s\n", static_cast<int>(mark.size()), mark.data());
      break;
    }
    std::fputc(buf[i] == '\0' ? '^' : buf[i], out);
  }
  std::fputc('\n', out);
}

}  // namespace

void quor_dump_buffer(InBuf buf, std::size_t length, std::FILE* out) {
  std::fputs("quorBuffer= ", out);
  dump_bytes(buf, 0, length, kEndOfData, out);
}

void quor_dump_items(InBuf buf, std::size_t first, std::FILE* out) {
  dump_bytes(buf, first, buf.size(), kEndOfSegment, out);
}

void quor_dump_record(std::span<const char> record, std::FILE* out) {
  auto text = [&](const char* name, SmcField field) {
    std::string_view v = smc_get(record, field);
    std::fprintf(out, "%s = %.*s\n", name, static_cast<int>(v.size()), v.data());
  };
  auto hex = [&](const char* name, SmcField field) {
    std::fprintf(out, "%s = %x\n", name, static_cast<unsigned>(get_uint32(record, field)));
  };
  auto byte = [&](SmcField field) { return static_cast<int>(static_cast<signed char>(record[field.offset])); };

  std::fputs("***Start SMCDAT ***\n", out);
  hex("prev", smc::prev);
  hex("next", smc::next);
  text("allocSz", smc::allocSz);
  hex("extention", smc::extention);
  text("row_count", smc::row_count);
  hex("cmdfile", smc::cmdfile);
  text("fileName", smc::fileName);
  text("lineOfCmd", smc::lineOfCmd);
  text("command", smc::command);
  text("commandSyn", smc::commandSyn);
  text("verbLabel", smc::verbLabel);
  text("object", smc::object);
  text("objectSyn", smc::objectSyn);
  text("username", smc::username);
  text("gid", smc::gid);
  text("pid", smc::pid);
  text("source", smc::source);
  text("node", smc::node);
  text("date", smc::date);
  text("time", smc::time);
  hex("alignment", smc::alignment);
  text("forFutureUse", smc::forFutureUse);
  std::fprintf(out, "format = %d\n", byte(smc::format));
  std::fprintf(out, "flag = %d\n", byte(smc::flag));
  std::fprintf(out, "PDat.DataArea = %c\n", record[smc::PDat]);
  text("PDat.csl.count", smc::csl_count);
  long count = std::clamp<long>(buf_decimal(smc_get(record, smc::csl_count)), 0, smc::csl_max);
  for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
    auto slot_line = [&](const char* name, SmcField array) {
      std::string_view v = smc_get(record, smc::slot(array, i));
      std::fprintf(out, "%s[%zu] = %.*s\n", name, i, static_cast<int>(v.size()), v.data());
    };
    slot_line("PDat.csl.columnNam", smc::csl_name);
    slot_line("PDat.csl.relOper", smc::csl_oper);
    slot_line("PDat.csl.value", smc::csl_value);
  }
  // The address of the data area (its low 32 bits), not its contents.
  std::fprintf(out, "PDat.scroll_val = %x\n",
               static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(record.data() + smc::PDat)));
  std::fputs("*** End SMCDAT ***\n", out);
}
