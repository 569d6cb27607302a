// Arbitrary bytes as a catalogue source: the parser must not crash or read
// outside them.
#include <cstdint>
#include <string_view>

#include "catalogue.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  (void)catalogue_parse(text, 1);
  (void)catalogue_parse(text, 2);
  return 0;
}
