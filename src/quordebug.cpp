#include "quordebug.h"

#include <cstdarg>
#include <cstdio>
#include <string>

namespace {
bool g_debug = false;
std::string& program_name() {
  static std::string name = "quordaemon";
  return name;
}
}  // namespace

bool quor_debug() { return g_debug; }
void quor_set_debug(bool on) { g_debug = on; }

void quor_trace(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::vfprintf(stdout, format, args);
  va_end(args);
  std::fflush(stdout);
}

const char* quor_program_name() { return program_name().c_str(); }

void quor_set_program_name(std::string_view argv0) {
  auto slash = argv0.rfind('/');
  program_name() = std::string(slash == std::string_view::npos ? argv0 : argv0.substr(slash + 1));
}
