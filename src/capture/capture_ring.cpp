#include "capture/capture_ring.h"

#include <algorithm>
#include <cstring>

namespace kinetrel {

bool CaptureRing::Put(CapturedHead head, std::span<const std::byte> first,
                      std::span<const std::byte> second) {
  head.size = static_cast<std::uint32_t>(first.size() + second.size());
  const std::uint64_t begin = put_.load(std::memory_order_relaxed);
  const std::uint64_t used = begin - taken_.load(std::memory_order_acquire);
  if (sizeof head + head.size > size_ - used) {
    lost_.store(lost_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return false;
  }
  CopyIn(begin, std::as_bytes(std::span(&head, 1)));
  CopyIn(begin + sizeof head, first);
  CopyIn(begin + sizeof head + first.size(), second);
  put_.store(begin + sizeof head + head.size, std::memory_order_release);
  return true;
}

bool CaptureRing::Take(CapturedPiece& piece) {
  const std::uint64_t begin = taken_.load(std::memory_order_relaxed);
  if (put_.load(std::memory_order_acquire) == begin) return false;
  CopyOut(begin, std::as_writable_bytes(std::span(&piece.head, 1)));
  piece.bytes.resize(piece.head.size);
  CopyOut(begin + sizeof piece.head, piece.bytes);
  taken_.store(begin + sizeof piece.head + piece.head.size, std::memory_order_release);
  return true;
}

// Around the end of the memory.
void CaptureRing::CopyIn(std::uint64_t at, std::span<const std::byte> from) {
  const auto place = static_cast<std::size_t>(at & (size_ - 1));
  const std::size_t before = std::min(from.size(), size_ - place);
  if (before > 0) std::memcpy(memory_.get() + place, from.data(), before);
  if (before < from.size()) std::memcpy(memory_.get(), from.data() + before, from.size() - before);
}

void CaptureRing::CopyOut(std::uint64_t at, std::span<std::byte> into) const {
  const auto place = static_cast<std::size_t>(at & (size_ - 1));
  const std::size_t before = std::min(into.size(), size_ - place);
  if (before > 0) std::memcpy(into.data(), memory_.get() + place, before);
  if (before < into.size()) std::memcpy(into.data() + before, memory_.get(), into.size() - before);
}

}  // namespace kinetrel
