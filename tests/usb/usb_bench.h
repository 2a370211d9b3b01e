// Trackers on a bus that this process plays. The program runs with umockdev before its C library,
// so its own UsbLine and its child processes see the bus.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "emulate/emulator.h"
#include "emulate/fastrak_emulator.h"
#include "emulate/liberty_emulator.h"
#include "platform/usb_device_port.h"

namespace kinetrel::test {

inline const UsbIdentity kLiberty = {
    0x0F44, 0xFF20, true, {{0x82, false}, {0x04, false}, {0x06, false}, {0x88, false}}, 0x88};

inline UsbIdentity OlderLiberty() {
  return {0x0F44, 0xFF12, false, {{0x82, false}, {0x02, false}, {0x06, false}}, 0x82};
}

inline const UsbIdentity kFastrak = {0x0F44, 0x0003, false, {{0x02, false}, {0x84, false}}, 0x84};

inline const UsbIdentity kOlderFastrak = {
    0x0F44, 0x0002, false, {{0x82, false}, {0x02, false}, {0x84, true}}, 0x84};

inline UsbIdentity With(std::uint16_t vendor, std::uint16_t product) {
  UsbIdentity identity = kLiberty;
  identity.vendor = vendor;
  identity.product = product;
  return identity;
}

// Plays a device on a port until it is destroyed, which pulls the plug.
class Unit {
 public:
  Unit(UsbBus& bus, unsigned port, std::unique_ptr<emulate::EmulatedDevice> device,
       const UsbIdentity& identity = kLiberty) {
    auto attached = bus.Attach(port, identity);
    EXPECT_TRUE(attached.Ok()) << Describe(attached.status());
    port_ = attached->get();
    emulate::EmulatorOptions options;
    options.line.baud = 4'000'000'000;
    auto started = emulate::EmulatorThread::Start(std::move(device), options, std::move(*attached));
    EXPECT_TRUE(started.Ok()) << Describe(started.status());
    emulator_.emplace(std::move(*started));
  }

  UsbDevicePort& port() { return *port_; }
  emulate::Emulator& emulator() { return **emulator_; }

 private:
  UsbDevicePort* port_ = nullptr;
  std::optional<emulate::EmulatorThread> emulator_;
};

struct Kind {
  std::string unit = "1";
  std::string serial = "1";
  bool isPatriot = false;
};

inline std::unique_ptr<emulate::EmulatedDevice> Liberty(unsigned stations, const Kind& kind = {}) {
  emulate::LibertySettings settings;
  settings.plugged = (1U << stations) - 1;
  settings.unit = kind.unit;
  settings.serial = kind.serial;
  settings.isPatriot = kind.isPatriot;
  return std::make_unique<emulate::LibertyEmulator>(settings, emulate::MakeRamp());
}

inline std::unique_ptr<emulate::EmulatedDevice> Fastrak(int receivers) {
  emulate::FastrakSettings settings;
  settings.receivers = receivers;
  return std::make_unique<emulate::FastrakEmulator>(settings, emulate::MakeRamp());
}

class OnUsb : public testing::Test {
 protected:
  void SetUp() override {
    auto made = UsbBus::Make();
    ASSERT_TRUE(made.Ok()) << Describe(made.status());
    bus_ = std::move(*made);
  }

  UsbBus& bus() { return *bus_; }

  // As a destroyed unit does, but it still ends the transfers that its host has given to the
  // system.
  void PullOut(std::unique_ptr<Unit>& unit) {
    unit->port().Unplug();
    pulledOut_.push_back(std::move(unit));
  }

 private:
  std::shared_ptr<UsbBus> bus_;
  std::vector<std::unique_ptr<Unit>> pulledOut_;
};

}  // namespace kinetrel::test
