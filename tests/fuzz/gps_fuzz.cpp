// Any bytes as a GPS receiver's packets: what is known from them stays plausible, and a good packet
// after them is read.
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "drivers/gps_reports.h"

namespace {

using namespace kinetrel;

void Require(bool holds) {
  if (!holds) std::abort();
}

void Check(const GpsState& gps) {
  Require(std::fabs(gps.latitude) <= 1.5707964 && std::fabs(gps.longitude) <= 6.2831855);
  Require(std::isfinite(gps.altitude) && std::isfinite(gps.northArc));
  Require(gps.latitudeText.degrees >= 0 && gps.latitudeText.degrees < 90.001);
  Require(gps.longitudeText.minutes >= 0 && gps.longitudeText.minutes < 60);
  Require(gps.satelliteCount >= 0 && gps.satelliteCount <= 15);
  Require(gps.healthFlagsA <= 3 && gps.healthFlagsB <= 3);
  for (const GpsSatellite& satellite : gps.satellites) {
    Require(satellite.prn >= 0 && satellite.prn <= 255);
  }
}

// Latitude 0.5, longitude 0.25, altitude 100 m; the first byte ends whatever was open.
constexpr std::uint8_t kFix[] = {0x03, 0x10, 0x4A, 0x3F, 0, 0, 0, 0x3E, 0x80, 0, 0,    0x42, 0xC8,
                                 0,    0,    0,    0,    0, 0, 0, 0,    0,    0, 0x10, 0x03};

void Take(GpsReports& reports, std::uint8_t byte) {
  (void)reports.Take(static_cast<std::byte>(byte));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  GpsReports reports;
  for (std::size_t i = 0; i < size; ++i) Take(reports, data[i]);
  Check(reports.state());
  (void)reports.TakePositionNews();
  for (const std::uint8_t byte : kFix) Take(reports, byte);
  Require(reports.TakePositionNews() && reports.state().latitude == 0.5);
  Check(reports.state());
  return 0;
}
