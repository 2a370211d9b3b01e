// What this machine has besides serial ports: joysticks, trackers on USB, the vendors' libraries,
// and the slots in which trackers publish.
#pragma once

#include <string>
#include <vector>

namespace kinetrel::scan {

struct UsbTracker {
  std::string name;  // for option -p: "usb:1-2"
  std::string model;
  std::string advice;  // what it needs before it can be used; empty: nothing
  int deviceType = 0;
};

struct VendorLibrary {
  std::string name;
  int deviceType = 0;
  bool found = false;
  std::string words = {};  // why it is not usable
};

struct Slot {
  int number = 0;  // from 1
  std::string device = {};
  std::string state = {};
  int process = 0;
  double rate = 0;  // Hz; 0: unknown
};

struct Machine {
  std::vector<std::string> joysticks;
  std::vector<UsbTracker> usb;
  std::string usbWords;  // why the buses could not be listed
  std::vector<VendorLibrary> libraries;
  std::vector<Slot> slots;  // that are in use
};

Machine LookAtMachine();
std::vector<Slot> SlotsInUse();

}  // namespace kinetrel::scan
