// Object header ("ZZZHDR") and trailer ("ZZZTRL") records.
//
// The object header says which object a command request addresses, what to
// do and in which format; the trailer closes a buffer and says whether more
// buffers of the same exchange follow ("MD" = "Y") or not ("N"). Every reply
// ends with a trailer and "ZZZEOD".
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "quortran.h"

inline constexpr std::string_view kHdrTag = "ZZZHDR";
inline constexpr std::string_view kTrlTag = "ZZZTRL";
inline constexpr std::array<std::string_view, 9> kHdrItems = {"OBJ", "CMD", "FMT", "CF", "FN",
                                                             "EX",  "OP",  "VL",  "CNT"};

// A field that is not set (nullopt) is left out when the header is written;
// a header read from a request has every field set (absent items empty).
struct ObjectHeader {
  std::optional<std::string> object;       // OBJ
  std::optional<std::string> action;       // CMD
  std::optional<std::string> data_format;  // FMT
  std::optional<std::string> cmdfile;      // CF
  std::optional<std::string> filename;     // FN
  std::optional<std::string> ex_flag;      // EX
  std::optional<std::string> op_text;      // OP
  std::optional<std::string> vl_text;      // VL
  std::optional<std::string> cnt_text;     // CNT

  // The fields in item order (kHdrItems).
  std::array<std::optional<std::string>*, 9> fields();
  std::array<const std::optional<std::string>*, 9> fields() const;
};

struct Trailer {
  std::optional<std::string> more_data;  // MD
};

// Reads "ZZZHDR"; returns the offset after its end mark, or nothing.
std::optional<std::size_t> quor_hdr_read(InBuf buf, ObjectHeader& out);
void quor_hdr_write(const ObjectHeader& header, OutBuf& out);

// Reads "ZZZTRL"; returns the offset after its end mark, or nothing.
std::optional<std::size_t> quor_trl_read(InBuf buf, Trailer& out);
// Writes "ZZZTRL" (with "MD" when set) and then "ZZZEOD".
void quor_trl_write(const Trailer& trailer, OutBuf& out);
// The common case: a trailer with the given more-data value.
void quor_trl_put(std::string_view more_data, OutBuf& out);

// More data follows a buffer only when its trailer's more-data value begins
// with 'Y'; any other value, a trailer without one, or no trailer at all
// makes it the last of its exchange.
bool quor_trl_last(InBuf buf);
