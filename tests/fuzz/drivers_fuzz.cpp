// Any bytes as what the trackers send. Each driver's decoders have a row and a program of their
// own: fuzz-<name> calls the row that KINETREL_FUZZ names.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string_view>
#include <vector>

#include "devices/wire.h"
#include "drivers/fastrak_wire.h"
#include "drivers/flock_device.h"
#include "drivers/gps_reports.h"
#include "drivers/intertrax_device.h"
#include "drivers/liberty_frame.h"
#include "drivers/liberty_wire.h"
#include "drivers/logitech_device.h"
#include "drivers/pan_tilt_device.h"

namespace {

using namespace kinetrel;
using Bytes = std::span<const std::byte>;

void Require(bool holds) {
  if (!holds) std::abort();
}

// ---- FASTRAK -------------------------------------------------------------------------------

void DecodeFastrakRecord(std::uint8_t choice, Bytes body) {
  constexpr FastrakFormat kFormats[] = {FastrakFormat::Bits14, FastrakFormat::Bits16,
                                        FastrakFormat::Bits32};
  const FastrakLayout layout{kFormats[choice % 3], choice / 3U % 8U, (choice & 0x80) != 0};
  Require(layout.BodySize() <= 40 && layout.Size() >= layout.BodySize() + kFastrakHeadSize);
  const int units = choice & 3;
  FastrakChannels channels;
  SetFastrakScales(units != 0, units, layout.format, channels);
  (void)IsFastrakInStep(layout, body);
  Pose pose{};
  Quaternion quaternion{};
  const Pose offset = {1, 2, 3, 0.5F, -0.5F, -3.1415927F};
  const int result = DecodeFastrakBody(layout, body, units, channels, offset, pose, quaternion);
  const bool whole = (result & 0xFF) == layout.ValueCount();
  Require(result >= 0 && (whole || (pose == Pose{} && quaternion == Quaternion{})));
  for (const float value : pose) Require(std::fabs(value) <= 363.0F);
  for (const float value : quaternion) Require(std::fabs(value) <= 360.0F);
}

void ReadFastrakReplies(std::string_view reply) {
  (void)JudgeFastrakReply(reply);
  const FastrakStatusRecord status = ParseFastrakStatus(reply);
  Require(status.bitError > -100 && status.bitError < 1000);
  Require(!status.found || (status.word & kFastrakParsed) != 0);
  Require(FindFastrakProduct(status.word & 0xFFFF).stations >= 1);
  Require(*BitErrorText(status.bitError) != '\0');
  unsigned active = 0;
  Require(!ParseActiveStations(reply, 4, active) || active < 16);
}

// The first byte chooses the layout of the record.
void Fastrak(Bytes bytes) {
  if (bytes.empty()) return;
  const Bytes rest = bytes.subspan(1);
  DecodeFastrakRecord(std::to_integer<std::uint8_t>(bytes[0]), rest);
  ReadFastrakReplies({reinterpret_cast<const char*>(rest.data()), rest.size()});
}

// ---- Flock ---------------------------------------------------------------------------------

bool Marked(std::byte byte) { return std::to_integer<unsigned>(byte) >= 0x80; }

// The bytes that follow the last mark are read.
void Flock(Bytes bytes) {
  while (bytes.size() >= kFlockRecordSize) {
    const auto record = bytes.first<kFlockRecordSize>();
    const std::size_t start = FindFlockRecord(record);
    Require(start < record.size() && (start == 0 || Marked(record[start])));
    for (std::size_t i = start + 1; i < record.size(); ++i) Require(!Marked(record[i]));
    for (const int word : DecodeFlockRecord(record)) {
      Require(word >= -32768 && word <= 32764 && word % 4 == 0);
    }
    bytes = bytes.subspan(start > 0 ? start : kFlockRecordSize);
  }
}

// ---- GPS -----------------------------------------------------------------------------------

void CheckGps(const GpsState& gps) {
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

// Latitude 0.5, longitude 0.25, altitude 100 m; the first byte ends an open packet.
constexpr std::uint8_t kFix[] = {0x03, 0x10, 0x4A, 0x3F, 0, 0, 0, 0x3E, 0x80, 0, 0,    0x42, 0xC8,
                                 0,    0,    0,    0,    0, 0, 0, 0,    0,    0, 0x10, 0x03};

// The values stay plausible, and a good packet after the bytes is read.
void Gps(Bytes bytes) {
  GpsReports reports;
  for (const std::byte byte : bytes) (void)reports.Take(byte);
  CheckGps(reports.state());
  (void)reports.TakePositionNews();
  for (const std::byte byte : std::as_bytes(std::span(kFix))) (void)reports.Take(byte);
  Require(reports.TakePositionNews() && reports.state().latitude == 0.5);
  CheckGps(reports.state());
}

// ---- InterTrax -----------------------------------------------------------------------------

void Intertrax(Bytes bytes) {
  for (; bytes.size() >= kIntertraxRecordSize; bytes = bytes.subspan(1)) {
    for (const int angle : DecodeIntertraxRecord(bytes.first<kIntertraxRecordSize>())) {
      Require(angle >= -32768 && angle <= 32767);
    }
  }
}

// ---- Liberty -------------------------------------------------------------------------------

void DecodeLibertyFrame(Bytes choices, Bytes bytes) {
  std::vector<std::int32_t> items;
  for (const std::byte choice : choices) items.push_back(static_cast<std::int8_t>(choice));
  const LibertyLayout layout = LibertyLayoutOf(items);
  // A copy of its own, so that a byte too far is seen.
  const std::vector<std::byte> frame(bytes.begin(), bytes.end());
  if (LibertyFrameCount(layout, frame)) Require(frame.size() >= layout.frameCount + 4);
  float values[4] = {};
  for (const std::size_t index : {0U, 1U, 15U, 16U, 0xFFFFFFFFU}) {
    for (const std::size_t offset : {layout.position, layout.euler, layout.quaternion}) {
      ReadLibertyFloats(layout, frame, index, offset, values);
    }
  }
}

// In pieces, as a line delivers them.
void ReadLibertyLine(std::uint8_t active, std::size_t body, std::span<const std::uint8_t> bytes) {
  static LibertyFrameReader reader;
  static LibertyCycles cycles;
  const std::size_t record = kLibertyHeaderSize + body;
  reader.Clear();
  reader.SetRecordSize(record);
  cycles.SetLayout(record, body >= 4 ? record - 4 : 0);
  cycles.SetStations(active, 0);
  std::int64_t now = 0;
  std::size_t piece = 1;
  while (!bytes.empty()) {
    const auto room = reader.Room();
    const std::size_t count = std::min({bytes.size(), room.size(), piece++});
    Require(count > 0);
    std::ranges::copy(bytes.first(count), room.begin());
    reader.Took(count);
    bytes = bytes.subspan(count);
    while (const auto frame = reader.Next()) {
      Require(frame->bytes.size() >= kLibertyHeaderSize && frame->station <= kLibertyStations);
      if (frame->IsPose()) cycles.Add(*frame, now);
    }
    const auto cycle = cycles.Take(now += 7);
    Require(cycle.size() % record == 0);
  }
}

// What the library returns, then the bytes of the line.
void Liberty(Bytes bytes) {
  if (bytes.size() < 8) return;
  const std::span line(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  DecodeLibertyFrame(bytes.first(6), bytes.subspan(6));
  ReadLibertyLine(line[6], line[7] % 160, line.subspan(8));
}

// ---- Logitech ------------------------------------------------------------------------------

void CheckLogitechRecord(std::span<const std::byte, kLogitechRecordSize> record) {
  const auto values = DecodeLogitechRecord(record);
  for (std::size_t i = 0; i < 3; ++i) Require(values[i] >= -0x100000 && values[i] < 0x100000);
  for (std::size_t i = 3; i < 6; ++i) Require(values[i] >= 0 && values[i] < 0x4000);
  Pose pose;
  for (std::size_t i = 0; i < 6; ++i) pose[i] = static_cast<float>(values[i]);
  for (const float part : ApplyLogitechMounting(values[3] % 7 - 1, pose)) {
    Require(std::isfinite(part));
  }
}

// As the axes of its mounting, and as records.
void Logitech(Bytes bytes) {
  if (bytes.size() >= 24) {
    WireReader wire(bytes);
    std::array<float, 6> axes{};
    for (float& part : axes) part = wire.F32Le();
    const auto mounting = LogitechMountingOf(axes.data(), axes.data() + 3);
    Require(!mounting || (static_cast<int>(*mounting) >= 0 && static_cast<int>(*mounting) <= 4));
  }
  for (; bytes.size() >= kLogitechRecordSize; bytes = bytes.subspan(1)) {
    CheckLogitechRecord(bytes.first<kLogitechRecordSize>());
  }
}

// ---- Pan-tilt head -------------------------------------------------------------------------

void PanTilt(Bytes bytes) {
  std::array<int, kPanTiltWords> words{};
  const std::size_t count = DecodePanTilt(bytes, words);
  Require(count == bytes.size() / 2);
  for (std::size_t i = 0; i < words.size(); ++i) {
    Require(words[i] >= -32768 && words[i] <= 32767 && (i < count || words[i] == 0));
  }
}

// ---- The programs --------------------------------------------------------------------------

struct Row {
  std::string_view name;
  void (*decode)(Bytes bytes);
};
constexpr Row kRows[] = {{"fastrak", Fastrak},     {"flock", Flock},     {"gps", Gps},
                         {"intertrax", Intertrax}, {"liberty", Liberty}, {"logitech", Logitech},
                         {"pan_tilt", PanTilt}};
constexpr const Row* kChosen = std::ranges::find(kRows, KINETREL_FUZZ, &Row::name);
static_assert(kChosen != std::end(kRows));

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kChosen->decode(std::as_bytes(std::span(data, size)));
  return 0;
}
