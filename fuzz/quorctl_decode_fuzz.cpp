// Arbitrary bytes through quorctl's decoder (as a plain and as a wire
// buffer) and through its raw text-form parser.
#include <cstdint>
#include <string_view>
#include <vector>

#include "ctl_decode.h"
#include "ctl_request.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<char> bytes(data, data + size);
  CtlDecoded d = ctl_decode(bytes);
  (void)ctl_format(d);
  (void)ctl_format_json(d);
  if (ctl_unwire(bytes)) (void)ctl_decode(bytes);
  CtlRequest r = ctl_parse_text(std::string_view(reinterpret_cast<const char*>(data), size));
  if (r.error.empty() && r.bytes.size() > 32767) __builtin_trap();
  return 0;
}
