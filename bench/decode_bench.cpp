// What decoding a record costs over the arithmetic of its formulas: the same conversions (clamped,
// scaled, offset added) and one normalisation of angles in a plain loop. It trusts that the record
// is whole and holds numbers.
#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "bench/harness.h"
#include "devices/tracker_device.h"
#include "drivers/fastrak_wire.h"
#include "drivers/flock_device.h"
#include "drivers/gps_reports.h"
#include "drivers/intertrax_device.h"
#include "drivers/logitech_device.h"
#include "drivers/pan_tilt_device.h"

namespace kinetrel::bench {
namespace {

constexpr int kCycles = 1000;
constexpr int kBlockSize = 5000;
constexpr std::size_t kRecords = 64;  // in turn, so that no result can be reused
constexpr std::size_t kLargestBody = 40;
constexpr double kMostCost = 2;  // times the bare arithmetic

using Body = std::array<std::byte, kLargestBody>;

// Where both sides leave the pose. It is read at the end, so that the compiler removes nothing.
struct PoseRecord {
  Pose pose{};
  Quaternion quaternion{};
};

Pose offset{1, 2, 3, 0.1F, 0.2F, 0.3F};  // of the sensor; not a constant, so that it is loaded

std::int16_t Raw(const std::byte* bytes) {
  std::int16_t raw;
  std::memcpy(&raw, bytes, sizeof raw);
  return raw;
}

float BareFloat(const std::byte* bytes, std::size_t i) {
  constexpr float kRadians = 0.017453292F;
  float value;
  std::memcpy(&value, bytes + 4 * i, sizeof value);
  value = std::fabs(value) < 1e-8F ? 0.0F : std::clamp(value, -360.0F, 360.0F);
  return i >= 3 && i < 6 ? value * kRadians : value;
}

float BareWord(const std::byte* bytes, std::size_t i, const FastrakChannels& channels) {
  return static_cast<float>(Raw(bytes + 2 * i) * channels[i].scale + channels[i].offset);
}

float BareHalf(const std::byte* bytes, std::size_t i, const FastrakChannels& channels) {
  const int low = std::to_integer<int>(bytes[2 * i]) & 0x7F;
  const int high = std::to_integer<int>(bytes[2 * i + 1]);
  const int raw = static_cast<std::int16_t>((high << 7 | low) << 2) >> 2;
  return static_cast<float>(raw * channels[i].scale + channels[i].offset);
}

void Store(std::size_t i, float value, PoseRecord& into) {
  if (i < 6) {
    into.pose[i] = value + offset[i];
  } else {
    into.quaternion[i - 6] = value;
  }
}

template <FastrakFormat Format>
void Bare(const std::byte* bytes, std::size_t values, const FastrakChannels& channels,
          PoseRecord& into) {
  for (std::size_t i = 0; i < values; ++i) {
    if constexpr (Format == FastrakFormat::Bits32) Store(i, BareFloat(bytes, i), into);
    if constexpr (Format == FastrakFormat::Bits16) Store(i, BareWord(bytes, i, channels), into);
    if constexpr (Format == FastrakFormat::Bits14) Store(i, BareHalf(bytes, i, channels), into);
  }
  NormalizeEuler(into.pose.data() + 3);
}

// As the driver does it with a record that has come whole.
void Decode(const FastrakLayout& layout, const Body& body, FastrakChannels& channels,
            PoseRecord& into) {
  const auto bytes = std::span<const std::byte>(body).first(layout.BodySize());
  if (!IsFastrakInStep(layout, bytes)) return;
  (void)DecodeFastrakBody(layout, bytes, 1, channels, offset, into.pose, into.quaternion);
}

Body MakeBody(FastrakFormat format, std::size_t seed) {
  Body body{};
  for (std::size_t i = 0; i < 10; ++i) {
    const auto value = static_cast<float>((seed * 7 + i * 13) % 80) - 40.5F;
    const auto raw = static_cast<std::int16_t>(value * 200);
    if (format == FastrakFormat::Bits32) {
      std::memcpy(&body[4 * i], &value, sizeof value);
    } else if (format == FastrakFormat::Bits16) {
      std::memcpy(&body[2 * i], &raw, sizeof raw);
    } else {
      body[2 * i] = static_cast<std::byte>((raw & 0x7F) | (i == 0 ? 0x80 : 0));
      body[2 * i + 1] = static_cast<std::byte>(raw >> 7 & 0x7F);
    }
  }
  return body;
}

template <FastrakFormat Format>
void Compare(const char* name, unsigned components, Report& report) {
  const FastrakLayout layout{Format, components};
  const auto values = static_cast<std::size_t>(layout.ValueCount());
  std::array<Body, kRecords> bodies;
  for (std::size_t i = 0; i < kRecords; ++i) bodies[i] = MakeBody(Format, i);
  FastrakChannels channels;
  SetFastrakScales(true, 1, Format, channels);
  PoseRecord bare;
  PoseRecord decoded;
  std::size_t next = 0;
  const auto body = [&]() -> const Body& { return bodies[++next % kRecords]; };
  const std::vector<Paired> time = Interleave(
      kCycles, TimedBlock(kBlockSize, [&] { Bare<Format>(body().data(), values, channels, bare); }),
      TimedBlock(kBlockSize, [&] { Decode(layout, body(), channels, decoded); }));
  report.Ratio(name, time[0], "ns", kMostCost);
  if (!std::isfinite(bare.pose[3]) || !std::isfinite(decoded.pose[3])) report.Note("no pose");
}

// ---- The other drivers -------------------------------------------------------------------------

// Bytes of a record to its pose. Whatever the driver does, the bare one normalises the angles once.
using Decoder = void (*)(const Body& body, Pose& pose);

void CompareTwo(Report& report, const char* name, Body (*make)(std::size_t seed), Decoder bare,
                Decoder driver) {
  std::array<Body, kRecords> bodies;
  for (std::size_t i = 0; i < kRecords; ++i) bodies[i] = make(i);
  Pose poses[2]{};
  std::size_t next = 0;
  const auto body = [&]() -> const Body& { return bodies[++next % kRecords]; };
  const auto bareOnce = [&] {
    bare(body(), poses[0]);
    NormalizeEuler(poses[0].data() + 3);
  };
  const std::vector<Paired> time =
      Interleave(kCycles, TimedBlock(kBlockSize, bareOnce),
                 TimedBlock(kBlockSize, [&] { driver(body(), poses[1]); }));
  report.Ratio(name, time[0], "ns", kMostCost);
  bare(bodies[0], poses[0]);
  driver(bodies[0], poses[1]);
  if (poses[0] != poses[1]) report.Undecided(name, "the two poses differ");
}

// As a driver holds them; not constants, so that they are loaded.
std::array<ChannelScale, 6> channels = [] {
  std::array<ChannelScale, 6> made;
  for (std::size_t i = 0; i < made.size(); ++i) {
    made[i].scale = 0.00001 * static_cast<double>(i + 1);  // no angle comes to a half turn
    made[i].offset = 0.1;
  }
  return made;
}();

template <typename Words>
void PutChannels(const Words& words, std::size_t first, Pose& pose) {
  for (std::size_t i = 0; i < words.size(); ++i) {
    channels[i].raw = words[i];
    pose[first + i] = static_cast<float>(channels[i].Value());
  }
}

float BareChannel(std::size_t i, int raw) {
  return static_cast<float>(raw * channels[i].scale + channels[i].offset);
}

Body MakeHalves(std::size_t seed) { return MakeBody(FastrakFormat::Bits14, seed); }
Body MakeWords(std::size_t seed) { return MakeBody(FastrakFormat::Bits16, seed); }

void BareBird(const Body& body, Pose& pose) {
  for (std::size_t i = 0; i < 6; ++i) {
    const int low = std::to_integer<int>(body[2 * i]) & 0x7F;
    const int high = std::to_integer<int>(body[2 * i + 1]) & 0x7F;
    pose[i] = BareChannel(i, static_cast<std::int16_t>((high << 7 | low) << 2));
  }
}

void DriverBird(const Body& body, Pose& pose) {
  const auto record = std::span(body).first<kFlockRecordSize>();
  if (FindFlockRecord(record) == 0) PutChannels(DecodeFlockRecord(record), 0, pose);
}

void BareAngles(const Body& body, Pose& pose) {
  for (std::size_t i = 0; i < 3; ++i) pose[3 + i] = BareChannel(i, Raw(&body[2 * i]));
}

void DriverAngles(const Body& body, Pose& pose) {
  const auto record = std::span(body).first<kIntertraxRecordSize>();
  PutChannels(DecodeIntertraxRecord(record), 3, pose);
}

constexpr std::size_t kEncoders = 6;

void BareEncoders(const Body& body, Pose& pose) {
  for (std::size_t i = 0; i < kEncoders; ++i) pose[i] = BareChannel(i, Raw(&body[2 * i]));
}

void DriverEncoders(const Body& body, Pose& pose) {
  std::array<int, kPanTiltWords> words{};
  const std::size_t count = DecodePanTilt(std::span(body).first<2 * kEncoders>(), words);
  PutChannels(std::span(words).first(count), 0, pose);
}

void BareLogitech(const Body& body, Pose& pose) {
  const auto bits = [&](std::size_t i) { return std::to_integer<int>(body[i]) & 0x7F; };
  for (std::size_t i = 0; i < 3; ++i) {
    const int raw = bits(1 + 3 * i) << 14 | bits(2 + 3 * i) << 7 | bits(3 + 3 * i);
    pose[i] = BareChannel(i, (raw ^ 0x100000) - 0x100000);
  }
  for (std::size_t i = 3; i < 6; ++i) {
    pose[i] = BareChannel(i, bits(10 + 2 * (i - 3)) << 7 | bits(11 + 2 * (i - 3)));
  }
  const double yaw = static_cast<double>(pose[3]);
  const double pitch = pose[4] * std::cos(yaw) - pose[5] * std::sin(yaw);
  const double roll = pose[4] * std::sin(yaw) + pose[5] * std::cos(yaw);
  pose[4] = static_cast<float>(pitch);
  pose[5] = static_cast<float>(roll);
}

void DriverLogitech(const Body& body, Pose& pose) {
  PutChannels(DecodeLogitechRecord(std::span(body).first<kLogitechRecordSize>()), 0, pose);
  pose = ApplyLogitechMounting(0, pose);
}

void OtherDrivers(Report& report) {
  CompareTwo(report, "a Flock's record", MakeHalves, BareBird, DriverBird);
  CompareTwo(report, "an InterTrax's record", MakeWords, BareAngles, DriverAngles);
  CompareTwo(report, "a pan-tilt head's answer", MakeWords, BareEncoders, DriverEncoders);
  CompareTwo(report, "a Logitech's record", MakeHalves, BareLogitech, DriverLogitech);
}

// ---- A GPS receiver's position -----------------------------------------------------------------

// DLE, 0x4A, latitude, longitude, altitude, clock bias, time of fix, DLE, ETX. Its packets are
// found byte by byte, and their angles told in degrees, minutes and seconds.
using Fix = std::array<std::byte, 24>;

float BigEndian(const std::byte* bytes) {
  std::uint32_t word;
  std::memcpy(&word, bytes, sizeof word);
  return std::bit_cast<float>(__builtin_bswap32(word));
}

void PutBigEndian(float value, std::byte* bytes) {
  const std::uint32_t word = __builtin_bswap32(std::bit_cast<std::uint32_t>(value));
  std::memcpy(bytes, &word, sizeof word);
}

Fix MakeFix(std::size_t seed) {
  Fix fix{};
  fix[0] = fix[22] = std::byte{0x10};
  fix[1] = std::byte{0x4A};
  fix[23] = std::byte{0x03};
  const auto turn = static_cast<float>(seed);
  const float values[] = {0.9F + turn / 4096, 0.2F + turn / 4096, 100 + turn, 0.5F, 1000 + turn};
  for (std::size_t i = 0; i < 5; ++i) PutBigEndian(values[i], &fix[2 + 4 * i]);
  return fix;
}

GpsAngle BareAngle(double radians, char positive, char negative) {
  const double degrees = std::fabs(radians * 57.29577951308232);
  const double minutes = (degrees - std::floor(degrees)) * 60;
  return {degrees, minutes, (minutes - std::floor(minutes)) * 60,
          radians < 0 ? negative : positive};
}

void BareFix(const Fix& fix, GpsState& gps) {
  const auto value = [&](std::size_t i) { return static_cast<double>(BigEndian(&fix[2 + 4 * i])); };
  const auto arc = [](double radians, double radiusKm) { return radians * radiusKm * 1000; };
  gps.latitude = value(0);
  gps.longitude = value(1);
  gps.altitude = value(2);
  gps.timeOfFix = value(4);
  gps.latitudeText = BareAngle(gps.latitude, 'N', 'S');
  gps.longitudeText = BareAngle(gps.longitude, 'E', 'W');
  gps.altitudeFeet = gps.altitude * 3.280839895013124;
  gps.northArc = arc(gps.latitude, GpsState::kMeanRadiusKm);
  gps.eastArc = arc(gps.longitude, GpsState::kEquatorRadiusKm);
  gps.localNorth =
      static_cast<float>(arc(gps.latitude - gps.startLatitude, GpsState::kMeanRadiusKm));
  gps.localEast =
      static_cast<float>(arc(gps.longitude - gps.startLongitude, GpsState::kEquatorRadiusKm));
  gps.localUp = static_cast<float>(gps.altitude - gps.startAltitude);
}

void GpsPosition(Report& report) {
  std::array<Fix, kRecords> fixes;
  for (std::size_t i = 0; i < kRecords; ++i) fixes[i] = MakeFix(i);
  GpsState bare;
  GpsReports reports;
  std::size_t next = 0;
  const auto fix = [&]() -> const Fix& { return fixes[++next % kRecords]; };
  const std::vector<Paired> time = Interleave(
      kCycles, TimedBlock(kBlockSize, [&] { BareFix(fix(), bare); }), TimedBlock(kBlockSize, [&] {
        for (const std::byte byte : fix()) reports.Take(byte);
      }));
  // Not judged: most of it is finding, byte by byte, where a packet begins and ends.
  char text[120];
  std::snprintf(text, sizeof text, "a GPS receiver's packet: %.0f ns, the position in it %.0f ns",
                time[0].subject, time[0].floor);
  report.Note(text);
  if (!std::isfinite(bare.northArc) || !reports.HasPositionNews()) report.Note("no position");
}

void Records(Report& report) {
  constexpr unsigned kPose = kPositionComponent | kEulerComponent;
  constexpr unsigned kAll = kPose | kQuaternionComponent;
  Compare<FastrakFormat::Bits32>("a FASTRAK record of floats", kPose, report);
  Compare<FastrakFormat::Bits32>("the same with quaternion", kAll, report);
  Compare<FastrakFormat::Bits16>("a FASTRAK record of 16 bits", kPose, report);
  Compare<FastrakFormat::Bits16>("the same with quaternion", kAll, report);
  Compare<FastrakFormat::Bits14>("a FASTRAK record of 14 bits", kPose, report);
  Compare<FastrakFormat::Bits14>("the same with quaternion", kAll, report);
  OtherDrivers(report);
  GpsPosition(report);
}

}  // namespace
}  // namespace kinetrel::bench

int main() { return kinetrel::bench::RunBenchmark("bench-decode", kinetrel::bench::Records); }
