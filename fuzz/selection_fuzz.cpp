// Arbitrary "ZZZPND" segments copied into a request record: no crash, no
// byte written outside the selection list's count and slots, every slot
// still ends with a NUL, and the list written back out fits its buffer.
#include "quorpnfn.h"
#include "quorsmc.h"
#include "segment_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr char kUntouched = 0x5A;
  std::vector<char> record(kRecordSize, kUntouched);
  for (const std::vector<char>& buf : segment_requests(kPndTag, data, size)) quor_pnd_to_record(record, buf);

  const std::size_t begin = smc::csl_count.offset;
  const std::size_t end = smc::csl_value.offset + smc::csl_max * smc::csl_value.size;
  for (std::size_t i = 0; i < record.size(); ++i)
    if ((i < begin || i >= end) && record[i] != kUntouched) __builtin_trap();
  auto ends_well = [&](SmcField f) {
    char last = record[f.offset + f.size - 1];
    return last == '\0' || last == kUntouched;
  };
  if (!ends_well(smc::csl_count)) __builtin_trap();
  for (std::size_t i = 0; i < smc::csl_max; ++i)
    for (SmcField array : {smc::csl_name, smc::csl_oper, smc::csl_value})
      if (!ends_well(smc::slot(array, i))) __builtin_trap();

  std::vector<char> reply(BUFFER_MAX);
  OutBuf out(reply);
  quor_pnd_from_record(record, out);
  if (out.pos > reply.size()) __builtin_trap();
  return 0;
}
