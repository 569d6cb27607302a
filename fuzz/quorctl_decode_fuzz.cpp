// Arbitrary bytes through quorctl's decoder (in each form and rendering) and
// through its raw text-form parser. Besides staying inside the input, both
// must agree with each other: a buffer that decodes without problems,
// written out as text and parsed again, decodes to the same thing.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "ctl_decode.h"
#include "ctl_text.h"
#include "quortran.h"

namespace {

// The decoded buffer rebuilt from its text form, rendered for comparison.
std::string rebuilt(const CtlDecoded& d) {
  CtlRequest again = ctl_parse_text(ctl_to_text(d));
  if (!again.error.empty()) __builtin_trap();
  CtlDecoded e = ctl_decode(again.bytes);
  e.wire = d.wire;
  return ctl_format(e);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Exactly the input, so that any read past it is caught.
  std::vector<char> bytes(data, data + size);
  for (CtlForm form : {CtlForm::Auto, CtlForm::Plain, CtlForm::Wire}) {
    CtlLoaded loaded = ctl_load(bytes, form);
    if (loaded.plain.size() != size) __builtin_trap();
    (void)ctl_format_json(loaded.decoded);
    std::string shown = ctl_format(loaded.decoded);
    if (loaded.decoded.ok() && rebuilt(loaded.decoded) != shown) __builtin_trap();
  }

  CtlRequest r = ctl_parse_text(std::string_view(reinterpret_cast<const char*>(data), size));
  if (r.error.empty()) {
    if (r.bytes.size() < kMinMessage || r.bytes.size() > BUFFER_MAX) __builtin_trap();
    CtlDecoded d = ctl_decode(r.bytes);
    if (d.prefix != static_cast<long>(r.bytes.size())) __builtin_trap();
    if (d.ok() && rebuilt(d) != ctl_format(d)) __builtin_trap();
  } else if (!r.bytes.empty() || r.error.rfind("line ", 0) != 0) {
    __builtin_trap();
  }
  return 0;
}
