#include "quorpnfn.h"

#include <algorithm>
#include <string>

#include "quordebug.h"
#include "quorsmc.h"

std::size_t quor_pnd_to_record(std::span<char> record, InBuf buf) {
  std::optional<std::size_t> first = buf_find_segment(buf, kPndTag);
  if (!first) return 0;
  if (quor_debug()) {
    quor_dump_items(buf, *first);
    std::fflush(stdout);
  }
  std::optional<std::string_view> count = buf_string(buf, *first);
  if (!count) return 0;
  long n = buf_decimal(*count);
  smc_put(record, smc::csl_count, n > static_cast<long>(smc::csl_max) ? std::to_string(smc::csl_max) : *count);
  std::size_t at = *first + count->size() + 1;
  for (std::size_t i = 0; static_cast<long>(i) < n && i < smc::csl_max; ++i) {
    std::optional<std::string_view> items[3];
    std::size_t next = at;
    for (auto& item : items) {
      item = buf_string(buf, next);
      if (!item || *item == kEndOfSegment) return at;
      next += item->size() + 1;
    }
    smc_put(record, smc::slot(smc::csl_name, i), *items[0]);
    smc_put(record, smc::slot(smc::csl_oper, i), *items[1]);
    smc_put(record, smc::slot(smc::csl_value, i), *items[2]);
    at = next;
  }
  return at;
}

std::size_t quor_pnd_from_record(std::span<const char> record, OutBuf& out) {
  std::size_t length_field = buf_begin_segment(out, kPndTag);
  std::string_view count = smc_get(record, smc::csl_count);
  buf_add_item(out, count);
  long n = std::clamp<long>(buf_decimal(count), 0, smc::csl_max);
  for (std::size_t i = 0; i < static_cast<std::size_t>(n); ++i) {
    buf_add_item(out, smc_get(record, smc::slot(smc::csl_name, i)));
    buf_add_item(out, smc_get(record, smc::slot(smc::csl_oper, i)));
    buf_add_item(out, smc_get(record, smc::slot(smc::csl_value, i)));
  }
  buf_end_segment(out, length_field);
  return out.pos;
}
