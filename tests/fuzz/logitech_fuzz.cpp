// Any bytes as the head tracker's records and as the axes of its mounting.
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "devices/wire.h"
#include "drivers/logitech_device.h"

namespace {

using namespace kinetrel;

void Require(bool holds) {
  if (!holds) std::abort();
}

void CheckRecord(std::span<const std::byte, kLogitechRecordSize> record) {
  const auto values = DecodeLogitechRecord(record);
  for (std::size_t i = 0; i < 3; ++i) Require(values[i] >= -0x100000 && values[i] < 0x100000);
  for (std::size_t i = 3; i < 6; ++i) Require(values[i] >= 0 && values[i] < 0x4000);
  Pose pose;
  for (std::size_t i = 0; i < 6; ++i) pose[i] = static_cast<float>(values[i]);
  for (const float part : ApplyLogitechMounting(values[3] % 7 - 1, pose)) {
    Require(std::isfinite(part));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto bytes = std::as_bytes(std::span(data, size));
  if (bytes.size() >= 24) {
    WireReader wire(bytes);
    std::array<float, 6> axes{};
    for (float& part : axes) part = wire.F32Le();
    const auto mounting = LogitechMountingOf(axes.data(), axes.data() + 3);
    Require(!mounting || (static_cast<int>(*mounting) >= 0 && static_cast<int>(*mounting) <= 4));
  }
  for (; bytes.size() >= kLogitechRecordSize; bytes = bytes.subspan(1)) {
    CheckRecord(bytes.first<kLogitechRecordSize>());
  }
  return 0;
}
