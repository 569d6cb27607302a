// quorctl's CSV reader against a plain reading of the same text, one byte
// after another: the same rows, the same values, the same error, however
// the text is cut into the pieces the reader takes in (the first input byte
// chooses the piece size, so rows and quoted values straddle pieces).
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "ctl_csv.h"

namespace {

struct Plain {
  std::vector<std::vector<std::string>> rows;  // the rows completed, also before an error
  std::string error;
};

// The straightforward reading: a state per byte, every value its own string.
Plain plain_read(std::string_view text) {
  Plain csv;
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
      csv.error = "line " + std::to_string(line) + ": text after a closing double quote";
      return csv;
    } else if (c == '"' && at == At::Start) {
      at = At::Quoted;
    } else {
      field += c;
      at = At::Plain;
    }
  }
  if (at == At::Quoted) {
    csv.error = "line " + std::to_string(row_line) + ": a double quote is never closed";
    return csv;
  }
  if (at != At::Start || !row.empty()) {
    end_field();
    csv.rows.push_back(std::move(row));
  }
  return csv;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  std::size_t piece = data[0] < 200 ? data[0] % 67 + 1 : std::size_t{1} << 20;
  std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  Plain expected = plain_read(text);

  CtlCsvReader reader(text, piece);
  CtlCsvReader::Row row;
  std::size_t n = 0;
  while (reader.next(row)) {
    if (n >= expected.rows.size() || row.number != n + 1) __builtin_trap();
    const std::vector<std::string>& want = expected.rows[n++];
    if (row.values.size() != want.size()) __builtin_trap();
    bool nul = false;
    for (std::size_t i = 0; i < want.size(); ++i) {
      if (row.values[i] != want[i]) __builtin_trap();
      nul |= want[i].find('\0') != std::string::npos;
    }
    if (row.has_nul != nul) __builtin_trap();
  }
  if (n != expected.rows.size() || reader.error() != expected.error) __builtin_trap();
  if (reader.next(row)) __builtin_trap();  // the end stays the end
  return 0;
}
