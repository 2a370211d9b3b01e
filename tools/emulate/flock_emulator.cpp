#include "emulate/flock_emulator.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <utility>

namespace kinetrel::emulate {
namespace {

// From the last byte of a command to the first byte of its answer.
constexpr Moment kReplyDelay = std::chrono::microseconds(500);

constexpr std::size_t kMostUnread = 256;   // the bird's input buffer
constexpr double kFullScale = 144 * 2.54;  // cm
constexpr double kFullAngle = 180;         // degrees
constexpr int kWordBits = 14;
constexpr unsigned kMostBirds = 14;

constexpr unsigned kPrefix = 0xF0;
constexpr unsigned kLastPrefix = kPrefix + kMostBirds;

// Errors that the bird reports by itself.
constexpr unsigned kInvalidCommand = 6;

// Bits of the status word.
constexpr unsigned kMaster = 0x8000;
constexpr unsigned kConfigured = 0x4000;
constexpr unsigned kError = 0x2000;
constexpr unsigned kRunning = 0x1000;

// Bits of a bird in the flock's status.
constexpr unsigned kAccessible = 0x80;
constexpr unsigned kBirdRuns = 0x40;
constexpr unsigned kHasReceiver = 0x20;

constexpr unsigned kAutoConfigure = 50;
constexpr unsigned kGroupMode = 35;

double Wrapped(double degrees) { return std::remainder(degrees, 2 * kFullAngle); }

void AddWord(WireWriter& out, double value, double fullScale) {
  const auto bits = static_cast<std::uint32_t>(Scaled(value, fullScale, kWordBits));
  const unsigned mark = out.bytes().empty() ? 0x80 : 0;
  out.U8((bits & 0x7F) | mark).U8(bits >> 7 & 0x7F);
}

std::string Hex(std::span<const unsigned> bytes) {
  std::string text;
  for (const unsigned byte : bytes) {
    char two[8];
    std::snprintf(two, sizeof two, "%s%02X", text.empty() ? "" : " ", byte);
    text += two;
  }
  return text;
}

}  // namespace

WireWriter EncodeFlockRecord(const MotionPose& pose) {
  WireWriter out;
  for (const double value : {pose.x, -pose.y, -pose.z}) AddWord(out, value, kFullScale);
  for (const double angle : {-pose.azimuth, -pose.elevation, pose.roll}) {
    AddWord(out, Wrapped(angle), kFullAngle);
  }
  return out;
}

// ---- Life ---------------------------------------------------------------------------------------

FlockEmulator::FlockEmulator(FlockSettings settings, std::shared_ptr<const Motion> motion)
    : settings_(settings), motion_(std::move(motion)) {}

void FlockEmulator::PowerOn(Moment now, DeviceLine&) {
  const bool first = !std::exchange(poweredBefore_, true);
  error_ = first ? settings_.error : 0;
  configuredBirds_ = 0;
  command_.clear();
  unread_.clear();
  address_ = 0;
  busyUntil_ = now;
  streaming_ = first && settings_.start == FlockStart::Streaming;
  streamStart_ = now;
  slot_ = 0;
  pollAt_ = kNever;
  owesHalfRecord_ = first && settings_.start == FlockStart::HalfRecord;
  if (first && settings_.start == FlockStart::HalfCommand) command_ = {'P', kAutoConfigure};
}

void FlockEmulator::HostOpened(Moment now, DeviceLine& line) {
  if (!std::exchange(owesHalfRecord_, false)) return;
  const WireWriter record = EncodeFlockRecord(motion_->At(0, frame_, 0));
  line.SendReply(now, record.bytes().subspan(record.bytes().size() / 2));
}

bool FlockEmulator::RaiseError(Moment, std::optional<int> code) {
  constexpr int kOverflow = 13;  // any code
  const int error = code.value_or(kOverflow);
  if (error < 1 || error > 255) return false;
  error_ = static_cast<unsigned>(error);
  return true;
}

// ---- Commands -----------------------------------------------------------------------------------

struct FlockEmulator::CommandRow {
  unsigned code;
  std::size_t length;
  std::string (FlockEmulator::*obey)(Turn turn);
};

std::span<const FlockEmulator::CommandRow> FlockEmulator::Commands() {
  using Self = FlockEmulator;
  static constexpr CommandRow kRows[] = {
      {'O', 2, &Self::Examine},       {'P', 3, &Self::Change},
      {'B', 1, &Self::Point},         {'@', 1, &Self::Stream},
      {'L', 3, &Self::SetHemisphere}, {'Y', 1, &Self::UsePositionAndAngles},
  };
  return kRows;
}

const FlockEmulator::CommandRow* FlockEmulator::FindCommand(unsigned code) {
  for (const CommandRow& row : Commands()) {
    if (row.code == code) return &row;
  }
  return nullptr;
}

void FlockEmulator::Receive(Moment now, std::span<const std::byte> bytes, DeviceLine& line) {
  for (const std::byte byte : bytes) {
    if (now >= busyUntil_) {
      Feed(byte, {now, line});
    } else if (unread_.size() < kMostUnread) {
      unread_.push_back(byte);
    }
  }
}

void FlockEmulator::Feed(std::byte byte, Turn turn) {
  const auto value = std::to_integer<unsigned>(byte);
  if (command_.empty() && value >= kPrefix && value <= kLastPrefix) {
    address_ = value - kPrefix;
    return;
  }
  command_.push_back(value);
  if (command_.size() < WantedLength()) return;
  Obey(turn);
  command_.clear();
  address_ = 0;
}

// Most parameters are words when they are set; two are bytes.
std::size_t FlockEmulator::WantedLength() const {
  const CommandRow* const row = FindCommand(command_[0]);
  if (row == nullptr) return 1;
  const bool word = command_[0] == 'P' && command_.size() >= 2 && command_[1] != kAutoConfigure &&
                    command_[1] != kGroupMode;
  return word ? row->length + 1 : row->length;
}

void FlockEmulator::Obey(Turn turn) {
  const CommandRow* const row = FindCommand(command_[0]);
  std::string done = row != nullptr ? (this->*row->obey)(turn) : "";
  if (done.empty()) {
    error_ = kInvalidCommand;
    done = "not understood: error " + std::to_string(error_);
  }
  if (!turn.line.Shown()) return;
  const std::string whom = address_ == 0 ? "" : " to bird " + std::to_string(address_);
  char text[128];
  std::snprintf(text, sizeof text, "%-12s %s%s", Hex(command_).c_str(), done.c_str(), whom.c_str());
  turn.line.Say(turn.now, text);
}

std::string FlockEmulator::Change(Turn turn) {
  if (command_[1] != kAutoConfigure) return "parameter " + std::to_string(command_[1]) + " changed";
  const unsigned birds = command_[2];
  if (birds < 1 || birds > kMostBirds) return "";
  configuredBirds_ = birds;
  busyUntil_ = turn.now + settings_.configurationTime;
  return "configures the bus for " + std::to_string(birds) + " birds";
}

std::string FlockEmulator::Point(Turn turn) {
  const bool streamed = std::exchange(streaming_, false);
  polledStation_ = address_ > 0 ? address_ - 1 : 0;
  pollAt_ = std::max(turn.now + kReplyDelay, nextMeasured_);
  return streamed ? "the stream ends; one record" : "one record";
}

std::string FlockEmulator::Stream(Turn turn) {
  streaming_ = true;
  streamStart_ = turn.now;
  slot_ = 0;
  return "streams";
}

std::string FlockEmulator::SetHemisphere(Turn) {
  static constexpr std::array<std::string_view, 3> kAxes = {"x", "y", "z"};
  const unsigned axis = command_[1] / 6;
  if (command_[1] % 6 != 0 || axis >= kAxes.size() || command_[2] > 1) return "";
  return "hemisphere " + std::string(command_[2] == 0 ? "+" : "-") + std::string(kAxes[axis]);
}

std::string FlockEmulator::UsePositionAndAngles(Turn) { return "position and angles"; }

// ---- Parameters ---------------------------------------------------------------------------------

struct FlockEmulator::ParameterRow {
  unsigned number;
  std::string_view name;
  WireWriter (FlockEmulator::*tell)();
};

std::span<const FlockEmulator::ParameterRow> FlockEmulator::Parameters() {
  using Self = FlockEmulator;
  static constexpr ParameterRow kRows[] = {
      {0, "bird status", &Self::BirdStatus},
      {1, "software revision", &Self::SoftwareRevision},
      {2, "crystal speed", &Self::CrystalSpeed},
      {6, "measurement count", &Self::MeasurementCount},
      {7, "sample rate", &Self::SampleRate},
      {10, "error code", &Self::ErrorCode},
      {15, "model", &Self::ModelId},
      {33, "birds on the bus", &Self::BirdsOnBus},
      {kGroupMode, "group mode", &Self::GroupMode},
      {36, "flock status", &Self::FlockStatus},
      {kAutoConfigure, "bus configuration", &Self::AutoConfiguration},
  };
  return kRows;
}

std::string FlockEmulator::Examine(Turn turn) {
  for (const ParameterRow& row : Parameters()) {
    if (row.number != command_[1]) continue;
    turn.line.SendReply(turn.now + kReplyDelay, (this->*row.tell)().bytes());
    return "answers " + std::string(row.name);
  }
  return "";
}

unsigned FlockEmulator::BirdMask() const { return ((1U << settings_.birds) - 1) << 1; }

WireWriter FlockEmulator::BirdStatus() {
  return WireWriter().U16Le(kMaster | kRunning | (configuredBirds_ > 0 ? kConfigured : 0) |
                            (error_ > 0 ? kError : 0));
}

WireWriter FlockEmulator::SoftwareRevision() { return WireWriter().U8(3).U8(67); }
WireWriter FlockEmulator::CrystalSpeed() { return WireWriter().U8(40).U8(0); }
WireWriter FlockEmulator::MeasurementCount() { return WireWriter().U16Le(3340); }

WireWriter FlockEmulator::SampleRate() {
  return WireWriter().U16Le(static_cast<std::uint32_t>(settings_.rate * 256));
}

WireWriter FlockEmulator::ErrorCode() { return WireWriter().U8(std::exchange(error_, 0)); }
WireWriter FlockEmulator::ModelId() { return WireWriter().Text("6DFOB     "); }
WireWriter FlockEmulator::BirdsOnBus() { return WireWriter().U8(0).U16Le(BirdMask()).U16Le(0); }
WireWriter FlockEmulator::GroupMode() { return WireWriter().U8(0); }

WireWriter FlockEmulator::FlockStatus() {
  WireWriter out;
  for (unsigned address = 1; address <= kMostBirds; ++address) {
    const bool there = (BirdMask() >> address & 1) != 0;
    const unsigned running = address <= configuredBirds_ ? kBirdRuns : 0;
    out.U8(there ? kAccessible | kHasReceiver | running : 0);
  }
  return out;
}

WireWriter FlockEmulator::AutoConfiguration() {
  const unsigned running = ((1U << configuredBirds_) - 1) << 1 & BirdMask();
  return WireWriter().U8(configuredBirds_).U16Le(running).U16Le(0);
}

// ---- Records ------------------------------------------------------------------------------------

Moment FlockEmulator::NextEvent() const {
  const Moment ready = unread_.empty() ? kNever : busyUntil_;
  const Moment stream = streaming_ ? NthOf(streamStart_, slot_ + 1, settings_.rate) : kNever;
  return std::min({ready, stream, pollAt_});
}

void FlockEmulator::OnEvent(Moment now, DeviceLine& line) {
  if (!unread_.empty() && now >= busyUntil_) {
    const std::vector<std::byte> bytes = std::exchange(unread_, {});
    Receive(now, bytes, line);
  } else if (now >= pollAt_) {
    pollAt_ = kNever;
    SendRecord(now, polledStation_, line);
    nextMeasured_ = NthOf(now, 1, settings_.rate);
  } else {
    // On a busy line the bird sends fewer records; it never falls behind.
    ++slot_;
    if (line.FreeAt() <= now) SendRecord(now, 0, line);
  }
}

void FlockEmulator::SendRecord(Moment now, unsigned station, DeviceLine& line) {
  const double seconds = static_cast<double>(frame_) / settings_.rate;
  const WireWriter record = EncodeFlockRecord(motion_->At(station, frame_, seconds));
  line.SendRecord(now, record.bytes());
  ++frame_;
}

// ---- Options ------------------------------------------------------------------------------------

namespace {

struct StartRow {
  std::string_view option;
  FlockStart start;
};
constexpr StartRow kStarts[] = {
    {"idle", FlockStart::Idle},
    {"streaming", FlockStart::Streaming},
    {"half-record", FlockStart::HalfRecord},
    {"half-command", FlockStart::HalfCommand},
};

constexpr OptionRow kOptions[] = {
    {"--birds", "COUNT", "birds on the bus, 1 to 14 (3)"},
    {"--rate", "HZ", "measurements a second (144)"},
    {"--start", "STATE",
     "the state it is found in: idle (just switched on), streaming,\n"
     "half-record or half-command (as left by another program)"},
    {"--error", "CODE", "an error pending at the start, 1 to 255"},
};

}  // namespace

OptionTable FlockOptions() { return kOptions; }

std::unique_ptr<EmulatedDevice> MakeFlock(OptionValues& options,
                                          std::shared_ptr<const Motion> motion) {
  FlockSettings settings;
  settings.birds = options.Get("--birds", settings.birds, 1U, kMostBirds);
  settings.rate = options.Get("--rate", settings.rate, 1.0, 255.0);
  settings.start = kStarts[options.Choice("--start", kStarts)].start;
  settings.error = options.Get("--error", 0U, 1U, 255U);
  return std::make_unique<FlockEmulator>(settings, std::move(motion));
}

}  // namespace kinetrel::emulate
