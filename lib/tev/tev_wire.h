// The datagram layout of the local transport. All integers little-endian.
//
//   offset 0    4   magic "TEV1"
//   offset 4    1   kind: 1 DATA, 2 CONV (an answer is expected), 3 ANSWER
//   offset 5    3   reserved, zero
//   offset 8    4   conversation id
//   offset 12   4   payload length N (at most 65535; at most 10 for ANSWER)
//   offset 16   87  sender identity block
//   offset 103  87  receiver identity block
//   offset 190  N   payload
//
// A datagram is valid only when its size is exactly 190 + N.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "tev.h"

inline constexpr std::size_t kTevHeaderSize = 190;
inline constexpr std::size_t kTevSenderOffset = 16;
inline constexpr std::size_t kTevReceiverOffset = 103;
static_assert(kTevReceiverOffset + kTevIdentitySize == kTevHeaderSize);

struct TevDatagram {
  std::uint8_t kind = 0;
  std::uint32_t conversation = 0;
  TevIdentity sender;
  TevIdentity receiver;
  std::span<const std::uint8_t> payload;  // points into the decoded bytes
};

// Writes the 190-byte header for a payload of `payload_length` bytes.
void tev_encode_header(std::span<std::uint8_t, kTevHeaderSize> out, std::uint8_t kind,
                       std::uint32_t conversation, const TevIdentity& sender,
                       const TevIdentity& receiver, std::size_t payload_length);

// Decodes `bytes` as one datagram; nothing when it is malformed.
std::optional<TevDatagram> tev_decode(std::span<const std::uint8_t> bytes);
