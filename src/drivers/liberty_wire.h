// Finds the frames in the bytes that a Liberty sends over its line, and the cycles in the frames.
//
//   offset  size  field     meaning
//   0       2     mark      "LY"; "PA" and "LU" of its relatives
//   2       1     station   from 1; 0: no station
//   3       1     command   the command that it answers; 'C' and 'P' mark poses
//   4       1     error     0 or blank: none; a pose with an error letter is valid all the same
//   5       1     reserved
//   6       2     size      of the body that follows, little-endian
//
// Frames have no checksum. When the bytes do not look like a frame, one byte is skipped and the
// search goes on.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace kinetrel {

inline constexpr std::size_t kLibertyHeaderSize = 8;
inline constexpr unsigned kLibertyStations = 16;

struct LibertyFrame {
  unsigned station = 0;
  std::uint8_t command = 0;
  std::uint8_t error = 0;
  std::span<const std::uint8_t> bytes;  // with the header; valid until the reader's next call

  bool IsPose() const { return command == 'C' || command == 'P'; }
  std::span<const std::uint8_t> body() const { return bytes.subspan(kLibertyHeaderSize); }
};

// Memory  nothing is allocated.
class LibertyFrameReader {
 public:
  void Clear() { begin_ = end_ = 0; }

  // The size of a pose with its header. Poses of any other size are skipped; 0 skips all poses.
  void SetRecordSize(std::size_t size) { recordSize_ = size; }

  // Room() is where the caller stores the next bytes; it is never empty. Took() tells their number.
  std::span<std::uint8_t> Room();
  void Took(std::size_t count) { end_ += count; }

  std::optional<LibertyFrame> Next();

  // How many bytes are missing to the end of a pose that has begun, or of the next one; at least 1.
  std::size_t Missing() const {
    const std::size_t held = end_ - begin_;
    return held < recordSize_ ? recordSize_ - held : 1;
  }

 private:
  static constexpr std::size_t kLongestBody = 4096;
  enum class Look { Frame, Cut, None };
  Look LookAt(std::span<const std::uint8_t> bytes, std::size_t& size) const;

  std::array<std::uint8_t, 4 * kLongestBody> bytes_{};
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  std::size_t recordSize_ = 0;
};

// Collects the poses of a cycle, in the order of the stations. Sensors may be unplugged at any
// time: a cycle closes when all stations that deliver are in, when the next cycle begins, or by
// time-out. The newest cycles are kept for a late caller.
class LibertyCycles {
 public:
  static constexpr std::int64_t kTimeOut = 25;    // ms; the slowest cycle takes 8.3 ms
  static constexpr std::int64_t kSilence = 1000;  // ms after which a station counts as missing

  // counterOffset  of the frame count, which is the same in all poses of a cycle.
  void SetLayout(std::size_t recordSize, std::size_t counterOffset);

  // How long the line needs for a cycle, beyond which kTimeOut begins.
  void SetLineTime(std::int64_t ms) { lineTime_ = ms; }

  // The stations whose poses are taken; bit 0 is station 1.
  void SetStations(std::uint32_t active, std::int64_t nowMs);

  void Add(const LibertyFrame& pose, std::int64_t nowMs);

  // The oldest cycle that was not handed out yet, or the last one again; empty before the first.
  std::span<const std::uint8_t> Take(std::int64_t nowMs);

  // The next record of the cycle that Take hands out next, each record once; empty when none came.
  // That cycle may still be open.
  std::span<const std::uint8_t> NextRecord();

  bool HasClosed() const { return taken_ < made_; }
  void DropAll();  // what was collected and not handed out

  // The active stations without a pose for kSilence.
  std::uint32_t Missing(std::int64_t nowMs) const;

 private:
  static constexpr std::size_t kKept = 128;  // half a second at 240 Hz
  static constexpr std::size_t kLongestRecord = 128;
  static constexpr int kMissesToExpectNoMore = 10;  // cycles
  using Records = std::array<std::uint8_t, kLibertyStations * kLongestRecord>;
  struct Cycle {
    Records bytes;
    std::size_t size = 0;
    std::uint32_t stations = 0;
  };

  std::uint32_t CounterOf(std::span<const std::uint8_t> record) const;
  std::uint32_t Expected() const;
  void Close();

  std::array<Cycle, kKept> cycles_{};
  std::uint64_t made_ = 0;   // closed cycles; the next one goes to place made_ % kKept
  std::uint64_t taken_ = 0;  // cycles handed out or skipped
  std::uint32_t told_ = 0;   // stations of the cycle after those, by NextRecord
  Records collected_{};      // the poses of the open cycle, by station
  std::uint32_t have_ = 0;   // their stations
  std::uint32_t counter_ = 0;
  std::int64_t began_ = 0;     // ms, the open cycle
  std::int64_t lineTime_ = 0;  // ms
  std::uint32_t active_ = 0;
  std::array<std::int64_t, kLibertyStations> lastPose_{};  // ms, by station
  std::array<int, kLibertyStations> misses_{};             // closed cycles in a row without a pose
  std::size_t recordSize_ = 0;
  std::size_t counterOffset_ = 0;
};

}  // namespace kinetrel
