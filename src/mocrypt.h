// Body transform: the reversible byte scramble applied to every message body
// on the wire (and to the saved user table), so that neither is plain text.
//
// There is no key, only a one-byte seed chosen by the caller (the transport
// uses the low byte of the message's total length). Each encoded byte is the
// running XOR of the seed and every plain byte so far rotated left by one, so
// a change in one byte changes every encoded byte after it.
//
// Both routines rewrite the bytes in place and only touch data[0..size-1].
#pragma once

#include <cstdint>
#include <span>

// Only the low 8 bits of `seed` count.
void body_encode(int seed, std::span<std::uint8_t> data);
void body_decode(int seed, std::span<std::uint8_t> data);

// Convenience overloads for text buffers.
void body_encode(int seed, std::span<char> data);
void body_decode(int seed, std::span<char> data);
