// Error replies, the catalogue wrappers and captured error output.
//
// Every message the daemon raises has a number and a severity (0 trace,
// 1 event, 2 error, 4 severe) and is formatted from the message catalogue.
// A failed request is answered with an error reply:
//
//   ZZZTRN (transcode "E", continuation "N")
//   ZZZRET  RC <return code>  RM <message text>
//   ZZZTRL  MD "N"
//   ZZZEOD
//
// The message text is what the failing step wrote to standard error, which
// the daemon keeps redirected into a capture file, or a catalogue text when
// nothing was written.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "quortev.h"

inline constexpr std::string_view kRetTag = "ZZZRET";

// Logs message `number` (to standard output too when debugging). `text` is
// its one substitution value, if any. Returns 0.
int quor_msg_log(int number, int severity, std::optional<std::string_view> text = std::nullopt);

// Logs (log_flag set) or shows and returns (log_flag clear) the message.
int quor_msg_show(int number, int severity, std::optional<std::string_view> text, int log_flag);

// The formatted text of message `number`, for error replies.
std::string quor_msg_text(int number, int severity,
                          std::optional<std::string_view> text = std::nullopt);

// Builds and sends the error reply. A text too long for one buffer is cut.
// Returns 0, or the transport's result when the send failed (then message 9
// is logged with the transport's error text).
int quor_error_reply(int return_code, std::string_view text, ConnRecord& conn);

// The capture file that standard error is redirected to (none: empty).
void quor_capture_set_file(std::string path);
const std::string& quor_capture_file();

// What failing steps wrote to the capture file since it was last read (the
// file is emptied by reading it), or, when nothing was written, the
// catalogue text of message 23 for kind 1 and of message 128 otherwise.
std::string quor_capture_output(int kind);

// Most bytes of captured output an error reply carries.
inline constexpr std::size_t kMaxCapturedText = 16384;
