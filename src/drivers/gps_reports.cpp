#include "drivers/gps_reports.h"

#include <algorithm>
#include <cmath>
#include <span>
#include <utility>

#include "devices/pose.h"
#include "devices/wire.h"

namespace kinetrel {
namespace {

constexpr std::byte kMark{0x10};
constexpr std::byte kEnd{0x03};
constexpr std::byte kQuietlyTaken{0xDC};  // receivers send it between packets

// ---- Position ------------------------------------------------------------------------------

constexpr double kFeetPerMetre = 3.280839895013124;

GpsAngle AsText(double radians, char positive, char negative) {
  const double degrees = std::fabs(radians * kDegreesPerRadian);
  const double minutes = (degrees - std::floor(degrees)) * 60.0;
  return {degrees, minutes, (minutes - std::floor(minutes)) * 60.0,
          radians < 0 ? negative : positive};
}

// Metres along a circle of that radius.
double Arc(double radians, double radiusKm) { return radians * radiusKm * 1000.0; }

// Rejects the places that only a damaged packet can name.
bool IsPlausible(double latitude, double longitude, double altitude) {
  return std::fabs(latitude) <= kPi / 2 && std::fabs(longitude) <= 2 * kPi &&
         std::isfinite(altitude);
}

void DescribePlace(GpsState& gps) {
  gps.latitudeText = AsText(gps.latitude, 'N', 'S');
  gps.longitudeText = AsText(gps.longitude, 'E', 'W');
  gps.altitudeFeet = gps.altitude * kFeetPerMetre;
  gps.northArc = Arc(gps.latitude, GpsState::kMeanRadiusKm);
  gps.eastArc = Arc(gps.longitude, GpsState::kEquatorRadiusKm);
  const auto local = [](double metres) { return static_cast<float>(metres); };
  gps.localNorth = local(Arc(gps.latitude - gps.startLatitude, GpsState::kMeanRadiusKm));
  gps.localEast = local(Arc(gps.longitude - gps.startLongitude, GpsState::kEquatorRadiusKm));
  gps.localUp = local(gps.altitude - gps.startAltitude);
}

void TakePosition(WireReader& wire, GpsState& gps, GpsReports::News& news) {
  const double latitude = static_cast<double>(wire.F32Be());
  const double longitude = static_cast<double>(wire.F32Be());
  const double altitude = static_cast<double>(wire.F32Be());
  if (!IsPlausible(latitude, longitude, altitude)) return;
  const bool moved = latitude != gps.latitude;
  gps.latitude = latitude;
  gps.longitude = longitude;
  gps.altitude = altitude;
  wire.Skip(4);
  gps.timeOfFix = static_cast<double>(wire.F32Be());
  if (moved && gps.startLatitude == 0.0) gps.MoveOriginHere();
  DescribePlace(gps);
  news.position = true;
}

// ---- Satellites ----------------------------------------------------------------------------

// The satellite's entry in the table: its own, a free one, or the one after the counted ones. Null
// when the table is full.
GpsSatellite* PlaceOf(GpsState& gps, int prn) {
  const auto counted =
      std::span(gps.satellites).first(static_cast<std::size_t>(gps.satelliteCount));
  const auto find = [&](int number) {
    return std::find_if(counted.begin(), counted.end(),
                        [&](const GpsSatellite& entry) { return entry.prn == number; });
  };
  auto found = find(prn);
  if (found == counted.end()) found = find(0);
  GpsSatellite* const place = found != counted.end() ? &*found
                              : counted.size() < gps.satellites.size()
                                  ? &gps.satellites[counted.size()]
                                  : nullptr;
  if (place != nullptr) place->prn = prn;
  return place;
}

void TakeLevels(WireReader& wire, GpsState& gps, GpsReports::News& news) {
  for (int count = wire.U8(); count > 0; --count) {
    const int prn = wire.U8();
    const float level = wire.F32Be();
    if (GpsSatellite* const satellite = PlaceOf(gps, prn)) satellite->signalLevel = level;
  }
  news.satellites = true;
}

void TakeTracking(WireReader& wire, GpsState& gps, GpsReports::News& news) {
  GpsSatellite* const satellite = PlaceOf(gps, wire.U8());
  news.satellites = true;
  if (satellite == nullptr) return;
  wire.Skip(3);
  satellite->signalLevel = wire.F32Be();
  wire.Skip(4);
  satellite->elevation = wire.F32Be();
  satellite->azimuth = wire.F32Be();
}

void TakeSelection(WireReader& wire, GpsState& gps, GpsReports::News& news) {
  const unsigned head = wire.U8();
  gps.fixMode = static_cast<int>(head & 0xF);
  gps.satelliteCount = static_cast<int>(head >> 4);
  for (float* const dop : {&gps.pdop, &gps.hdop, &gps.vdop, &gps.tdop}) *dop = wire.F32Be();
  for (std::size_t k = 0; k < static_cast<std::size_t>(gps.satelliteCount); ++k) {
    const int prn = wire.U8();
    if (gps.satellites[k].prn != prn) gps.satellites[k] = {prn};
  }
  news.satellites = true;
}

// ---- Receiver ------------------------------------------------------------------------------

void TakeTime(WireReader& wire, GpsState& gps, GpsReports::News&) {
  gps.timeOfWeek = static_cast<double>(wire.F32Be());
  gps.gpsWeek = wire.I16Be();
  gps.utcOffset = static_cast<double>(wire.F32Be());
}

void TakeHealth(WireReader& wire, GpsState& gps, GpsReports::News&) {
  gps.healthStatus = wire.U8();
  const int errors = wire.U8();
  gps.healthFlagsA = errors & 3;
  gps.healthFlagsB = errors >> 4 & 3;
}

void TakeIdentity(WireReader& wire, GpsState& gps, GpsReports::News&) {
  gps.machineId = wire.U8();
  gps.statusByte1 = wire.U8();
  gps.statusByte2 = wire.U8();
}

void TakeVelocity(WireReader&, GpsState&, GpsReports::News&) {}

void TakeDifferential(WireReader& wire, GpsState& gps, GpsReports::News&) {
  gps.differentialMode = wire.U8();
}

// ---- Reports -------------------------------------------------------------------------------

struct ReportRow {
  std::byte id;
  std::size_t size;     // of the body without its counted entries
  std::size_t each;     // size of a counted entry; 0: the report has none
  unsigned countShift;  // the count is the first byte, shifted right by so many bits
  bool updatesWhenCut;  // a report that breaks off still marks the satellites as updated
  void (*take)(WireReader& wire, GpsState& gps, GpsReports::News& news);
};
constexpr ReportRow kReports[] = {
    {std::byte{0x41}, 10, 0, 0, false, TakeTime},
    {std::byte{0x46}, 2, 0, 0, false, TakeHealth},
    {std::byte{0x47}, 1, 5, 0, false, TakeLevels},
    {std::byte{0x4A}, 20, 0, 0, false, TakePosition},
    {std::byte{0x4B}, 3, 0, 0, false, TakeIdentity},
    {std::byte{0x56}, 20, 0, 0, false, TakeVelocity},
    {std::byte{0x5C}, 24, 0, 0, true, TakeTracking},
    {std::byte{0x6D}, 17, 1, 4, true, TakeSelection},
    {std::byte{0x82}, 1, 0, 0, false, TakeDifferential},
};

}  // namespace

void GpsState::MoveOriginHere() {
  startLatitude = latitude;
  startLongitude = longitude;
  startAltitude = altitude;
}

void GpsReports::Restart() {
  GpsReports fresh;
  fresh.state_.startLatitude = state_.startLatitude;
  fresh.state_.startLongitude = state_.startLongitude;
  fresh.state_.startAltitude = state_.startAltitude;
  *this = fresh;
}

bool GpsReports::TakePositionNews() { return std::exchange(news_.position, false); }
bool GpsReports::TakeSatelliteNews() { return std::exchange(news_.satellites, false); }
bool GpsReports::TakePacketEnd() { return std::exchange(packetEnd_, false); }

void GpsReports::WatchText(std::byte byte) {
  const auto letter = std::to_integer<char>(byte);
  if (inText_ && letter == '\n') ++textLines_;
  const bool printable = letter == '\r' || (letter >= ' ' && letter <= '~');
  inText_ = letter == '$' || (inText_ && printable);
}

bool GpsReports::Take(std::byte byte) {
  WatchText(byte);
  if (afterMark_) {
    afterMark_ = false;
    return TakeAfterMark(byte);
  }
  if (byte != kMark) return TakeUnmarked(byte);
  // After a complete body this DLE begins the end mark. Otherwise the next byte decides.
  if (place_ == Place::Report && size_ == expected_) Finish();
  afterMark_ = true;
  return true;
}

bool GpsReports::TakeUnmarked(std::byte byte) {
  if (place_ == Place::Unknown) return false;
  if (place_ == Place::Report) {
    Append(byte);
    return true;
  }
  // A packet is also accepted without its mark, which the line may have lost.
  return Begin(byte) || byte == kEnd || byte == kQuietlyTaken;
}

bool GpsReports::TakeAfterMark(std::byte byte) {
  if (byte == kMark) {
    if (place_ == Place::Report) Append(kMark);
    afterMark_ = place_ == Place::Between;
    return true;
  }
  if (byte == kEnd) {
    packetEnd_ = true;
    Abandon(Place::Between);
    return true;
  }
  if (Begin(byte)) return true;
  if (place_ == Place::Report) {
    // Some senders do not double a 0x10.
    Append(kMark);
    if (place_ == Place::Report) Append(byte);
    return true;
  }
  place_ = Place::Unknown;
  return byte == kQuietlyTaken;
}

bool GpsReports::Begin(std::byte id) {
  const auto row = std::find_if(std::begin(kReports), std::end(kReports),
                                [&](const ReportRow& report) { return report.id == id; });
  if (row == std::end(kReports)) return false;
  Abandon(Place::Report);
  report_ = static_cast<std::size_t>(row - std::begin(kReports));
  size_ = 0;
  expected_ = row->size;
  return true;
}

void GpsReports::Append(std::byte byte) {
  if (size_ == expected_) return Abandon(Place::Unknown);  // the end mark is missing
  body_[size_++] = byte;
  if (size_ == 1) ExpectCounted();
}

void GpsReports::ExpectCounted() {
  const ReportRow& row = kReports[report_];
  expected_ = row.size + row.each * (std::to_integer<unsigned>(body_[0]) >> row.countShift);
  if (expected_ > body_.size()) place_ = Place::Unknown;  // an impossible number of satellites
}

void GpsReports::Abandon(Place next) {
  if (place_ == Place::Report && kReports[report_].updatesWhenCut) news_.satellites = true;
  place_ = next;
}

void GpsReports::Finish() {
  WireReader wire({body_.data(), size_});
  kReports[report_].take(wire, state_, news_);
  packetEnd_ = true;
  place_ = Place::Between;
}

}  // namespace kinetrel
