#include "emulate/gps_emulator.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <utility>

namespace kinetrel::emulate {
namespace {

constexpr std::uint8_t kDle = 0x10;
constexpr std::uint8_t kEtx = 0x03;
constexpr Moment kReplyDelay = std::chrono::milliseconds(5);

constexpr double kPi = std::numbers::pi;
constexpr double kRadians = kPi / 180;

// Metres per degree, north and east, on the sphere that users of this receiver assume.
constexpr double kMetresPerRadianNorth = 6371300.0;
constexpr double kMetresPerRadianEast = 6378137.0;

constexpr double kWeek = 2300;
constexpr double kWeekStart = 100000;  // seconds into the week when power comes on
constexpr double kUtcOffset = 18;
constexpr std::uint64_t kHealthPeriod = 5;  // s
constexpr unsigned kFix3d = 4;
constexpr std::size_t kMostData = 16;  // bytes of a request that matter

double Seconds(Moment time) { return std::chrono::duration<double>(time).count(); }

}  // namespace

// ---- Packets ------------------------------------------------------------------------------------

WireWriter TsipPacket(std::uint8_t id, const WireWriter& data) {
  WireWriter out;
  out.U8(kDle).U8(id);
  for (const std::byte byte : data.bytes()) {
    const auto value = std::to_integer<std::uint32_t>(byte);
    out.U8(value);
    if (value == kDle) out.U8(kDle);
  }
  out.U8(kDle).U8(kEtx);
  return out;
}

WireWriter EncodePosition(const GpsPlace& place, double seconds) {
  WireWriter out;
  out.F32Be(place.latitude * kRadians).F32Be(place.longitude * kRadians).F32Be(place.altitude);
  out.F32Be(0).F32Be(kWeekStart + seconds);
  return out;
}

GpsSky SatelliteAt(unsigned index, double seconds) {
  const double turn = seconds / 600 + index * 0.4;
  const double elevation = (0.5 + 0.4 * std::sin(turn)) * kPi / 2;
  return {3 + 2 * index, elevation, std::fmod(turn, 2 * kPi), 5 + 25 * elevation};
}

// ---- Life ---------------------------------------------------------------------------------------

GpsEmulator::GpsEmulator(GpsSettings settings, std::shared_ptr<const Motion> motion)
    : settings_(settings), motion_(std::move(motion)) {}

void GpsEmulator::PowerOn(Moment now, DeviceLine&) {
  start_ = now;
  slot_ = 0;
  seconds_ = 0;
  fixAt_ = now;
  place_ = Place::Outside;
}

bool GpsEmulator::RaiseError(Moment now, std::optional<int> code) {
  fixAt_ = now + std::chrono::seconds(code.value_or(5));
  return true;
}

// ---- Requests -----------------------------------------------------------------------------------

void GpsEmulator::Receive(Moment now, std::span<const std::byte> bytes, DeviceLine& line) {
  for (const std::byte byte : bytes) {
    const auto value = std::to_integer<unsigned>(byte);
    switch (place_) {
      case Place::Outside:
        place_ = value == kDle ? Place::Mark : Place::Outside;
        if (value != kDle) line.Say(now, "a byte outside of any packet: not understood");
        break;
      case Place::Mark:
        request_ = value;
        data_.clear();
        place_ = value == kDle ? Place::Mark : value == kEtx ? Place::Outside : Place::Inside;
        break;
      case Place::Inside:
        if (value == kDle) {
          place_ = Place::MarkInside;
        } else if (data_.size() < kMostData) {
          data_.push_back(value);
        }
        break;
      case Place::MarkInside:
        place_ = value == kEtx ? Place::Outside : Place::Inside;
        if (value != kEtx) {
          if (data_.size() < kMostData) data_.push_back(value);
          break;
        }
        char text[64];
        std::snprintf(text, sizeof text, "%02X  %s", request_, Obey(now, line));
        line.Say(now, text);
    }
  }
}

const char* GpsEmulator::Obey(Moment now, DeviceLine& line) {
  const Moment reply = now + kReplyDelay;
  switch (request_) {
    case 0x1F: {
      // Of the application and of its core: version, month, day, year since 1900.
      WireWriter version;
      for (int i = 0; i < 2; ++i) version.U8(1).U8(16).U8(6).U8(1).U8(110);
      Send(reply, 0x45, version, line);
      return "version";
    }
    case 0x22:
    case 0x24:
      SendSelection(reply, line);
      return "satellites in use";
    case 0x2C: {
      // Land, the lowest elevation in radians, the lowest level, the largest dilutions.
      WireWriter needs;
      needs.U8(1).F32Be(5 * kRadians).F32Be(2).F32Be(12).F32Be(8);
      Send(reply, 0x4C, needs, line);
      return "what it requires of a fix";
    }
    case 0x35:
      // It keeps what it sends: latitude and longitude, height over sea level, single precision,
      // east-north-up velocity.
      Send(reply, 0x55, WireWriter().U8(0x06).U8(0x02).U8(0).U8(0x08), line);
      return "which reports it sends";
    case 0x3C:
      SendDetails(reply, data_.empty() ? 0 : data_[0], line);
      return "satellites in detail";
    case 0x21:
      SendTime(reply, line);
      return "time";
    case 0x26:
      SendHealth(reply, line);
      return "health and identity";
    case 0x37:
      if (!HasFix(now)) return "position: it has none";
      SendPosition(reply, line);
      return "position and velocity";
    default:
      Send(reply, 0x13, WireWriter().U8(request_).U8(data_.empty() ? 0 : data_[0]), line);
      return "not understood: answered with 13";
  }
}

// ---- Reports ------------------------------------------------------------------------------------

Moment GpsEmulator::NextEvent() const {
  return std::min(NthOf(start_, slot_ + 1, settings_.rate), NthOf(start_, seconds_ + 1, 1));
}

void GpsEmulator::OnEvent(Moment now, DeviceLine& line) {
  if (now >= NthOf(start_, slot_ + 1, settings_.rate)) {
    ++slot_;
    if (HasFix(now)) SendPosition(now, line);
    return;
  }
  ++seconds_;
  SendTime(now, line);
  SendSatellites(now, line);
  if (seconds_ % kHealthPeriod == 0) SendHealth(now, line);
}

void GpsEmulator::Send(Moment now, std::uint8_t id, const WireWriter& data, DeviceLine& line) {
  line.SendRecord(now, TsipPacket(id, data).bytes());
}

GpsPlace GpsEmulator::PlaceAt(double seconds) const {
  const MotionPose pose = motion_->At(0, frame_, seconds);
  const GpsPlace& origin = settings_.origin;
  return {origin.latitude + pose.x / kMetresPerRadianNorth / kRadians,
          origin.longitude + pose.y / kMetresPerRadianEast / kRadians, origin.altitude + pose.z};
}

void GpsEmulator::SendPosition(Moment now, DeviceLine& line) {
  const double seconds = Seconds(now);
  Send(now, 0x4A, EncodePosition(PlaceAt(seconds), seconds), line);
  WireWriter velocity;
  for (int i = 0; i < 4; ++i) velocity.F32Be(0);
  Send(now, 0x56, velocity.F32Be(kWeekStart + seconds), line);
  ++frame_;
}

void GpsEmulator::SendTime(Moment now, DeviceLine& line) {
  WireWriter time;
  time.F32Be(kWeekStart + Seconds(now)).U16Be(static_cast<std::uint32_t>(kWeek)).F32Be(kUtcOffset);
  Send(now, 0x41, time, line);
}

void GpsEmulator::SendHealth(Moment now, DeviceLine& line) {
  constexpr std::uint32_t kDoingFixes = 0;
  constexpr std::uint32_t kNoTimeYet = 1;
  Send(now, 0x46, WireWriter().U8(HasFix(now) ? kDoingFixes : kNoTimeYet).U8(0), line);
  Send(now, 0x4B, WireWriter().U8(0x5A).U8(0).U8(0), line);
}

void GpsEmulator::SendSatellites(Moment now, DeviceLine& line) {
  SendSelection(now, line);
  const unsigned count = settings_.satellites;
  WireWriter levels;
  levels.U8(count);
  for (unsigned i = 0; i < count; ++i) {
    const GpsSky sky = SatelliteAt(i, Seconds(now));
    levels.U8(sky.prn).F32Be(sky.level);
  }
  Send(now, 0x47, levels, line);
  if (count > 0) SendDetail(now, static_cast<unsigned>(seconds_ % count), line);
}

void GpsEmulator::SendSelection(Moment now, DeviceLine& line) {
  const unsigned count = settings_.satellites;
  WireWriter selection;
  selection.U8(count << 4 | kFix3d);
  for (const double dop : {2.5, 1.5, 2.0, 1.25}) selection.F32Be(dop);
  for (unsigned i = 0; i < count; ++i) selection.U8(SatelliteAt(i, Seconds(now)).prn);
  Send(now, 0x6D, selection, line);
}

// Each satellite has a channel of its own, by which hosts file it.
void GpsEmulator::SendDetail(Moment now, unsigned index, DeviceLine& line) {
  constexpr std::uint32_t kCollected = 1;
  const GpsSky sky = SatelliteAt(index, Seconds(now));
  WireWriter detail;
  detail.U8(sky.prn).U8(index << 3).U8(1).U8(0);
  detail.F32Be(sky.level).F32Be(kWeekStart + Seconds(now));
  Send(now, 0x5C, detail.F32Be(sky.elevation).F32Be(sky.azimuth).U32Be(kCollected), line);
}

void GpsEmulator::SendDetails(Moment now, unsigned prn, DeviceLine& line) {
  for (unsigned i = 0; i < settings_.satellites; ++i) {
    if (prn == 0 || SatelliteAt(i, Seconds(now)).prn == prn) SendDetail(now, i, line);
  }
}

// ---- Options ------------------------------------------------------------------------------------

namespace {

constexpr OptionRow kOptions[] = {
    {"--latitude", "DEGREES", "of the place that the motion is about (1)"},
    {"--longitude", "DEGREES", "(1)"},
    {"--altitude", "METRES", "(100)"},
    {"--satellites", "COUNT", "0 to 15 (8)"},
    {"--rate", "HZ", "positions a second (5); the line carries some 15 at 9600 baud"},
};

}  // namespace

OptionTable GpsOptions() { return kOptions; }

std::unique_ptr<EmulatedDevice> MakeGps(OptionValues& options,
                                        std::shared_ptr<const Motion> motion) {
  GpsSettings settings;
  GpsPlace& origin = settings.origin;
  origin.latitude = options.Get("--latitude", origin.latitude, -89.0, 89.0);
  origin.longitude = options.Get("--longitude", origin.longitude, -180.0, 180.0);
  origin.altitude = options.Get("--altitude", origin.altitude, -500.0, 10000.0);
  settings.satellites = options.Get("--satellites", settings.satellites, 0U, 15U);
  settings.rate = options.Get("--rate", settings.rate, 0.1, 40.0);
  return std::make_unique<GpsEmulator>(settings, std::move(motion));
}

}  // namespace kinetrel::emulate
