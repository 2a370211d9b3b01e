#include "drivers/liberty_wire.h"

#include <algorithm>
#include <bit>

namespace kinetrel {
namespace {

bool IsMark(std::uint8_t first, std::uint8_t second) {
  return (first == 'L' && (second == 'Y' || second == 'U')) || (first == 'P' && second == 'A');
}

bool IsCommand(std::uint8_t byte) {
  return (byte >= 1 && byte <= 0x1A) || (byte >= 'A' && byte <= 'Z');
}

}  // namespace

// ---- Frames --------------------------------------------------------------------------------

std::span<std::uint8_t> LibertyFrameReader::Room() {
  std::copy(bytes_.begin() + static_cast<std::ptrdiff_t>(begin_),
            bytes_.begin() + static_cast<std::ptrdiff_t>(end_), bytes_.begin());
  end_ -= begin_;
  begin_ = 0;
  if (end_ == bytes_.size()) end_ = 0;  // never happens: no frame is that long
  return std::span(bytes_).subspan(end_);
}

LibertyFrameReader::Look LibertyFrameReader::LookAt(std::span<const std::uint8_t> bytes,
                                                    std::size_t& size) const {
  if (bytes.size() < kLibertyHeaderSize) return Look::Cut;
  if (!IsMark(bytes[0], bytes[1]) || bytes[2] > kLibertyStations || !IsCommand(bytes[3])) {
    return Look::None;
  }
  size = kLibertyHeaderSize + static_cast<std::size_t>(bytes[6] | bytes[7] << 8);
  const bool pose = bytes[3] == 'C' || bytes[3] == 'P';
  if (pose && (bytes[2] == 0 || size != recordSize_)) return Look::None;
  if (size > kLibertyHeaderSize + kLongestBody) return Look::None;
  return size <= bytes.size() ? Look::Frame : Look::Cut;
}

std::optional<LibertyFrame> LibertyFrameReader::Next() {
  for (; begin_ < end_; ++begin_) {
    const auto rest = std::span<const std::uint8_t>(bytes_).subspan(begin_, end_ - begin_);
    std::size_t size = 0;
    const Look look = LookAt(rest, size);
    if (look == Look::Cut) return std::nullopt;
    if (look == Look::None) continue;
    begin_ += size;
    return LibertyFrame{rest[2], rest[3], rest[4], rest.first(size)};
  }
  return std::nullopt;
}

// ---- Cycles --------------------------------------------------------------------------------

void LibertyCycles::SetLayout(std::uint32_t active, std::size_t recordSize,
                              std::size_t counterOffset) {
  const bool fits = recordSize <= kLongestRecord && counterOffset + 4 <= recordSize;
  active_ = fits ? active : 0;
  recordSize_ = recordSize;
  counterOffset_ = counterOffset;
  have_ = 0;
  made_ = taken_ = 0;
}

std::uint32_t LibertyCycles::CounterOf(std::span<const std::uint8_t> record) const {
  std::uint32_t counter = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    counter |= static_cast<std::uint32_t>(record[counterOffset_ + i]) << 8 * i;
  }
  return counter;
}

void LibertyCycles::Add(const LibertyFrame& pose) {
  const std::uint32_t bit = pose.station == 0 ? 0 : 1U << (pose.station - 1);
  if ((active_ & bit) == 0 || pose.bytes.size() != recordSize_) return;
  const std::uint32_t counter = CounterOf(pose.bytes);
  if (have_ != 0 && counter != counter_) have_ = 0;  // the cycle before is incomplete
  counter_ = counter;
  const auto place = static_cast<std::size_t>(std::popcount(active_ & (bit - 1))) * recordSize_;
  std::ranges::copy(pose.bytes,
                    cycles_[made_ % kKept].begin() + static_cast<std::ptrdiff_t>(place));
  have_ |= bit;
  if (have_ != active_) return;
  have_ = 0;
  ++made_;
  // One place is being filled, and the caller may still read another.
  if (made_ - taken_ > kKept - 2) taken_ = made_ - (kKept - 2);
}

std::span<const std::uint8_t> LibertyCycles::Take() {
  if (made_ == 0) return {};
  if (taken_ < made_) ++taken_;
  const auto length = static_cast<std::size_t>(std::popcount(active_)) * recordSize_;
  return std::span(cycles_[(taken_ - 1) % kKept]).first(length);
}

}  // namespace kinetrel
