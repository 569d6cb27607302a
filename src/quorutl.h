// Transaction header: the "ZZZTRN" segment that begins every request and
// every reply.
//
// In a request it says what is wanted (the first character of "COD" is the
// message type) and who asks; in a reply it says who answers and whether
// more buffers of the same reply follow ("ADD").
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "quortran.h"

inline constexpr std::string_view kTranTag = "ZZZTRN";
inline constexpr std::array<std::string_view, 7> kTranItems = {"COD", "PID", "NOD", "USR",
                                                              "GID", "ADD", "OS"};

struct TransactionHeader {
  std::string transcode;     // COD
  std::string pid;           // PID
  std::string node;          // NOD
  std::string user;          // USR
  std::string gid;           // GID
  std::string continuation;  // ADD
  std::string ostype;        // OS

  // The message type: the first character of the transcode, 0 when empty.
  char type() const { return transcode.empty() ? '\0' : transcode.front(); }
};

// The daemon's own header: the given transcode and continuation, our pid,
// node name, user (MOX_QUORUSER when set, even empty; else the login name of
// the real uid; else empty), real gid, and "UNIX1".
int tran_header_fill(std::string_view transcode, std::string_view continuation,
                     TransactionHeader& out);

// This process's pid as headers write it (looked up once per process).
const std::string& tran_own_pid();

// Writes the seven items in the fixed order COD PID NOD USR GID ADD OS.
void tran_header_write(const TransactionHeader& header, OutBuf& out);

// tran_header_fill + tran_header_write: how every reply begins.
void tran_header_put(std::string_view transcode, std::string_view continuation, OutBuf& out);

// Reads the "ZZZTRN" segment of a request into `out` (all fields cleared
// first, absent items empty). Returns the offset after the segment's end
// mark, or nothing when the segment is absent or malformed. Traces the
// fields when debugging.
std::optional<std::size_t> tran_header_read(InBuf buf, TransactionHeader& out);
