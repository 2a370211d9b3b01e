// The way of captured pieces from one thread to another.
#include "capture/capture_ring.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <thread>
#include <vector>

namespace kinetrel::test {
namespace {

constexpr std::uint32_t kPieces = 20000;

// Of any length, all bytes alike, so that mixed pieces show.
std::vector<std::byte> BytesOf(std::uint32_t number) {
  return std::vector<std::byte>(number * 37 % 301, static_cast<std::byte>(number));
}

// What is taken was put, in its order, and what is missing was counted.
TEST(CaptureRing, PassesPiecesOnAndCountsThoseThatDoNotFit) {
  CaptureRing ring(1024);
  std::thread putting([&] {
    for (std::uint32_t i = 1; i <= kPieces; ++i) {
      const auto bytes = BytesOf(i);
      const std::span<const std::byte> all(bytes);
      const std::size_t cut = all.size() / 3;
      while (!ring.Put({.timeNs = i, .kind = 7}, all.first(cut), all.subspan(cut)) &&
             i == kPieces) {
        std::this_thread::yield();
      }
    }
  });
  std::uint64_t taken = 0;
  CapturedPiece piece;
  for (std::int64_t last = 0; last < kPieces;) {
    if (!ring.Take(piece)) {
      std::this_thread::yield();
      continue;
    }
    ++taken;
    ASSERT_GT(piece.head.timeNs, last);
    last = piece.head.timeNs;
    ASSERT_EQ(piece.head.kind, 7);
    ASSERT_EQ(piece.bytes, BytesOf(static_cast<std::uint32_t>(last)));
  }
  putting.join();
  EXPECT_FALSE(ring.Take(piece));
  EXPECT_GE(taken + ring.lost(), kPieces);  // the last piece may have been tried more than once
}

TEST(CaptureRing, RefusesAPieceLargerThanItself) {
  CaptureRing ring(256);
  const std::vector<std::byte> large(300);
  EXPECT_FALSE(ring.Put({.timeNs = 1}, large));
  EXPECT_EQ(ring.lost(), 1U);
  const std::vector<std::byte> small(100, std::byte{5});
  CapturedPiece piece;
  for (int i = 0; i < 10; ++i) {  // past the end of the memory
    ASSERT_TRUE(ring.Put({.timeNs = 2}, small));
    ASSERT_TRUE(ring.Take(piece));
    ASSERT_EQ(piece.bytes, small);
  }
}

}  // namespace
}  // namespace kinetrel::test
