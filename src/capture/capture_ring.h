// Pieces of any size on their way from one thread to another, in memory of a fixed size.
//
// Threads  one puts and one takes. Several may put if they do so one at a time, as the threads do
//          that use one device.
// Memory   Put allocates nothing and never waits.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace kinetrel {

struct CapturedHead {
  std::int64_t timeNs = 0;
  std::int64_t sinceNs = 0;  // of received bytes; see LineTap
  std::uint32_t size = 0;    // of the bytes that follow
  std::uint16_t kind = 0;
  std::uint16_t slot = 0;
};

struct CapturedPiece {
  CapturedHead head;
  std::vector<std::byte> bytes;
};

class CaptureRing {
 public:
  // size  a power of two, in bytes.
  explicit CaptureRing(std::size_t size)
      : size_(size), memory_(std::make_unique<std::byte[]>(size)) {}

  // Puts one piece: `head`, whose size is set here, and the bytes of `first` and `second`. False:
  // it does not fit and is lost.
  bool Put(CapturedHead head, std::span<const std::byte> first,
           std::span<const std::byte> second = {});

  // Replaces `piece` by the oldest one. False: the ring is empty.
  bool Take(CapturedPiece& piece);

  std::uint64_t lost() const { return lost_.load(std::memory_order_relaxed); }  // pieces

 private:
  void CopyIn(std::uint64_t at, std::span<const std::byte> from);
  void CopyOut(std::uint64_t at, std::span<std::byte> into) const;

  const std::size_t size_;
  const std::unique_ptr<std::byte[]> memory_;
  // Both count bytes since the start, on cache lines of their own.
  alignas(64) std::atomic<std::uint64_t> put_ = 0;
  alignas(64) std::atomic<std::uint64_t> taken_ = 0;
  alignas(64) std::atomic<std::uint64_t> lost_ = 0;
};

}  // namespace kinetrel
