#include "emulators/device_table.h"

#include "emulators/fastrak_emulator.h"

namespace kinetrel {
namespace {

constexpr DeviceRow kDevices[] = {
    {"fastrak", "magnetic trackers of the FASTRAK family, 1 to 4 stations", 2, 115200,
     FastrakOptions, MakeFastrak},
};

}  // namespace

std::span<const DeviceRow> Devices() { return kDevices; }

const DeviceRow* FindDevice(std::string_view name) {
  for (const DeviceRow& row : kDevices) {
    if (row.name == name) return &row;
  }
  return nullptr;
}

}  // namespace kinetrel
