// Arbitrary bytes as a received datagram: the decoder must refuse or accept
// without reading outside them, and what it accepts must encode back to the
// same bytes.
#include <cstdint>
#include <cstring>
#include <vector>

#include "tev_wire.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<std::uint8_t> bytes(data, data + size);
  auto d = tev_decode(bytes);
  if (!d) return 0;
  std::vector<std::uint8_t> again(kTevHeaderSize + d->payload.size());
  tev_encode_header(std::span<std::uint8_t, kTevHeaderSize>(again.data(), kTevHeaderSize),
                    d->kind, d->conversation, d->sender, d->receiver, d->payload.size());
  if (!d->payload.empty())
    std::memcpy(again.data() + kTevHeaderSize, d->payload.data(), d->payload.size());
  if (again != bytes) __builtin_trap();
  return 0;
}
