// The body transform: the worked example, and the word-at-a-time code
// against the byte definition at every length (every byte value turns up).
#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <random>
#include <vector>

#include "mocrypt.h"

namespace {

// The transform as defined byte by byte; the library works a word at a time.
std::vector<std::uint8_t> encode_by_definition(int seed, std::vector<std::uint8_t> v) {
  auto s = static_cast<std::uint8_t>(seed);
  for (auto& b : v) {
    s = static_cast<std::uint8_t>(s ^ std::rotl(b, 1));
    b = s;
  }
  return v;
}

}  // namespace

TEST(BodyTransform, WorkedExample) {
  std::vector<std::uint8_t> v = {0x41, 0x42};
  body_encode(0x25, v);
  EXPECT_EQ(v, (std::vector<std::uint8_t>{0xA7, 0x23}));
  body_decode(0x25, v);
  EXPECT_EQ(v, (std::vector<std::uint8_t>{0x41, 0x42}));
}

TEST(BodyTransform, MatchesTheByteDefinitionAndRoundTripsAtEveryLengthAndValue) {
  std::mt19937 rng(7);
  for (std::size_t n = 0; n < 80; ++n) {
    for (int seed : {0, 1, 44, 0x80, 255}) {
      std::vector<std::uint8_t> plain(n);
      for (std::size_t i = 0; i < n; ++i)  // every byte value turns up across the rounds
        plain[i] = static_cast<std::uint8_t>(rng() + i * 37);
      auto v = plain;
      body_encode(seed, v);
      ASSERT_EQ(v, encode_by_definition(seed, plain)) << "n=" << n << " seed=" << seed;
      auto high = plain;  // only the seed's low byte counts
      body_encode(seed + 256, high);
      ASSERT_EQ(high, v);
      body_decode(seed, v);
      ASSERT_EQ(v, plain) << "n=" << n << " seed=" << seed;
    }
  }
}
