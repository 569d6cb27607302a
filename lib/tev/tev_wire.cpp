#include "tev_wire.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::array<std::uint8_t, 4> kMagic = {'T', 'E', 'V', '1'};

void put_u32(std::uint8_t* p, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<std::uint8_t>(v >> (8 * i));
}

std::uint32_t get_u32(const std::uint8_t* p) {
  std::uint32_t v = 0;
  for (int i = 3; i >= 0; --i) v = (v << 8) | p[i];
  return v;
}

}  // namespace

void tev_encode_header(std::span<std::uint8_t, kTevHeaderSize> out, std::uint8_t kind,
                       std::uint32_t conversation, const TevIdentity& sender,
                       const TevIdentity& receiver, std::size_t payload_length) {
  std::uint8_t* p = out.data();
  std::copy(kMagic.begin(), kMagic.end(), p);
  p[4] = kind;
  p[5] = p[6] = p[7] = 0;
  put_u32(p + 8, conversation);
  put_u32(p + 12, static_cast<std::uint32_t>(payload_length));
  std::copy(sender.bytes.begin(), sender.bytes.end(), p + kTevSenderOffset);
  std::copy(receiver.bytes.begin(), receiver.bytes.end(), p + kTevReceiverOffset);
}

std::optional<TevDatagram> tev_decode(std::span<const std::uint8_t> bytes) {
  if (bytes.size() < kTevHeaderSize) return std::nullopt;
  const std::uint8_t* p = bytes.data();
  if (!std::equal(kMagic.begin(), kMagic.end(), p)) return std::nullopt;
  TevDatagram d;
  d.kind = p[4];
  if (d.kind < kTevKindData || d.kind > kTevKindAnswer) return std::nullopt;
  if (p[5] != 0 || p[6] != 0 || p[7] != 0) return std::nullopt;
  d.conversation = get_u32(p + 8);
  std::uint32_t length = get_u32(p + 12);
  if (length > kTevMaxPayload) return std::nullopt;
  if (d.kind == kTevKindAnswer && length > kTevMaxAnswer) return std::nullopt;
  if (bytes.size() != kTevHeaderSize + length) return std::nullopt;
  std::copy_n(p + kTevSenderOffset, kTevIdentitySize, d.sender.bytes.begin());
  std::copy_n(p + kTevReceiverOffset, kTevIdentitySize, d.receiver.bytes.begin());
  d.payload = bytes.subspan(kTevHeaderSize, length);
  return d;
}
