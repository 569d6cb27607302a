// momsg: the numbered message catalogue and the host's node name.
//
// A message is named by a 32-bit identifier: a component base, the message
// number shifted left by three bits, and the severity in the low three bits.
// For the daemon's component the base is 0x9228000 and messages log with the
// prefix "QUOR":
//
//   identifier = 0x9228000 | (number << 3) | severity
//
// Texts come from the catalogue source messages/quor.msg (gencat format, set
// 1, message number = catalogue number). At run time the compiled catalogue
// $MOXGLBL0000/quor/messages/quor.cat is used when it can be opened, else the
// catalogue named "quor" on NLSPATH, else the copy of quor.msg built into the
// library. Substitution values replace "%s" (in order) or "%N$s" (the Nth
// value) in the text; "%%" is a percent sign. A value that a text does not
// use is ignored; a placeholder without a value is left empty.
//
// Logged messages are one line each:
//   2026-11-22T19:04:47Z quordaemon[1234]: QUOR0400I <text>
// The letter is the severity: 0 T, 1 I, 2 E, 4 S, other severities their
// digit. The line goes to $MOXGLBL0000/quor/log/quordaemon.log (directories
// created as needed; nothing when MOXGLBL0000 is unset) and to syslog
// (LOG_DAEMON).
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>

// Display flags. The low bits (0 to 3) hold the number of substitution values.
inline constexpr unsigned MO_RETURN_TEXT = 0x1000;  // return the formatted text
inline constexpr unsigned MO_LOG = 0x4000;          // append to the message log and syslog
inline constexpr unsigned MO_STDOUT = 0x8000;       // copy the log line to standard output
inline constexpr unsigned MO_VALUE_COUNT_MASK = 0x3;

inline constexpr std::uint32_t kQuorComponentBase = 0x9228000;

constexpr std::uint32_t mo_identifier(unsigned number, unsigned severity) {
  return kQuorComponentBase | (number << 3) | (severity & 7U);
}
constexpr unsigned mo_number(std::uint32_t identifier) { return (identifier >> 3) & 0x1FFU; }
constexpr unsigned mo_severity(std::uint32_t identifier) { return identifier & 7U; }

// Format message `identifier` with up to three substitution values (the
// count is taken from the low bits of `flags`, never more than given), then
// log it and/or copy it to standard output as `flags` says. Returns the
// formatted text (without the log-line prefix); empty when the catalogue has
// no text for the number. `version` must be 2; `line` and `source` name the
// raising call and are kept for diagnostics.
std::string MOmsgf(int version, int line, std::string_view source, std::uint32_t identifier,
                   unsigned flags, std::initializer_list<std::string_view> values = {});

// This host's node name (uname), cached; never null.
const char* mo_nodename();

// Name shown in log lines ("quordaemon" unless set).
void mo_set_program(std::string_view name);

// Repeated messages are limited: each message number writes at most
// kMoLogBurst lines in kMoLogWindow seconds. The lines left out are counted,
// and one line (message 308) tells how many once the window is over: at the
// next line of that number, or when mo_flush_left_out is called (the daemon
// calls it between requests, and with `force` at shutdown). So a client
// that sends garbage cannot fill the disk, and nothing goes unmentioned.
inline constexpr int kMoLogBurst = 20;
inline constexpr int kMoLogWindow = 60;
void mo_flush_left_out(bool force);

// Where logged messages (MO_LOG) go instead of the message log and syslog:
// the sink gets each message's identifier and its text as one line. A tool
// that runs the daemon's own code (quorctl check-config) shows the messages
// that code raises this way, without writing to the daemon's log. An empty
// sink restores the log.
using MoLogSink = std::function<void(std::uint32_t identifier, std::string_view text)>;
void mo_set_log_sink(MoLogSink sink);

// "QUOR0110E": the tag of a message as log lines show it.
std::string mo_tag(std::uint32_t identifier);

// Forget the opened catalogue, cached settings and counts of repeated
// messages (for tests that change MOXGLBL0000 or NLSPATH).
void mo_reset();

// The log line for a message, without the trailing newline: exposed so that
// tests and tools can match log output exactly.
std::string mo_log_line(std::uint32_t identifier, std::string_view text, long long epoch_seconds,
                        int pid);
