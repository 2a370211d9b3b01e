// Any bytes as the flock's records: the start is found, words stay in range, and what follows the
// last mark is what is read.
#include <cstdint>
#include <cstdlib>

#include "drivers/flock_device.h"

namespace {

using namespace kinetrel;

void Require(bool holds) {
  if (!holds) std::abort();
}

bool Marked(std::byte byte) { return std::to_integer<unsigned>(byte) >= 0x80; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto bytes = std::as_bytes(std::span(data, size));
  while (bytes.size() >= kFlockRecordSize) {
    const auto record = bytes.first<kFlockRecordSize>();
    const std::size_t start = FindFlockRecord(record);
    Require(start < record.size() && (start == 0 || Marked(record[start])));
    for (std::size_t i = start + 1; i < record.size(); ++i) Require(!Marked(record[i]));
    for (const int word : DecodeFlockRecord(record)) {
      Require(word >= -32768 && word <= 32764 && word % 4 == 0);
    }
    bytes = bytes.subspan(start > 0 ? start : kFlockRecordSize);
  }
  return 0;
}
