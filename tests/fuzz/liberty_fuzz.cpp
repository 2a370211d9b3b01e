// Any bytes as what a Liberty's library and a Liberty's line hand over: nothing is read outside
// them, cycles are whole, and nothing is searched for ever.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

#include "drivers/liberty_frame.h"
#include "drivers/liberty_wire.h"

namespace {

using namespace kinetrel;

void Require(bool holds) {
  if (!holds) std::abort();
}

void DecodeFrame(std::span<const std::uint8_t> choices, std::span<const std::uint8_t> bytes) {
  std::vector<std::int32_t> items;
  for (const std::uint8_t choice : choices) items.push_back(static_cast<std::int8_t>(choice));
  const LibertyLayout layout = LibertyLayoutOf(items);
  // A copy of its own, so that a byte too far is seen.
  const std::vector<std::uint8_t> own(bytes.begin(), bytes.end());
  const auto frame = std::as_bytes(std::span(own));
  if (LibertyFrameCount(layout, frame)) Require(frame.size() >= layout.frameCount + 4);
  float values[4] = {};
  for (const std::size_t index : {0U, 1U, 15U, 16U, 0xFFFFFFFFU}) {
    for (const std::size_t offset : {layout.position, layout.euler, layout.quaternion}) {
      ReadLibertyFloats(layout, frame, index, offset, values);
    }
  }
}

// In pieces, as a line hands them over.
void ReadLine(std::uint8_t active, std::size_t body, std::span<const std::uint8_t> bytes) {
  static LibertyFrameReader reader;
  static LibertyCycles cycles;
  const std::size_t record = kLibertyHeaderSize + body;
  reader.Clear();
  reader.SetRecordSize(record);
  cycles.SetLayout(record, body >= 4 ? record - 4 : 0);
  cycles.SetStations(active, 0);
  std::int64_t now = 0;
  std::size_t piece = 1;
  while (!bytes.empty()) {
    const auto room = reader.Room();
    const std::size_t count = std::min({bytes.size(), room.size(), piece++});
    Require(count > 0);
    std::ranges::copy(bytes.first(count), room.begin());
    reader.Took(count);
    bytes = bytes.subspan(count);
    while (const auto frame = reader.Next()) {
      Require(frame->bytes.size() >= kLibertyHeaderSize && frame->station <= kLibertyStations);
      if (frame->IsPose()) cycles.Add(*frame, now);
    }
    const auto cycle = cycles.Take(now += 7);
    Require(cycle.size() % record == 0);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 8) return 0;
  const std::span bytes(data, size);
  DecodeFrame(bytes.first(6), bytes.subspan(6));
  ReadLine(bytes[6], bytes[7] % 160, bytes.subspan(8));
  return 0;
}
