// What was found at the far end of a serial line.
#pragma once

#include <string>

namespace kinetrel {

// The trackers that can be told apart by what they send. The order is that of kFamilies.
enum class Family { Fastrak, Flock, Liberty, Logitech, Intertrax, Gps, NmeaGps, PanTilt };

struct FamilyRow {
  Family family;
  int deviceType;    // the number of option -d; 0: Kinetrel has no driver for it
  const char* name;  // for people
  unsigned usualBaud;
};

inline constexpr FamilyRow kFamilies[] = {
    {Family::Fastrak, 2, "FASTRAK tracker", 115200},
    {Family::Flock, 3, "Flock of Birds", 115200},
    {Family::Liberty, 10, "Polhemus Liberty", 115200},
    {Family::Logitech, 4, "Logitech head tracker", 19200},
    {Family::Intertrax, 9, "InterTrax", 1200},
    {Family::Gps, 12, "GPS receiver (TSIP)", 9600},
    {Family::NmeaGps, 0, "GPS receiver (NMEA)", 9600},
    {Family::PanTilt, 1, "pan-tilt head", 9600},
};

constexpr const FamilyRow& RowOf(Family family) { return kFamilies[static_cast<unsigned>(family)]; }

struct Finding {
  Family family = Family::Fastrak;
  std::string model = {};     // as the device names it; empty: it does not
  std::string firmware = {};  // the same
  unsigned baud = 0;
  int stations = 0;      // with a receiver plugged in; 0: the device does not tell
  bool streams = false;  // it sends by itself
};

}  // namespace kinetrel
