// Any bytes as the InterTrax's records.
#include <cstdint>
#include <cstdlib>

#include "drivers/intertrax_device.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kinetrel;
  auto bytes = std::as_bytes(std::span(data, size));
  for (; bytes.size() >= kIntertraxRecordSize; bytes = bytes.subspan(1)) {
    for (const int angle : DecodeIntertraxRecord(bytes.first<kIntertraxRecordSize>())) {
      if (angle < -32768 || angle > 32767) std::abort();
    }
  }
  return 0;
}
