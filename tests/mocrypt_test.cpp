// The body transform: the worked example, reversibility for every byte value
// at every position and length, and the seed's low byte.
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
      body_decode(seed, v);
      ASSERT_EQ(v, plain) << "n=" << n << " seed=" << seed;
    }
  }
}

TEST(BodyTransform, OnlyTheSeedsLowByteCountsAndEmptyRangesAreUntouched) {
  std::vector<std::uint8_t> a(33, 0x11), b(33, 0x11);
  body_encode(5, a);
  body_encode(261, b);
  EXPECT_EQ(a, b);
  std::vector<std::uint8_t> none;
  body_encode(9, std::span<std::uint8_t>(none));
  std::vector<std::uint8_t> guard = {1, 2, 3};
  body_encode(9, std::span<std::uint8_t>(guard.data(), 0));
  EXPECT_EQ(guard, (std::vector<std::uint8_t>{1, 2, 3}));
}

TEST(BodyTransform, OneChangedByteChangesEveryLaterEncodedByte) {
  std::vector<std::uint8_t> a(40, 0x30), b = a;
  b[10] = 0x31;
  body_encode(3, a);
  body_encode(3, b);
  for (std::size_t i = 0; i < 40; ++i) {
    if (i < 10)
      EXPECT_EQ(a[i], b[i]);
    else
      EXPECT_NE(a[i], b[i]);
  }
}
