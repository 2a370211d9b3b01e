// Any bytes as what a FASTRAK sends: station records of every layout and replies in text. What
// comes out stays in range, and nothing is read beyond the end. The first byte chooses the layout.
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "drivers/fastrak_wire.h"

namespace {

using namespace kinetrel;

void Require(bool holds) {
  if (!holds) std::abort();
}

void DecodeRecord(std::uint8_t choice, std::span<const std::byte> body) {
  constexpr FastrakFormat kFormats[] = {FastrakFormat::Bits14, FastrakFormat::Bits16,
                                        FastrakFormat::Bits32};
  const FastrakLayout layout{kFormats[choice % 3], choice / 3U % 8U, (choice & 0x80) != 0};
  Require(layout.BodySize() <= 40 && layout.Size() >= layout.BodySize() + kFastrakHeadSize);
  const int units = choice & 3;
  FastrakChannels channels;
  SetFastrakScales(units != 0, units, layout.format, channels);
  (void)IsFastrakInStep(layout, body);
  Pose pose{};
  Quaternion quaternion{};
  const Pose offset = {1, 2, 3, 0.5F, -0.5F, -3.1415927F};
  const int result = DecodeFastrakBody(layout, body, units, channels, offset, pose, quaternion);
  const bool whole = (result & 0xFF) == layout.ValueCount();
  Require(result >= 0 && (whole || (pose == Pose{} && quaternion == Quaternion{})));
  for (const float value : pose) Require(std::fabs(value) <= 363.0F);
  for (const float value : quaternion) Require(std::fabs(value) <= 360.0F);
}

void ReadReplies(std::string_view reply) {
  (void)JudgeFastrakReply(reply);
  const FastrakStatusRecord status = ParseFastrakStatus(reply);
  Require(status.bitError > -100 && status.bitError < 1000);
  Require(!status.found || (status.word & kFastrakParsed) != 0);
  Require(FindFastrakProduct(status.word & 0xFFFF).stations >= 1);
  Require(*BitErrorText(status.bitError) != '\0');
  unsigned active = 0;
  Require(!ParseActiveStations(reply, 4, active) || active < 16);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::span rest(data + 1, size - 1);
  DecodeRecord(data[0], std::as_bytes(rest));
  ReadReplies({reinterpret_cast<const char*>(rest.data()), rest.size()});
  return 0;
}
