// Transport adapter: the daemon's only way to its clients.
//
// Adds two things to every message: the 6-byte length prefix ("%5ld" and a
// NUL, the total length including the prefix) and the body transform of
// everything behind the prefix, seeded with the low byte of the total length.
// Results: 0 success, 2 transport failure (details in the feedback block),
// 3 bad message length.
//
// Also the transport diagnostics: a hex dump of request buffers into
// $MOXQUORDUMP/quordump.out, and a printout of a feedback block with its
// return codes explained.
#pragma once

#include <cstddef>
#include <cstdio>
#include <span>
#include <string_view>

#include "tev.h"

// The record every receive fills and every reply is sent with.
struct ConnRecord {
  TevIdentity local;    // the daemon as registered
  TevIdentity remote;   // sender of the last request
  TevFeedback fb;       // feedback of every call made with this record
  TevInquiry inquiry;   // kernel credentials of the last sender
  // Leading bytes of the receive buffer that may be non-zero: what the last
  // receive took in and what was sent or written from the buffer since.
  // The next receive clears only these (all of them at first).
  std::size_t dirty = static_cast<std::size_t>(-1);
};

inline constexpr std::string_view kServerName = "MO_QUORUNIX_SERVER";
// How long a partial reply waits for the client's answer. A client that
// never answers must not hold the daemon (or its stop) for long: after this
// the reply is abandoned.
inline constexpr int kConverseWaitSeconds = 2;

// Clears the block, then sets the system id (this host's node name when
// `system_id` is empty) and the application name (when given). Returns 0.
int quor_tev_build_identity(TevIdentity& id, std::string_view system_id, std::string_view app);

// Registers `app`; on success `id` is the identity the transport completed.
// 0, or 2 on failure.
int quor_tev_register(TevIdentity& id, TevFeedback& fb, std::string_view app);

// The daemon's own registrations send without waiting: a client whose queue
// is full (one that never reads) loses its reply rather than stalling every
// other client.
int quor_tev_register_server(TevIdentity& id, TevFeedback& fb, std::string_view app);
int quor_tev_deregister(const TevIdentity& id, TevFeedback& fb);

// Receives one message into `buf` (its first conn.dirty bytes zeroed first,
// so that the whole buffer is zero past what arrives), reads its length prefix L
// and decodes bytes 6..L-1. 3 when L is below 7, beyond the buffer or beyond
// what arrived: the body is then left as it came.
int quor_tev_receive(ConnRecord& conn, std::span<char> buf);

// Writes the prefix for `length` bytes, encodes the body and sends it as the
// reply to the last request (FB_InConversId). 3 for a length outside 7..32767
// (nothing sent). The buffer holds encoded bytes afterwards, which
// conn.dirty counts.
int quor_tev_send(ConnRecord& conn, std::span<char> buf, std::size_t length);

// As quor_tev_send, but waits up to kConverseWaitSeconds for the peer's
// short answer.
int quor_tev_converse(ConnRecord& conn, std::span<char> buf, std::size_t length);

// The framing alone, for tools and tests: seal writes the prefix and encodes
// (3 for a bad length); open reads the prefix and decodes, returning the
// total length, or 0 when it is below 7 or beyond `received`.
int quor_wire_seal(std::span<char> buf, std::size_t length);
std::size_t quor_wire_open(std::span<char> buf, std::size_t received);

// ---------------------------------------------------------------------------
// Diagnostics

// Appends a hex dump of `buf` to $MOXQUORDUMP/quordump.out (emptied by the
// first dump of the process). Does nothing when MOXQUORDUMP is unset or empty
// or the file cannot be opened.
void tev_dump_buffer(std::span<const char> buf, std::string_view label);

// Prints the feedback block and the meaning of its return codes.
void tev_dump_feedback(std::string_view title, const TevFeedback& fb, std::FILE* out = stdout);
void tev_explain_codes(int prc, int src, int drc, std::FILE* out = stdout);

// Forget that the dump file was opened (tests).
void tev_dump_reset();
