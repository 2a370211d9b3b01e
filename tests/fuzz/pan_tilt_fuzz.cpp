// Any bytes as the pan-tilt head's answer.
#include <cstdint>
#include <cstdlib>

#include "drivers/pan_tilt_device.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kinetrel;
  std::array<int, kPanTiltWords> words{};
  const std::size_t count = DecodePanTilt(std::as_bytes(std::span(data, size)), words);
  if (count != size / 2) std::abort();
  for (std::size_t i = 0; i < words.size(); ++i) {
    const bool came = i < count;
    if (words[i] < -32768 || words[i] > 32767 || (!came && words[i] != 0)) std::abort();
  }
  return 0;
}
