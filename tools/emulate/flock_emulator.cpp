#include "emulate/flock_emulator.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdio>
#include <utility>

namespace kinetrel::emulate {
namespace {

// From the last byte of a command to the first byte of its answer.
constexpr Moment kReplyDelay = std::chrono::microseconds(500);

constexpr std::size_t kMostUnread = 256;  // the bird's input buffer
constexpr double kInch = 2.54;            // cm
constexpr double kFullAngle = 180;        // degrees
constexpr int kWordBits = 14;
constexpr unsigned kMostBirds = 14;

constexpr unsigned kPrefix = 0xF0;
constexpr unsigned kLastPrefix = kPrefix + kMostBirds;

// Errors that the bird reports by itself.
constexpr unsigned kInvalidCommand = 6;

// Bits of the status word.
constexpr unsigned kMaster = 0x8000;
constexpr unsigned kConfigured = 0x4000;
constexpr unsigned kAsleep = 0x0020;
constexpr unsigned kStreams = 0x0001;
constexpr unsigned kError = 0x2000;
constexpr unsigned kRunning = 0x1000;

// Bits of a bird in the flock's status.
constexpr unsigned kAccessible = 0x80;
constexpr unsigned kBirdRuns = 0x40;
constexpr unsigned kHasReceiver = 0x20;

constexpr unsigned kAutoConfigure = 50;
constexpr unsigned kGroupMode = 35;
constexpr unsigned kScale = 3;

// Bytes of a parameter that is changed; any other one has two.
struct ParameterLength {
  unsigned number;
  std::size_t bytes;
};
constexpr ParameterLength kLengths[] = {
    {5, 14}, {8, 1},  {9, 1},  {11, 1}, {12, 14}, {13, 14},        {14, 1},
    {17, 1}, {20, 1}, {21, 1}, {23, 6}, {24, 6},  {kGroupMode, 1}, {kAutoConfigure, 1},
};

std::size_t LengthOf(unsigned parameter) {
  for (const ParameterLength& row : kLengths) {
    if (row.number == parameter) return row.bytes;
  }
  return 2;
}

struct ModeRow {
  unsigned command;
  FlockMode mode;
  std::string_view name;
  bool position;
};
constexpr ModeRow kModes[] = {
    {'V', FlockMode::Position, "position", true},
    {'W', FlockMode::Angles, "angles", false},
    {'X', FlockMode::Matrix, "matrix", false},
    {'Y', FlockMode::PositionAngles, "position and angles", true},
    {'Z', FlockMode::PositionMatrix, "position and matrix", true},
    {'\\', FlockMode::Quaternion, "quaternion", false},
    {']', FlockMode::PositionQuaternion, "position and quaternion", true},
};

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

WireWriter EncodeFlockRecord(FlockMode mode, const MotionPose& pose, double fullScale) {
  const MotionPose sent = {pose.x, -pose.y, -pose.z, -pose.azimuth, -pose.elevation, pose.roll};
  WireWriter out;
  const auto row = std::ranges::find(kModes, mode, &ModeRow::mode);
  if (row->position) {
    for (const double value : {sent.x, sent.y, sent.z}) AddWord(out, value, fullScale);
  }
  if (mode == FlockMode::Angles || mode == FlockMode::PositionAngles) {
    for (const double angle : {sent.azimuth, sent.elevation, sent.roll}) {
      AddWord(out, Wrapped(angle), kFullAngle);
    }
  } else if (mode == FlockMode::Matrix || mode == FlockMode::PositionMatrix) {
    for (const Vector3& each : RotationOf(sent)) {
      for (const double part : each) AddWord(out, part, 1);
    }
  } else if (mode == FlockMode::Quaternion || mode == FlockMode::PositionQuaternion) {
    for (const double part : QuaternionOf(sent)) AddWord(out, part, 1);
  }
  return out;
}

// ---- Life ---------------------------------------------------------------------------------------

FlockEmulator::FlockEmulator(FlockSettings settings, std::shared_ptr<const Motion> motion)
    : settings_(settings), motion_(std::move(motion)) {}

void FlockEmulator::PowerOn(Moment now, DeviceLine&) {
  const bool first = !std::exchange(poweredBefore_, true);
  error_ = first ? settings_.error : 0;
  ForgetBus();
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
  const WireWriter record = RecordOf(0, 0);
  line.SendReply(now, record.bytes().subspan(record.bytes().size() / 2));
}

void FlockEmulator::ForgetBus() {
  configuredBirds_ = asleep_ = 0;
  groupMode_ = doubled_ = streaming_ = false;
  modes_.fill(FlockMode::PositionAngles);
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
      {'O', 2, &Self::Examine},       {'P', 2, &Self::Change},  // and the parameter's own length
      {'B', 1, &Self::Point},         {'@', 1, &Self::Stream},   {'?', 1, &Self::EndStream},
      {'L', 3, &Self::SetHemisphere}, {'V', 1, &Self::SetMode},  {'W', 1, &Self::SetMode},
      {'X', 1, &Self::SetMode},       {'Y', 1, &Self::SetMode},  {'Z', 1, &Self::SetMode},
      {'\\', 1, &Self::SetMode},      {']', 1, &Self::SetMode},  {'F', 1, &Self::RunOrSleep},
      {'G', 1, &Self::RunOrSleep},    {'/', 1, &Self::Reset},    {'N', 1, &Self::ReadButton},
      {'M', 2, &Self::PassOver},   // the button's mode
      {'A', 2, &Self::PassOver},   // synchronization
      {'0', 2, &Self::PassOver},   // the next transmitter
      {'1', 2, &Self::PassOver},   // the next master
      {'H', 13, &Self::PassOver},  // reference frame
      {'J', 13, &Self::PassOver},  // alignment by angles
      {'q', 7, &Self::PassOver},   // the same, in another form
      {'r', 7, &Self::PassOver},   // reference frame, likewise
      {'Q', 1, &Self::PassOver},   // every record, every 2nd, 8th, 32nd
      {'R', 1, &Self::PassOver},      {'S', 1, &Self::PassOver}, {'T', 1, &Self::PassOver},
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

std::size_t FlockEmulator::WantedLength() const {
  const CommandRow* const row = FindCommand(command_[0]);
  if (row == nullptr) return 1;
  const bool changes = command_[0] == 'P' && command_.size() >= 2;
  return row->length + (changes ? LengthOf(command_[1]) : 0);
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
  if (command_[1] == kGroupMode) {
    groupMode_ = command_[2] != 0;
    return groupMode_ ? "group mode: records of all birds, with their addresses" : "no group mode";
  }
  if (command_[1] == kScale) {
    doubled_ = command_[2] != 0;
    return doubled_ ? "the full scale is 72 inches" : "the full scale is 36 inches";
  }
  if (command_[1] != kAutoConfigure) return "parameter " + std::to_string(command_[1]) + " changed";
  const unsigned birds = command_[2];
  if (birds < 1 || birds > kMostBirds) return "";
  configuredBirds_ = birds;
  asleep_ = 0;
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
  streamedStation_ = address_ > 0 ? address_ - 1 : 0;
  streamStart_ = turn.now;
  slot_ = 0;
  fresh_.Clear();
  return "streams";
}

std::string FlockEmulator::EndStream(Turn) {
  streaming_ = false;
  return "streams no more";
}

std::string FlockEmulator::SetHemisphere(Turn) {
  static constexpr std::array<std::string_view, 3> kAxes = {"x", "y", "z"};
  const unsigned axis = command_[1] / 6;
  if (command_[1] % 6 != 0 || axis >= kAxes.size() || command_[2] > 1) return "";
  return "hemisphere " + std::string(command_[2] == 0 ? "+" : "-") + std::string(kAxes[axis]);
}

// Without an address the master is meant.
std::string FlockEmulator::SetMode(Turn) {
  const auto row = std::ranges::find(kModes, command_[0], &ModeRow::command);
  modes_[std::max(address_, 1U)] = row->mode;
  return std::string(row->name);
}

// Without an address the whole flock is meant.
std::string FlockEmulator::RunOrSleep(Turn) {
  const unsigned meant = address_ == 0 ? ~0U : 1U << address_;
  const bool sleeps = command_[0] == 'G';
  asleep_ = sleeps ? asleep_ | meant : asleep_ & ~meant;
  return sleeps ? "sleeps" : "runs";
}

std::string FlockEmulator::Reset(Turn) {
  ForgetBus();
  return "the flock is reset";
}

std::string FlockEmulator::ReadButton(Turn turn) {
  turn.line.SendReply(turn.now + kReplyDelay, WireWriter().U8(0).bytes());
  return "answers the button";
}

std::string FlockEmulator::PassOver(Turn) { return "accepted, not played"; }

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
      {3, "scale", &Self::Zeros},
      {5, "filter table", &Self::Zeros},
      {6, "measurement count", &Self::MeasurementCount},
      {7, "sample rate", &Self::SampleRate},
      {8, "data ready", &Self::DataReady},
      {9, "data ready character", &Self::DataReady},
      {10, "error code", &Self::ErrorCode},
      {12, "filter table", &Self::Zeros},
      {13, "filter table", &Self::Zeros},
      {15, "model", &Self::ModelId},
      {16, "error and address", &Self::Zeros},
      {17, "reference frame of positions", &Self::Zeros},
      {19, "addressing", &Self::Zeros},
      {22, "parameter 22", &Self::Zeros},
      {23, "angle alignment", &Self::Zeros},
      {24, "reference frame", &Self::Zeros},
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

unsigned FlockEmulator::RunningMask() const {
  return ((1U << configuredBirds_) - 1) << 1 & BirdMask() & ~asleep_;
}

double FlockEmulator::FullScale() const {
  return (doubled_ ? std::max(settings_.range, 72.0) : settings_.range) * kInch;
}

WireWriter FlockEmulator::BirdStatus() {
  const unsigned address = std::max(address_, 1U);
  const bool sleeps = (asleep_ >> address & 1) != 0;
  const auto mode = static_cast<unsigned>(modes_[address]);
  return WireWriter().U16Le((address == 1 ? kMaster : 0) | (sleeps ? kAsleep : kRunning) |
                            (configuredBirds_ > 0 ? kConfigured : 0) | (error_ > 0 ? kError : 0) |
                            mode << 1 | (streaming_ ? kStreams : 0));
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
WireWriter FlockEmulator::GroupMode() { return WireWriter().U8(groupMode_ ? 1 : 0); }
WireWriter FlockEmulator::DataReady() { return WireWriter().U8(command_[1] == 9 ? ',' : 0); }

// Parameters that are not played, in their lengths.
WireWriter FlockEmulator::Zeros() {
  WireWriter out;
  const bool byteOrTwo = command_[1] == 19;
  const std::size_t length = byteOrTwo ? 1 : LengthOf(command_[1]);
  for (std::size_t i = 0; i < length; ++i) out.U8(0);
  return out;
}

WireWriter FlockEmulator::FlockStatus() {
  WireWriter out;
  for (unsigned address = 1; address <= kMostBirds; ++address) {
    const bool there = (BirdMask() >> address & 1) != 0;
    const unsigned running = (RunningMask() >> address & 1) != 0 ? kBirdRuns : 0;
    out.U8(there ? kAccessible | kHasReceiver | running : 0);
  }
  return out;
}

WireWriter FlockEmulator::AutoConfiguration() {
  return WireWriter().U8(configuredBirds_).U16Le(RunningMask()).U16Le(0);
}

// ---- Records ------------------------------------------------------------------------------------

Moment FlockEmulator::NextEvent() const {
  const Moment ready = unread_.empty() ? kNever : busyUntil_;
  const Moment stream = !streaming_         ? kNever
                        : motion_->IsLive() ? fresh_.Next()
                                            : NthOf(streamStart_, slot_ + 1, settings_.rate);
  return std::min({ready, stream, pollAt_});
}

void FlockEmulator::OnEvent(Moment now, DeviceLine& line) {
  if (!unread_.empty() && now >= busyUntil_) {
    const std::vector<std::byte> bytes = std::exchange(unread_, {});
    Receive(now, bytes, line);
  } else if (now >= pollAt_) {
    pollAt_ = kNever;
    SendRecords(now, polledStation_, line);
    nextMeasured_ = NthOf(now, 1, settings_.rate);
  } else if (motion_->IsLive()) {
    SendFresh(now, line);
  } else {
    // On a busy line the bird sends fewer records; it never falls behind.
    ++slot_;
    if (line.FreeAt() <= now) SendRecords(now, streamedStation_, line);
  }
}

WireWriter FlockEmulator::RecordOf(unsigned station, double seconds) const {
  const std::size_t address = std::min<std::size_t>(station + 1, kMostBirds);
  WireWriter record =
      EncodeFlockRecord(modes_[address], motion_->At(station, frame_, seconds), FullScale());
  if (groupMode_) record.U8(static_cast<std::uint32_t>(address));
  return record;
}

// In group mode all birds that run, else one.
std::uint32_t FlockEmulator::Senders(unsigned station) const {
  std::uint32_t senders = 0;
  for (unsigned i = 0; i < settings_.birds; ++i) {
    const bool runs = groupMode_ ? (RunningMask() >> (i + 1) & 1) != 0
                                 : i == station && (asleep_ >> (i + 1) & 1) == 0;
    if (runs && motion_->Has(i)) senders |= 1U << i;
  }
  return senders;
}

void FlockEmulator::NewPoses(Moment now, std::uint32_t stations, DeviceLine& line) {
  if (!streaming_) return;
  fresh_.Add(now, stations & Senders(streamedStation_));
  SendFresh(now, line);
}

void FlockEmulator::SendFresh(Moment now, DeviceLine& line) {
  const std::uint32_t senders = Senders(streamedStation_);
  const auto count = static_cast<unsigned>(std::popcount(senders));
  while (const auto i = fresh_.Take(now, line, settings_.rate * std::max(1U, count), count)) {
    if ((senders >> *i & 1) != 0) line.SendRecord(now, RecordOf(*i, 0).bytes());
  }
}

void FlockEmulator::SendRecords(Moment now, unsigned station, DeviceLine& line) {
  const double seconds = static_cast<double>(frame_) / settings_.rate;
  const std::uint32_t senders = Senders(station);
  for (unsigned i = 0; i < settings_.birds; ++i) {
    const bool sends = (senders >> i & 1) != 0;
    if (sends) line.SendRecord(now, RecordOf(i, seconds).bytes());
  }
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
    {"--range", "INCHES",
     "positions at full scale: 36, 72, or 144 with the extended\n"
     "transmitter (144)"},
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
  if (motion->Stations() > 0) settings.birds = std::min(motion->Stations(), kMostBirds);
  settings.birds = options.Get("--birds", settings.birds, 1U, kMostBirds);
  settings.rate = options.Get("--rate", settings.rate, 1.0, 255.0);
  settings.range = options.Get("--range", settings.range, 36.0, 144.0);
  settings.start = kStarts[options.Choice("--start", kStarts)].start;
  settings.error = options.Get("--error", 0U, 1U, 255U);
  return std::make_unique<FlockEmulator>(settings, std::move(motion));
}

}  // namespace kinetrel::emulate
