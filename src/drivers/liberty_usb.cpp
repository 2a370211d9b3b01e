#include "drivers/liberty_usb.h"

#include <utility>

#include "devices/polhemus_usb.h"

namespace kinetrel {

// USB carries 16 stations at 240 Hz.
std::unique_ptr<LibertyTracker> MakeUsbLiberty(std::string name) {
  constexpr std::size_t kPerSecond = 1'000'000;
  return MakeLineLiberty([name = std::move(name)](int, unsigned, std::string& why) mutable {
    auto unit = OpenPolhemusUnit(PolhemusFamily::Liberty, name, why);
    if (!unit.Ok()) return LibertyConnection{};
    name = unit->name;  // after an unplug this unit is meant, not another one
    return LibertyConnection{.line = std::move(unit->line),
                             .name = std::string(unit->model) + " at " + unit->name,
                             .isPatriot = unit->isPatriot,
                             .perSecond = kPerSecond,
                             .hasFifo = true};
  });
}

}  // namespace kinetrel
