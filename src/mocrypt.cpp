#include "mocrypt.h"

#include <bit>
#include <cstring>

namespace {

// Encoding is a prefix XOR over the rotated bytes: s(i) = seed ^ r(0) ^ ... ^ r(i).
// Eight bytes at a time, the prefix XOR inside a little-endian word is three
// shift-and-XOR steps; the running value of the previous word is then folded
// into every byte. This keeps the serial dependency at one XOR per word
// instead of one per byte.
inline std::uint64_t rotl1_bytes(std::uint64_t w) {
  return ((w << 1) & 0xFEFEFEFEFEFEFEFEULL) | ((w >> 7) & 0x0101010101010101ULL);
}
inline std::uint64_t rotr1_bytes(std::uint64_t w) {
  return ((w >> 1) & 0x7F7F7F7F7F7F7F7FULL) | ((w << 7) & 0x8080808080808080ULL);
}

constexpr bool kLittle = std::endian::native == std::endian::little;

}  // namespace

void body_encode(int seed, std::span<std::uint8_t> data) {
  auto s = static_cast<std::uint8_t>(seed & 0xFF);
  std::uint8_t* p = data.data();
  std::size_t n = data.size();
  std::size_t i = 0;
  if constexpr (kLittle) {
    for (; i + 8 <= n; i += 8) {
      std::uint64_t w;
      std::memcpy(&w, p + i, 8);
      w = rotl1_bytes(w);
      w ^= w << 8;
      w ^= w << 16;
      w ^= w << 32;
      w ^= 0x0101010101010101ULL * s;
      std::memcpy(p + i, &w, 8);
      s = static_cast<std::uint8_t>(w >> 56);
    }
  }
  for (; i < n; ++i) {
    s = static_cast<std::uint8_t>(s ^ std::rotl(p[i], 1));
    p[i] = s;
  }
}

void body_decode(int seed, std::span<std::uint8_t> data) {
  auto s = static_cast<std::uint8_t>(seed & 0xFF);
  std::uint8_t* p = data.data();
  std::size_t n = data.size();
  std::size_t i = 0;
  if constexpr (kLittle) {
    // Each plain byte depends only on its encoded byte and the one before, so
    // whole words decode independently.
    for (; i + 8 <= n; i += 8) {
      std::uint64_t c;
      std::memcpy(&c, p + i, 8);
      std::uint64_t prev = (c << 8) | s;
      std::uint64_t t = rotr1_bytes(c ^ prev);
      s = static_cast<std::uint8_t>(c >> 56);
      std::memcpy(p + i, &t, 8);
    }
  }
  for (; i < n; ++i) {
    std::uint8_t c = p[i];
    std::uint8_t t = static_cast<std::uint8_t>(c ^ s);
    s = c;
    p[i] = std::rotr(t, 1);
  }
}

void body_encode(int seed, std::span<char> data) {
  body_encode(seed, std::span<std::uint8_t>(reinterpret_cast<std::uint8_t*>(data.data()), data.size()));
}

void body_decode(int seed, std::span<char> data) {
  body_decode(seed, std::span<std::uint8_t>(reinterpret_cast<std::uint8_t*>(data.data()), data.size()));
}
