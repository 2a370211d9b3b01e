#include "drivers/liberty_frame.h"

#include <algorithm>

#include "devices/wire.h"

namespace kinetrel {
namespace {

constexpr std::size_t kHeaderSize = 8;

// By the item's code: its size, and the offset of the layout that it sets.
struct ItemRow {
  std::size_t size;
  std::size_t LibertyLayout::*offset;
};
constexpr ItemRow kItems[] = {
    {1, nullptr},                      // 0 a blank
    {2, nullptr},                      // 1 carriage return and line feed
    {12, &LibertyLayout::position},    // 2
    {12, &LibertyLayout::position},    // 3
    {12, &LibertyLayout::euler},       // 4
    {12, &LibertyLayout::euler},       // 5
    {36, nullptr},                     // 6 direction cosines
    {16, &LibertyLayout::quaternion},  // 7
    {4, &LibertyLayout::frameCount},   // 8 time stamp
    {4, &LibertyLayout::frameCount},   // 9
    {4, nullptr},                      // 10 button of the stylus
    {4, nullptr},                      // 11 distortion
    {4, nullptr},                      // 12 external synchronisation
};

const ItemRow* RowOf(std::int32_t code) {
  return code >= 0 && code < static_cast<int>(std::size(kItems)) ? &kItems[code] : nullptr;
}

}  // namespace

std::size_t LibertyItemSize(std::int32_t code) {
  const ItemRow* const row = RowOf(code);
  return row != nullptr ? row->size : 0;
}

LibertyLayout LibertyLayoutOf(std::span<const std::int32_t> items) {
  LibertyLayout layout;
  layout.recordSize = kHeaderSize;
  for (const std::int32_t code : items) {
    const ItemRow* const row = RowOf(code);
    if (row == nullptr) continue;
    if (row->offset != nullptr) layout.*row->offset = layout.recordSize;
    layout.recordSize += row->size;
  }
  return layout;
}

std::optional<std::uint32_t> LibertyFrameCount(const LibertyLayout& layout,
                                               std::span<const std::byte> frame) {
  if (layout.frameCount == 0) return std::nullopt;
  WireReader wire(frame);
  wire.Skip(layout.frameCount);
  const auto count = static_cast<std::uint32_t>(wire.I32Le());
  return wire.Ok() ? std::optional(count) : std::nullopt;
}

bool ReadLibertyStations(const LibertyLayout& layout, std::span<const std::byte> frame,
                         std::span<int> stations) {
  constexpr std::size_t kStationByte = 2;
  constexpr int kStations = 16;
  int last = -1;
  for (std::size_t i = 0; i < stations.size(); ++i) {
    const int station = std::to_integer<int>(frame[i * layout.recordSize + kStationByte]) - 1;
    if (station <= last || station >= kStations) return false;
    stations[i] = last = station;
  }
  return true;
}

bool ReadLibertyFloats(const LibertyLayout& layout, std::span<const std::byte> frame,
                       std::size_t index, std::size_t offset, std::span<float> into) {
  if (offset == 0 || offset + into.size() * sizeof(float) > layout.recordSize) return false;
  WireReader wire(frame);
  wire.Skip(index * layout.recordSize + offset);
  const auto bytes = wire.Bytes(into.size() * sizeof(float));
  if (!wire.Ok()) return false;
  WireReader floats(bytes);
  for (float& value : into) value = floats.F32Le();
  return true;
}

}  // namespace kinetrel
