// The daemon's debug switch and trace output.
//
// Debugging is on when MOXQUORDEBUG or MOXQUORSPIN is set. The daemon then
// stays in the foreground and prints trace lines to standard output; every
// module asks quor_debug() before tracing.
#pragma once

#include <string_view>

bool quor_debug();
void quor_set_debug(bool on);

// printf-style trace line to standard output, flushed at once so that trace
// lines and copied log lines keep their order. Only call with a constant
// format; request data goes in as "%s" arguments.
[[gnu::format(printf, 1, 2)]] void quor_trace(const char* format, ...);

// The daemon's program name as shown in traces and reports: the last
// component of the invocation path ("quordaemon" until set).
const char* quor_program_name();
void quor_set_program_name(std::string_view argv0);
