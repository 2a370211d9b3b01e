#include "drivers/liberty_usb.h"

#include <cstdint>
#include <span>
#include <utility>

#include "devices/polhemus_usb.h"

namespace kinetrel {

// USB carries 16 stations at 240 Hz.
std::unique_ptr<LibertyTracker> MakeUsbLiberty(std::string name, std::shared_ptr<LineTap> tap) {
  constexpr std::size_t kPerSecond = 1'000'000;
  return MakeLineLiberty([name = std::move(name), tap = std::move(tap), product = std::uint16_t{0}](
                             int, unsigned, std::string& why) mutable {
    auto unit = OpenPolhemusUnit(PolhemusFamily::Liberty, name, why, product);
    if (!unit.Ok()) return LibertyConnection{};
    unit->line->SetTap(tap);
    if (tap) {
      tap->OnLine(LineEvent::Opened, std::as_bytes(std::span(unit->name)), ClockTicks());
    }
    name = unit->name;  // after an unplug this unit is meant, not another one
    product = unit->product;
    return LibertyConnection{.line = std::move(unit->line),
                             .name = std::string(unit->model) + " at " + unit->name,
                             .isPatriot = unit->isPatriot,
                             .perSecond = kPerSecond,
                             .hasFifo = true};
  });
}

}  // namespace kinetrel
