// Arbitrary text as the subject of a broker message: the parser must refuse
// or accept without reading outside it, and what it accepts must be the one
// spelling of its names (encoding them again gives the same subject), so
// that no sender can appear under two names or a name under two subjects.
// And the other way round: the same bytes taken as a name (any bytes but NUL)
// encode to a token that decodes to that name.
#include <cstdint>
#include <string_view>

#include "tev_subject.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  if (!text.empty() && text.find('\0') == std::string_view::npos && tev_subject_untoken(tev_subject_token(text)) != text)
    __builtin_trap();
  std::optional<TevSubject> subject = tev_subject_parse(text);
  if (!subject) return 0;
  if (tev_subject_text(*subject) != text) __builtin_trap();
  return 0;
}
