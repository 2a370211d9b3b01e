// Any bytes to the functions that write a packet as text, for a dry run. The first byte picks one.
#include <cstdint>
#include <cstdlib>
#include <span>

#include "bridge/freed.h"
#include "bridge/opentrack.h"
#include "bridge/opentrackio.h"
#include "bridge/osc.h"
#include "bridge/posistagenet.h"

namespace {

using namespace kinetrel::bridge;

constexpr std::string (*kDescribe[])(std::span<const std::byte>) = {
    DescribeOsc, DescribeFreeD, DescribeOpentrack, DescribePsn, DescribeOpenTrackIo};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const auto packet = std::as_bytes(std::span(data + 1, size - 1));
  const std::string text = kDescribe[data[0] % std::size(kDescribe)](packet);
  // One line for each part of a packet, and nothing that steers a terminal.
  if (text.empty() || text.size() > 100 * size + 1000) std::abort();
  for (const char letter : text) {
    if (static_cast<unsigned char>(letter) < 0x20 && letter != '\n') std::abort();
  }
  return 0;
}
