#include "emulate/intertrax_emulator.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

namespace kinetrel::emulate {
namespace {

// From the last byte of a command to the first byte of its answer.
constexpr Moment kReplyDelay = std::chrono::microseconds(200);

// For a host whose rate is unknown. A known rate is followed, but it shows only when bytes come.
constexpr Moment kSpeedUpDelay = std::chrono::milliseconds(50);

constexpr unsigned kSlowBaud = 1200;
constexpr unsigned kFastBaud = 38400;
constexpr double kCountsPerDegree = 32767.0 / 180;
constexpr std::string_view kVersion{"InterTrax 1.0 (emulated)\0", 25};

void AddAngle(WireWriter& out, double degrees) {
  const double counts = std::round(std::remainder(degrees, 360) * kCountsPerDegree);
  out.U16Le(static_cast<std::uint32_t>(static_cast<std::int32_t>(counts)));
}

}  // namespace

WireWriter EncodeIntertraxRecord(const MotionPose& pose) {
  WireWriter out;
  for (const double angle : {pose.azimuth, -pose.elevation, -pose.roll}) AddAngle(out, angle);
  return out;
}

// ---- Life ---------------------------------------------------------------------------------------

IntertraxEmulator::IntertraxEmulator(IntertraxSettings settings,
                                     std::shared_ptr<const Motion> motion)
    : settings_(settings), motion_(std::move(motion)) {}

void IntertraxEmulator::PowerOn(Moment now, DeviceLine& line) {
  Reset(now, line);
  const bool first = !std::exchange(poweredBefore_, true);
  if (!first || settings_.start == IntertraxStart::Idle) return;
  SpeedUp(now, line);
  Obey(now, '6', line);
}

void IntertraxEmulator::Reset(Moment, DeviceLine& line) {
  line.DropWaiting();
  line.SetBaud(kSlowBaud);
  link_ = Link::Reset;
  speedUpDue_ = false;
  speedUpAt_ = kNever;
  askedVersion_ = false;
  streaming_ = false;
}

void IntertraxEmulator::HostRateChanged(Moment now, unsigned baud, DeviceLine& line) {
  hostBaud_ = baud;
  if (baud == kSlowBaud) {
    Reset(now, line);
    line.Say(now, "the host is at 1200 baud: reset");
  } else if (baud == kFastBaud && speedUpDue_) {
    SpeedUp(now, line);
  }
}

void IntertraxEmulator::SpeedUp(Moment, DeviceLine& line) {
  speedUpDue_ = false;
  speedUpAt_ = kNever;
  link_ = Link::Fast;
  line.SetBaud(kFastBaud);
}

// ---- Commands -----------------------------------------------------------------------------------

void IntertraxEmulator::Receive(Moment now, std::span<const std::byte> bytes, DeviceLine& line) {
  for (const std::byte byte : bytes) {
    const char* const done = Obey(now, static_cast<char>(byte), line);
    if (!line.Shown()) continue;
    char text[64];
    std::snprintf(text, sizeof text, "%02X  %s", std::to_integer<unsigned>(byte), done);
    line.Say(now, text);
  }
}

const char* IntertraxEmulator::Obey(Moment now, char command, DeviceLine& line) {
  constexpr const char* kUnknown = "not understood";
  if (std::exchange(askedVersion_, false)) {
    return command == '\0' && link_ != Link::Fast ? TellVersion(now, line) : kUnknown;
  }
  switch (command) {
    case 'c':
      if (link_ == Link::Fast) return kUnknown;
      link_ = Link::Answered;
      speedUpDue_ = false;
      speedUpAt_ = kNever;
      line.SendReply(now + kReplyDelay, AsBytes("o"));
      return "first handshake";
    case 'd':
      if (link_ != Link::Answered) return kUnknown;
      line.SendReply(now + kReplyDelay, AsBytes("d"));
      speedUpDue_ = true;
      speedUpAt_ = hostBaud_ == 0 ? line.FreeAt() + kSpeedUpDelay : kNever;
      return "second handshake: 38400 baud";
    case 'v':
      askedVersion_ = true;
      return "version, 0 to come";
    case '3':
      if (link_ != Link::Fast) return kUnknown;
      SendRecord(now + kReplyDelay, line);
      return "one record";
    case '6':
      if (link_ != Link::Fast) return kUnknown;
      streaming_ = !streaming_;
      streamStart_ = now;
      slot_ = 0;
      return streaming_ ? "records as they are measured" : "no more records";
    default:
      return kUnknown;
  }
}

const char* IntertraxEmulator::TellVersion(Moment now, DeviceLine& line) {
  if (!settings_.tellsVersion) return "version: it does not tell";
  WireWriter out;
  out.Text("v").U8(0).U16Le(1).U16Le(0).Text(kVersion);
  line.SendReply(now + kReplyDelay, out.bytes());
  return "version";
}

// ---- Records ------------------------------------------------------------------------------------

Moment IntertraxEmulator::NextEvent() const {
  const Moment stream = streaming_ ? NthOf(streamStart_, slot_ + 1, settings_.rate) : kNever;
  return std::min(speedUpAt_, stream);
}

void IntertraxEmulator::OnEvent(Moment now, DeviceLine& line) {
  if (now >= speedUpAt_) return SpeedUp(now, line);
  ++slot_;
  SendRecord(now, line);
}

void IntertraxEmulator::SendRecord(Moment now, DeviceLine& line) {
  if (!motion_->Has(0)) return;
  const double seconds = std::chrono::duration<double>(now).count();
  line.SendRecord(now, EncodeIntertraxRecord(motion_->At(0, frame_++, seconds)).bytes());
}

// ---- Options ------------------------------------------------------------------------------------

namespace {

struct StartRow {
  std::string_view option;
  IntertraxStart start;
};
constexpr StartRow kStarts[] = {
    {"idle", IntertraxStart::Idle},
    {"streaming", IntertraxStart::Streaming},
};

constexpr OptionRow kOptions[] = {
    {"--start", "STATE",
     "the state it is found in: idle (just switched on) or streaming\n"
     "(to another program, at 38400 baud)"},
    {"--no-version", "", "it does not answer when asked for its version"},
    {"--rate", "HZ", "measurements a second while it streams (250)"},
};

}  // namespace

OptionTable IntertraxOptions() { return kOptions; }

std::unique_ptr<EmulatedDevice> MakeIntertrax(OptionValues& options,
                                              std::shared_ptr<const Motion> motion) {
  IntertraxSettings settings;
  settings.start = kStarts[options.Choice("--start", kStarts)].start;
  settings.tellsVersion = !options.Has("--no-version");
  settings.rate = options.Get("--rate", settings.rate, 1.0, 500.0);
  return std::make_unique<IntertraxEmulator>(settings, std::move(motion));
}

}  // namespace kinetrel::emulate
