// What a Liberty sends over its line: frames out of bytes, and cycles out of frames.
//
//   offset  size  field     meaning
//   0       2     mark      "LY"; "PA" and "LU" of its relatives
//   2       1     station   from 1; 0 where none is meant
//   3       1     command   that it answers; 'C' and 'P' poses
//   4       1     error     0 or blank: none; in poses a letter, and the pose counts all the same
//   5       1     reserved
//   6       2     size      of what follows, little-endian
//
// There is no checksum: what does not look like a frame costs one byte, and the search goes on.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace kinetrel::substitute {

inline constexpr std::size_t kPdiHeader = 8;
inline constexpr unsigned kPdiStations = 16;

struct PdiFrame {
  unsigned station = 0;
  std::uint8_t command = 0;
  std::uint8_t error = 0;
  std::span<const std::uint8_t> bytes;  // with the header; good until the reader's next call

  bool IsPose() const { return command == 'C' || command == 'P'; }
  std::span<const std::uint8_t> body() const { return bytes.subspan(kPdiHeader); }
};

// Allocates nothing.
class PdiFrameReader {
 public:
  void Clear() { begin_ = end_ = 0; }

  // Poses of any other size, header included, are none. 0: no pose is one.
  void SetRecordSize(std::size_t size) { recordSize_ = size; }

  // Where the next bytes go; never empty. Took says how many came.
  std::span<std::uint8_t> Room();
  void Took(std::size_t count) { end_ += count; }

  std::optional<PdiFrame> Next();

 private:
  static constexpr std::size_t kLongestBody = 4096;
  enum class Look { Frame, Cut, None };
  Look LookAt(std::span<const std::uint8_t> bytes, std::size_t& size) const;

  std::array<std::uint8_t, 4 * kLongestBody> bytes_{};
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  std::size_t recordSize_ = 0;
};

// Puts the poses of one cycle together, the active stations in their order. A cycle of which one is
// missing is dropped: records are told apart by their place. Keeps some for a late caller.
class PdiCycles {
 public:
  // `counterOffset`: of the frame count, which all poses of a cycle share.
  void SetLayout(std::uint32_t active, std::size_t recordSize, std::size_t counterOffset);
  void Add(const PdiFrame& pose);

  // The oldest cycle that was not handed out, else the last one again; empty without any.
  std::span<const std::uint8_t> Take();

 private:
  static constexpr std::size_t kKept = 128;  // half a second of a host that was late
  static constexpr std::size_t kLongestRecord = 128;
  using Cycle = std::array<std::uint8_t, kPdiStations * kLongestRecord>;

  std::uint32_t CounterOf(std::span<const std::uint8_t> record) const;

  std::array<Cycle, kKept> cycles_{};
  std::uint64_t made_ = 0;  // the next one is put together in this place
  std::uint64_t taken_ = 0;
  std::uint32_t active_ = 0;
  std::uint32_t have_ = 0;  // stations of the cycle in the making
  std::uint32_t counter_ = 0;
  std::size_t recordSize_ = 0;
  std::size_t counterOffset_ = 0;
};

}  // namespace kinetrel::substitute
