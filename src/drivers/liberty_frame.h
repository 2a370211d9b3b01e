// A Liberty frame: one record per station that delivered, in the order of their numbers, one after
// another and little-endian.
//   offset  size  field    unit, meaning
//   0       8     header   byte 2 is the station, from 1
//   8       ...   items    in the order of the request: position 12 (3 floats, in the
//                          configured unit), angles 12 (3 floats, degrees: yaw, pitch, roll),
//                          quaternion 16 (4 floats, scalar first), frame count 4
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace kinetrel {

// Where the items lie in a record, and the record's length.
struct LibertyLayout {
  std::size_t recordSize = 0;
  std::size_t position = 0;  // 0: not in the record
  std::size_t euler = 0;
  std::size_t quaternion = 0;
  std::size_t frameCount = 0;
};

// The size of an item in bytes, by its code; 0 for an unknown code.
std::size_t LibertyItemSize(std::int32_t code);

LibertyLayout LibertyLayoutOf(std::span<const std::int32_t> items);

// The frame counter of the first record; nothing when the frame is too short to hold it.
std::optional<std::uint32_t> LibertyFrameCount(const LibertyLayout& layout,
                                               std::span<const std::byte> frame);

// Finds the station (from 0) of each whole record of the frame; `stations` has room for one number
// per record. Returns false when the headers do not name stations in growing order.
bool ReadLibertyStations(const LibertyLayout& layout, std::span<const std::byte> frame,
                         std::span<int> stations);

// Reads floats of record `index`, starting at `offset`. Returns false and changes nothing when the
// record lacks the item (offset 0) or the frame is too short to hold it.
bool ReadLibertyFloats(const LibertyLayout& layout, std::span<const std::byte> frame,
                       std::size_t index, std::size_t offset, std::span<float> into);

}  // namespace kinetrel
