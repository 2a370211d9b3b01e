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

void LibertyCycles::SetLayout(std::size_t recordSize, std::size_t counterOffset) {
  const bool fits = recordSize <= kLongestRecord && counterOffset + 4 <= recordSize;
  recordSize_ = fits ? recordSize : 0;
  counterOffset_ = counterOffset;
  DropAll();
}

void LibertyCycles::DropAll() {
  have_ = told_ = 0;
  made_ = taken_ = 0;
}

void LibertyCycles::SetStations(std::uint32_t active, std::int64_t nowMs) {
  active_ = active;
  lastPose_.fill(nowMs);
  misses_.fill(0);
}

std::uint32_t LibertyCycles::CounterOf(std::span<const std::uint8_t> record) const {
  std::uint32_t counter = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    counter |= static_cast<std::uint32_t>(record[counterOffset_ + i]) << 8 * i;
  }
  return counter;
}

// A station that was missing for some cycles is not waited for, until it delivers again.
std::uint32_t LibertyCycles::Expected() const {
  std::uint32_t expected = 0;
  for (std::size_t i = 0; i < kLibertyStations; ++i) {
    if (misses_[i] < kMissesToExpectNoMore) expected |= active_ & 1U << i;
  }
  return expected;
}

void LibertyCycles::Add(const LibertyFrame& pose, std::int64_t nowMs) {
  if (pose.station == 0 || recordSize_ == 0 || pose.bytes.size() != recordSize_) return;
  const std::size_t place = pose.station - 1;
  if ((active_ >> place & 1) == 0) return;
  const std::uint32_t counter = CounterOf(pose.bytes);
  if (have_ != 0 && counter != counter_) Close();
  if (have_ == 0) began_ = nowMs;
  counter_ = counter;
  std::ranges::copy(pose.bytes,
                    collected_.begin() + static_cast<std::ptrdiff_t>(place * kLongestRecord));
  have_ |= 1U << place;
  lastPose_[place] = nowMs;
  if ((Expected() & ~have_) == 0) Close();
}

void LibertyCycles::Close() {
  Cycle& cycle = cycles_[made_ % kKept];
  cycle.size = 0;
  cycle.stations = have_;
  for (std::size_t i = 0; i < kLibertyStations; ++i) {
    if ((active_ >> i & 1) == 0) continue;
    const bool has = (have_ >> i & 1) != 0;
    misses_[i] = has ? 0 : std::min(misses_[i] + 1, kMissesToExpectNoMore);
    if (!has) continue;
    std::copy_n(collected_.begin() + static_cast<std::ptrdiff_t>(i * kLongestRecord), recordSize_,
                cycle.bytes.begin() + static_cast<std::ptrdiff_t>(cycle.size));
    cycle.size += recordSize_;
  }
  have_ = 0;
  ++made_;
  // The place that is filled next must not be the one that the caller may still read.
  if (made_ - taken_ <= kKept - 2) return;
  taken_ = made_ - (kKept - 2);
  told_ = 0;
}

std::span<const std::uint8_t> LibertyCycles::Take(std::int64_t nowMs) {
  if (have_ != 0 && nowMs - began_ > lineTime_ + kTimeOut) Close();
  if (made_ == 0) return {};
  if (taken_ < made_) {
    ++taken_;
    told_ = 0;
  }
  const Cycle& cycle = cycles_[(taken_ - 1) % kKept];
  return std::span(cycle.bytes).first(cycle.size);
}

std::span<const std::uint8_t> LibertyCycles::NextRecord() {
  const bool closed = taken_ < made_;
  const Cycle& cycle = cycles_[taken_ % kKept];
  const std::uint32_t stations = closed ? cycle.stations : have_;
  const std::uint32_t untold = stations & ~told_;
  if (untold == 0) return {};
  const auto station = static_cast<std::size_t>(std::countr_zero(untold));
  const std::uint32_t bit = 1U << station;
  told_ |= bit;
  if (!closed) return std::span(collected_).subspan(station * kLongestRecord, recordSize_);
  const auto place = static_cast<std::size_t>(std::popcount(stations & (bit - 1)));
  return std::span(cycle.bytes).subspan(place * recordSize_, recordSize_);
}

std::uint32_t LibertyCycles::Missing(std::int64_t nowMs) const {
  std::uint32_t missing = 0;
  for (std::size_t i = 0; i < kLibertyStations; ++i) {
    if (nowMs - lastPose_[i] > kSilence) missing |= active_ & 1U << i;
  }
  return missing;
}

}  // namespace kinetrel
