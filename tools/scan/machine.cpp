#include "scan/machine.h"

#include <kinetrel/stream.h>
#include <array>

#include "devices/polhemus_usb.h"
#include "platform/dynamic_library.h"
#include "platform/joystick.h"
#include "platform/usb_line.h"

namespace kinetrel::scan {
namespace {

std::vector<std::string> ListJoysticks() {
  std::vector<std::string> names;
  for (int i = 0, count = CountJoysticks(); i < count; ++i) {
    const auto stick = JoystickInput::Open(i);
    if (stick.status().error == Error::NotFound) continue;  // a place of Windows without a stick
    if (!stick.Ok()) {
      names.push_back(Describe(stick.status()));
      continue;
    }
    const auto facts = stick->Capabilities();
    names.push_back(facts.Ok() ? facts->product : Describe(facts.status()));
  }
  return names;
}

void ListUsb(Machine& machine) {
  const auto devices = ListUsbDevices();
  if (!devices.Ok()) {
    machine.usbWords = UsbLine::ExplainFailure(devices.status());
    return;
  }
  for (const UsbDevice& device : *devices) {
    if (const auto unit = DescribePolhemusUnit(device)) {
      machine.usb.push_back({unit->name, unit->model, unit->advice, unit->deviceType});
    }
  }
}

// Loading runs the library's own start-up code, as kinetrel does.
VendorLibrary LookFor(const char* name, int deviceType) {
  VendorLibrary library{.name = name, .deviceType = deviceType};
  std::string why;
  library.found = DynamicLibrary::Load(name, &why).Ok();
  if (!library.found) library.words = why;
  return library;
}

}  // namespace

std::vector<Slot> SlotsInUse() {
  std::vector<Slot> slots;
  for (int number = 1; number <= kinetrel_stream_slots; ++number) {
    kinetrel_stream stream;
    if (kinetrel_stream_open(&stream, number, 0) != kinetrel_stream_ok) continue;
    Slot slot{.number = number};
    std::array<char, 256> sentence{};
    slot.state = kinetrel_state_text(kinetrel_stream_state(&stream, sentence.data()));
    slot.process = static_cast<int>(stream.head.writer_pid);
    kinetrel_run run;
    if (kinetrel_stream_run(&stream, &run) == kinetrel_stream_ok) {
      slot.device = run.device_name;
      slot.rate = run.measured_rate;
    }
    kinetrel_stream_close(&stream);
    slots.push_back(std::move(slot));
  }
  return slots;
}

Machine LookAtMachine() {
  Machine machine;
  machine.joysticks = ListJoysticks();
  ListUsb(machine);
  machine.libraries = {LookFor("isense.dll", 6), LookFor("pdi.dll", 10)};
  machine.slots = SlotsInUse();
  return machine;
}

}  // namespace kinetrel::scan
