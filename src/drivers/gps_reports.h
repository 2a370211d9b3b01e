// The reports of a GPS receiver in TSIP, its binary protocol, and the state that they add up to.
//
// A packet is DLE (0x10), an identifier, a body, DLE, ETX (0x03). A byte 0x10 in a body is sent
// twice. All numbers are big-endian, floats IEEE single, angles in radians.
//   id    body  report
//   0x41  10    time         float time of week (s), int16 week, float GPS-UTC offset (s)
//   0x46  2     health       status, error flags
//   0x47  1+5n  levels       n, then for each satellite: PRN, float signal level
//   0x4A  20    position     floats latitude, longitude, altitude (m), clock bias, time of fix
//   0x4B  3     identity     machine, status 1, status 2
//   0x56  20    velocity     not kept
//   0x5C  24    tracking     PRN, 3 bytes, floats level, time, elevation, azimuth, 4 bytes
//   0x6D  17+n  selection    n * 16 + fix mode, floats PDOP HDOP VDOP TDOP, n PRNs
//   0x82  1     differential mode
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace kinetrel {

struct GpsSatellite {
  int prn = 0;
  float elevation = 0.0F;  // radians
  float azimuth = 0.0F;    // radians
  float signalLevel = 0.0F;
};

// An angle on the globe in degrees, minutes and seconds.
struct GpsAngle {
  double degrees = 0.0;   // without sign, with all its fraction
  double minutes = 0.0;   // of the last degree, with their fraction
  double seconds = 0.0;   // of the last minute
  char hemisphere = ' ';  // N S E W
};

struct GpsState {
  static constexpr double kMeanRadiusKm = 6371.3;
  static constexpr double kEquatorRadiusKm = 6378.137;
  static constexpr std::size_t kMostSatellites = 32;

  int gpsWeek = 0;
  double utcOffset = 0.0;   // s
  double timeOfWeek = 0.0;  // s
  double timeOfFix = 0.0;   // s into the week

  double latitude = 0.0;   // radians, north positive
  double longitude = 0.0;  // radians, east positive
  double altitude = 0.0;   // m
  double altitudeFeet = 0.0;
  GpsAngle latitudeText;
  GpsAngle longitudeText;

  // The origin of the local position; latitude 0: not set yet.
  double startLatitude = 0.0;
  double startLongitude = 0.0;
  double startAltitude = 0.0;

  double northArc = 0.0;  // m from the equator along a meridian
  double eastArc = 0.0;   // m from Greenwich along the equator, the same at any latitude
  float localNorth = 0.0F;
  float localEast = 0.0F;
  float localUp = 0.0F;

  int satelliteCount = 0;
  std::array<GpsSatellite, kMostSatellites> satellites{};
  int fixMode = 0;
  int differentialMode = 0;
  float pdop = 0.0F;
  float hdop = 0.0F;
  float vdop = 0.0F;
  float tdop = 0.0F;

  int healthStatus = 0;
  int healthFlagsA = 0;
  int healthFlagsB = 0;
  int machineId = 0;
  int statusByte1 = 0;
  int statusByte2 = 0;

  void MoveOriginHere();
};

// Finds the packets in a stream of bytes that may start, break off or be damaged anywhere. A packet
// that is cut, too long or not plausible changes nothing, and the next packet is read as usual.
//
// Memory  nothing is allocated.
class GpsReports {
 public:
  // Takes one byte. False when the byte does not belong to the protocol.
  bool Take(std::byte byte);

  // Forgets everything except the origin, for a receiver that starts anew.
  void Restart();

  const GpsState& state() const { return state_; }
  GpsState& state() { return state_; }

  // True when such a report came since the last call; TakeX also clears the mark.
  bool TakePositionNews();
  bool TakeSatelliteNews();
  bool HasPositionNews() const { return news_.position; }
  bool HasSatelliteNews() const { return news_.satellites; }

  // True when a packet or an end mark came since the last call of TakePacketEnd.
  bool HasPacketEnd() const { return packetEnd_; }
  bool TakePacketEnd();

  // The number of text lines ("$...") since Restart. NMEA receivers send such lines.
  unsigned textLines() const { return textLines_; }

  struct News {
    bool position = false;
    bool satellites = false;
  };

 private:
  enum class Place { Between, Report, Unknown };

  void WatchText(std::byte byte);
  bool TakeAfterMark(std::byte byte);
  bool TakeUnmarked(std::byte byte);
  bool Begin(std::byte id);
  void Append(std::byte byte);
  void Abandon(Place next);
  void Finish();
  void ExpectCounted();

  static constexpr std::size_t kLongestBody = 1 + 5 * GpsState::kMostSatellites;

  GpsState state_;
  News news_;
  bool packetEnd_ = false;
  bool inText_ = false;  // inside a line that began with '$'
  unsigned textLines_ = 0;
  Place place_ = Place::Between;
  bool afterMark_ = false;  // the byte before was a DLE; this byte decides what it means
  std::size_t report_ = 0;  // the row of the current report
  std::size_t size_ = 0;
  std::size_t expected_ = 0;  // the size of its body
  std::array<std::byte, kLongestBody> body_{};
};

}  // namespace kinetrel
