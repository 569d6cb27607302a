// Partial reply send: a reply that does not fit one buffer goes out as
// several. Every buffer but the last is sent as a conversation (the client
// answers it) from a temporary registration "QUOR.<daemon pid>", which is
// opened and closed around each send; the last buffer is the plain reply.
#pragma once

#include <cstddef>
#include <string_view>

#include "quortev.h"
#include "quortran.h"

// Ends the buffer with a trailer "MD" = "Y" and "ZZZEOD", sends it as a
// partial reply to the sender of `conn`'s request, and restarts the buffer at
// position 6 with a transaction header of `transcode` (normally "S") and
// continuation "Y". Returns the new write position, or 0 when the buffer
// could not be sent (its failure is then in conn.fb).
std::size_t send_partial_buffer(ConnRecord& conn, OutBuf& out, std::string_view transcode = "S");

// The name of the temporary registration: "QUOR.<pid>".
std::string quor_partial_name();
