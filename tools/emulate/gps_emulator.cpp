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

// It answers requests of a single byte and ignores the rest of a packet.
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
        place_ = value == kDle ? Place::Mark : value == kEtx ? Place::Outside : Place::Inside;
        break;
      case Place::Inside:
        if (value == kDle) place_ = Place::MarkInside;
        break;
      case Place::MarkInside:
        place_ = value == kEtx ? Place::Outside : Place::Inside;
        if (value != kEtx) break;
        char text[64];
        std::snprintf(text, sizeof text, "%02X  %s", request_, Obey(now, request_, line));
        line.Say(now, text);
    }
  }
}

const char* GpsEmulator::Obey(Moment now, unsigned id, DeviceLine& line) {
  const Moment reply = now + kReplyDelay;
  switch (id) {
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
      return "not understood";
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
  const unsigned count = settings_.satellites;
  WireWriter selection;
  selection.U8(count << 4 | kFix3d);
  for (const double dop : {2.5, 1.5, 2.0, 1.25}) selection.F32Be(dop);
  WireWriter levels;
  levels.U8(count);
  for (unsigned i = 0; i < count; ++i) {
    const GpsSky sky = SatelliteAt(i, Seconds(now));
    selection.U8(sky.prn);
    levels.U8(sky.prn).F32Be(sky.level);
  }
  Send(now, 0x6D, selection, line);
  Send(now, 0x47, levels, line);
  if (count == 0) return;
  const GpsSky sky = SatelliteAt(static_cast<unsigned>(seconds_ % count), Seconds(now));
  WireWriter detail;
  detail.U8(sky.prn).U8(0).U8(1).U8(0).F32Be(sky.level).F32Be(kWeekStart + Seconds(now));
  Send(now, 0x5C, detail.F32Be(sky.elevation).F32Be(sky.azimuth).U32Be(0), line);
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
