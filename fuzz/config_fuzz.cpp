// Arbitrary bytes as the lines of a configuration or map file: a refresh
// request may name any file on the host, so its lines are untrusted too.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "quorconfig.h"
#include "textlines.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  QuorConfig config;
  while (!text.empty()) {
    // Lines as the reader delivers them: up to a newline, at most 2047 bytes.
    std::size_t end = text.find('\n');
    end = end == std::string_view::npos ? text.size() : end + 1;
    if (end > kLineBufferSize - 1) end = kLineBufferSize - 1;
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end);

    (void)quor_config_line(config, line);
    TwoWords words = two_words(line);
    if (words.second_at > line.size() || words.first.size() > line.size()) __builtin_trap();
  }
  if (config.nologin_user.size() > kMaxLoginName || config.login_timeout < 0 || config.transaction_timeout < 0)
    __builtin_trap();
  return 0;
}
