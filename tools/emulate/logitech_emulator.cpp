#include "emulate/logitech_emulator.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <utility>

namespace kinetrel::emulate {
namespace {

// From the last byte of a command to the first byte of its answer.
constexpr Moment kReplyDelay = std::chrono::microseconds(500);

constexpr std::uint64_t kMostAsked = 16;  // requests that wait for their answer
constexpr std::size_t kInformationSize = 30;
constexpr unsigned kHeader = 0x80;
constexpr unsigned kNotValid = 0x20;

constexpr double kCountsPerCentimetre = 1000 / 2.54;
constexpr double kCountsPerDegree = 40;
constexpr double kFullRange = 0x100000;  // counts on either side of 0
constexpr double kRadians = std::numbers::pi / 180;

void AddPosition(WireWriter& out, double centimetres) {
  const double counts =
      std::clamp(std::round(centimetres * kCountsPerCentimetre), -kFullRange, kFullRange - 1);
  const auto bits = static_cast<std::uint32_t>(static_cast<std::int32_t>(counts));
  out.U8(bits >> 14 & 0x7F).U8(bits >> 7 & 0x7F).U8(bits & 0x7F);
}

void AddAngle(WireWriter& out, double degrees) {
  const double turn = degrees - 360 * std::floor(degrees / 360);
  const auto bits = static_cast<std::uint32_t>(std::lround(turn * kCountsPerDegree));
  out.U8(bits >> 7 & 0x7F).U8(bits & 0x7F);
}

}  // namespace

WireWriter EncodeLogitechRecord(const MotionPose& pose, unsigned header) {
  const double cosine = std::cos(pose.azimuth * kRadians);
  const double sine = std::sin(pose.azimuth * kRadians);
  WireWriter out;
  out.U8(kHeader | (header & 0x7F));
  for (const double place : {pose.y, pose.x, -pose.z}) AddPosition(out, place);
  AddAngle(out, pose.elevation * cosine + pose.roll * sine);
  AddAngle(out, pose.roll * cosine - pose.elevation * sine);
  AddAngle(out, -pose.azimuth);
  return out;
}

// ---- Life ---------------------------------------------------------------------------------------

LogitechEmulator::LogitechEmulator(LogitechSettings settings, std::shared_ptr<const Motion> motion)
    : settings_(settings), motion_(std::move(motion)) {}

void LogitechEmulator::PowerOn(Moment now, DeviceLine&) {
  const bool first = !std::exchange(poweredBefore_, true);
  owesHalfRecord_ = first && settings_.start == LogitechStart::HalfRecord;
  streaming_ = first && settings_.start == LogitechStart::Streaming;
  starred_ = false;
  outOfSight_ = false;
  start_ = now;
  slot_ = 0;
  asked_ = 0;
}

void LogitechEmulator::HostOpened(Moment now, DeviceLine& line) {
  if (!std::exchange(owesHalfRecord_, false)) return;
  const WireWriter record = EncodeLogitechRecord(motion_->At(0, frame_, 0), settings_.buttons);
  line.SendReply(now, record.bytes().subspan(record.bytes().size() / 2));
}

bool LogitechEmulator::RaiseError(Moment, std::optional<int>) { return outOfSight_ = true; }

// ---- Commands -----------------------------------------------------------------------------------

void LogitechEmulator::Receive(Moment now, std::span<const std::byte> bytes, DeviceLine& line) {
  for (const std::byte byte : bytes) {
    const char command = static_cast<char>(byte);
    if (command == '*') {
      starred_ = true;
      continue;
    }
    const bool starred = std::exchange(starred_, false);
    const char* const done = Obey(now, command, starred, line);
    if (!line.Shown()) continue;
    char text[64];
    std::snprintf(text, sizeof text, "%s%02X  %s", starred ? "2A " : "",
                  std::to_integer<unsigned>(byte), done);
    line.Say(now, text);
  }
}

const char* LogitechEmulator::Obey(Moment now, char command, bool starred, DeviceLine& line) {
  const Moment reply = now + kReplyDelay;
  switch (command) {
    case 'D':
      streaming_ = false;
      return "records when asked only";
    case 'S':
      streaming_ = true;
      SkipTo(now);
      return "records as they are measured";
    default:
      if (!starred) return "not understood";
  }
  switch (command) {
    case 0x05:
      line.SendReply(reply, WireWriter().U16Le(settings_.selfTest).bytes());
      return "self-test";
    case 'm':
      line.SendReply(reply, std::vector<std::byte>(kInformationSize));
      return "tells about itself";
    case 'd':
      if (asked_ == 0) SkipTo(now);
      asked_ = std::min(asked_ + 1, kMostAsked);
      return "one record";
    case 'A':
      return "taken, no answer";
    default:
      return "not understood";
  }
}

// ---- Records ------------------------------------------------------------------------------------

Moment LogitechEmulator::NextEvent() const {
  return streaming_ || asked_ > 0 ? NthOf(start_, slot_ + 1, settings_.rate) : kNever;
}

// The unit measures all the time; a request is answered with the next measurement.
void LogitechEmulator::SkipTo(Moment now) {
  const std::chrono::duration<double> since = now - start_;
  slot_ = std::max(slot_, static_cast<std::uint64_t>(since.count() * settings_.rate));
}

void LogitechEmulator::OnEvent(Moment now, DeviceLine& line) {
  ++slot_;
  if (!streaming_) --asked_;
  SendRecord(now, line);
}

void LogitechEmulator::SendRecord(Moment now, DeviceLine& line) {
  const bool valid = !std::exchange(outOfSight_, false) && motion_->Has(0);
  const double seconds = std::chrono::duration<double>(now).count();
  const MotionPose pose = motion_->At(0, frame_, seconds);
  const unsigned header = (settings_.buttons & ~kNotValid) | (valid ? 0 : kNotValid);
  line.SendRecord(now, EncodeLogitechRecord(pose, header).bytes());
  if (valid) ++frame_;
}

// ---- Options ------------------------------------------------------------------------------------

namespace {

struct StartRow {
  std::string_view option;
  LogitechStart start;
};
constexpr StartRow kStarts[] = {
    {"idle", LogitechStart::Idle},
    {"streaming", LogitechStart::Streaming},
    {"half-record", LogitechStart::HalfRecord},
};

struct SelfTestRow {
  std::string_view option;
  unsigned result;
};
constexpr SelfTestRow kSelfTests[] = {{"passes", 0x3FBF}, {"fails", 0x3FBD}};

constexpr OptionRow kOptions[] = {
    {"--start", "STATE",
     "the state it is found in: idle (just switched on), streaming or\n"
     "half-record (to another program)"},
    {"--buttons", "BITS", "what its buttons are: 0 to 127, without 32 (0)"},
    {"--self-test", "RESULT", "passes, or fails (in its processor)"},
    {"--rate", "HZ", "measurements a second (50)"},
};

}  // namespace

OptionTable LogitechOptions() { return kOptions; }

std::unique_ptr<EmulatedDevice> MakeLogitech(OptionValues& options,
                                             std::shared_ptr<const Motion> motion) {
  LogitechSettings settings;
  settings.start = kStarts[options.Choice("--start", kStarts)].start;
  settings.buttons = options.Get("--buttons", settings.buttons, 0U, 127U);
  settings.selfTest = kSelfTests[options.Choice("--self-test", kSelfTests)].result;
  settings.rate = options.Get("--rate", settings.rate, 1.0, 100.0);
  return std::make_unique<LogitechEmulator>(settings, std::move(motion));
}

}  // namespace kinetrel::emulate
