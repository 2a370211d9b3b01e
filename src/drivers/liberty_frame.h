// A Liberty frame: one record per active station, in the order of their numbers, one after another
// and little-endian.
//   offset  size  field    unit, meaning
//   0       8     header   not looked at: records are told apart by their place
//   8       ...   items    in the order in which they were asked for: position 12 (3 floats, in the
//                          configured unit), angles 12 (3 floats, degrees: yaw, pitch, roll),
//                          quaternion 16 (4 floats, scalar first), frame count 4
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace kinetrel {

// Where the items lie in a record, and how long that is.
struct LibertyLayout {
  std::size_t recordSize = 0;
  std::size_t position = 0;  // 0: not in the record
  std::size_t euler = 0;
  std::size_t quaternion = 0;
  std::size_t frameCount = 0;
};

// Bytes of an item, by its code; 0 for a code that is none.
std::size_t LibertyItemSize(std::int32_t code);

LibertyLayout LibertyLayoutOf(std::span<const std::int32_t> items);

// The frame counter of the first record; nothing where the frame does not reach that far.
std::optional<std::uint32_t> LibertyFrameCount(const LibertyLayout& layout,
                                               std::span<const std::byte> frame);

// Floats of record `index`, from `offset` on. False, and nothing changed, for an item that is not
// in the record (offset 0) or not all in the frame.
bool ReadLibertyFloats(const LibertyLayout& layout, std::span<const std::byte> frame,
                       std::size_t index, std::size_t offset, std::span<float> into);

}  // namespace kinetrel
