#include "drivers/logitech_device.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "devices/bounded_text.h"
#include "devices/wire.h"

namespace kinetrel {
namespace {

// ---- Wire ----------------------------------------------------------------------------------

constexpr int kBaud = 19200;
constexpr unsigned kFamily = static_cast<unsigned>(DeviceFamily::HeadTracker);
constexpr int kDeviceType = 0x401;
constexpr int kRecordsPerSecond = 50;
constexpr unsigned kSensors = 1;

constexpr char kSelfTest[] = {'*', 0x05};
constexpr char kDemandReporting[] = "*D";
constexpr char kAfterDemand[] = "*A";
constexpr char kInformation[] = "*m";

constexpr int kSelfTestMs = 1000;
constexpr int kInformationMs = 100;
constexpr unsigned kInformationSize = 30;
constexpr int kStreamPauseMs = 60;  // a streaming unit never pauses that long
constexpr int kLateMs = 100;        // USB adapters hold bytes back; the machine may be busy

constexpr std::byte kHeaderMark{0x80};
constexpr std::byte kNotValid{0x20};
constexpr unsigned kHeaderBits = 0x7F;

bool IsHeader(std::byte byte) { return (byte & kHeaderMark) != std::byte{0}; }

// ---- Self-test -----------------------------------------------------------------------------

constexpr unsigned kAllPassed = 0x3FBF;

struct SelfTestItem {
  const char* name;
  unsigned bits;  // any of them
};
constexpr SelfTestItem kSelfTestItems[] = {
    {"SELF", 0x0001},  {"MPU", 0x0002},  {"EPROM", 0x0004},  {"RAM", 0x0008},    {"TFRAME", 0x0010},
    {"MOUSE", 0x0020}, {"PORT", 0x0100}, {"EEPROM", 0x0200}, {"TBDEFD", 0x3C00},
};

void WriteSelfTestText(unsigned result, char* text, int size) {
  std::array<char, 80> room{};
  TextAppender items(room);
  for (const SelfTestItem& item : kSelfTestItems) {
    items.AppendF("%s%s(%c)", items.length() == 0 ? "" : ",", item.name,
                  (result & item.bits) != 0 ? '*' : '0');
  }
  CopyTruncated(text, size, room.data());
}

// ---- Channels ------------------------------------------------------------------------------

// In the order of the wire, and of the pose.
constexpr std::array<unsigned, kLogitechChannels> kChannelOfComponent = {1, 0, 2, 5, 3, 4};
constexpr std::array<double, kLogitechChannels> kChannelSigns = {1, 1, -1, 1, 1, -1};

constexpr float kRadiansPerCount = 0.00043633231950044053F;  // a fortieth of a degree
constexpr float kCentimetresPerCount = 0.00254F;
constexpr float kMetresPerCount = 2.54e-05F;
constexpr float kInchesPerCount = 0.001F;

float UnitsPerCount(int units) {
  if (units == 1) return kCentimetresPerCount;
  return units == 3 ? kMetresPerCount : kInchesPerCount;
}

int ReadSigned21(WireReader& wire) {
  unsigned value = 0;
  for (int i = 0; i < 3; ++i) value = value << 7 | (wire.U8() & 0x7FU);
  return static_cast<int>(value ^ 0x100000U) - 0x100000;
}

int ReadUnsigned14(WireReader& wire) {
  const unsigned high = wire.U8() & 0x7FU;
  return static_cast<int>(high << 7 | (wire.U8() & 0x7FU));
}

// ---- Angles --------------------------------------------------------------------------------

constexpr float kTurn = 6.2831855F;
constexpr float kQuarterTurn = 1.5707964F;

float WrapAngle(float angle) {
  if (angle < 0.0F) angle += kTurn;
  return angle > kPi ? angle - kTurn : angle;
}

// Pitch and roll as seen after a turn by the yaw.
struct TurnedAngles {
  explicit TurnedAngles(const Pose& pose)
      : pitch(static_cast<float>(pose[4] * std::cos(static_cast<double>(pose[3])) -
                                 pose[5] * std::sin(static_cast<double>(pose[3])))),
        roll(static_cast<float>(pose[4] * std::sin(static_cast<double>(pose[3])) +
                                pose[5] * std::cos(static_cast<double>(pose[3])))) {}
  float pitch;
  float roll;
};

// ---- Mountings -----------------------------------------------------------------------------

Pose MountUpright(const Pose& p) {
  const TurnedAngles turned(p);
  return {p[0], p[1], p[2], p[3], turned.pitch, turned.roll};
}
Pose MountFacing(const Pose& p) { return {p[2], -p[1], p[0], p[5], -p[4], p[3]}; }
Pose MountTurned(const Pose& p) { return {p[1], -p[0], p[2], p[3] - kQuarterTurn, -p[5], p[4]}; }
Pose MountInverted(const Pose& p) {
  const TurnedAngles turned(p);
  return {p[0], -p[1], -p[2], -p[3], -turned.pitch, turned.roll};
}
Pose MountMirrored(const Pose& p) {
  const TurnedAngles turned(p);
  return {-p[1], -p[0], -p[2], -p[3], -turned.roll, -turned.pitch};
}

// The direction of an axis in quarter turns.
struct QuarterTurns {
  int elevation;
  int azimuth;  // 0..3
  bool operator==(const QuarterTurns&) const = default;
};

// In the order of their numbers. The axes of the last one are those that its transform makes.
struct MountingRow {
  Pose (*apply)(const Pose& pose);
  QuarterTurns xAxis;
  QuarterTurns yAxis;
};
constexpr MountingRow kMountings[] = {
    {MountUpright, {0, 0}, {0, 1}},  {MountFacing, {1, 0}, {0, 1}},   {MountTurned, {0, 1}, {0, 2}},
    {MountInverted, {0, 0}, {0, 3}}, {MountMirrored, {0, 3}, {0, 2}},
};

constexpr double kAxisTolerance = 0.01;  // radians past a quarter turn

std::optional<int> InQuarterTurns(double angle) {
  const double past = std::fmod(angle, kPi / 2);
  if (!(std::fabs(past) <= kAxisTolerance)) return std::nullopt;
  return static_cast<int>(std::floor((angle + kAxisTolerance) * 2 / kPi));
}

std::optional<QuarterTurns> DirectionOf(const float axis[3]) {
  constexpr double kNoLength = 1.1920929e-07;
  const double x = axis[0];
  const double y = axis[1];
  const double length = std::hypot(x, y);
  const double turn = length < kNoLength ? 0.0 : std::acos(std::clamp(x / length, -1.0, 1.0));
  const auto azimuth = InQuarterTurns(y < 0 ? -turn : turn);
  const auto elevation = InQuarterTurns(std::atan2(static_cast<double>(axis[2]), length));
  if (!azimuth || !elevation) return std::nullopt;
  return QuarterTurns{*elevation, *azimuth < 0 ? *azimuth + 4 : *azimuth};
}

}  // namespace

std::array<int, kLogitechChannels> DecodeLogitechRecord(
    std::span<const std::byte, kLogitechRecordSize> record) {
  WireReader wire(record.subspan<1>());
  std::array<int, kLogitechChannels> values{};
  for (std::size_t i = 0; i < 3; ++i) values[i] = ReadSigned21(wire);
  for (std::size_t i = 3; i < 6; ++i) values[i] = ReadUnsigned14(wire);
  return values;
}

Pose ApplyLogitechMounting(int mounting, const Pose& pose) {
  if (mounting < 0 || mounting >= static_cast<int>(std::size(kMountings))) return pose;
  return kMountings[mounting].apply(pose);
}

std::optional<LogitechMounting> LogitechMountingOf(const float xAxis[3], const float yAxis[3]) {
  const auto x = DirectionOf(xAxis);
  const auto y = DirectionOf(yAxis);
  if (!x || !y) return std::nullopt;
  for (int i = 0; i < static_cast<int>(std::size(kMountings)); ++i) {
    const MountingRow& row = kMountings[i];
    if (row.xAxis == *x && row.yAxis == *y) return static_cast<LogitechMounting>(i);
  }
  return std::nullopt;
}

LogitechDevice::LogitechDevice() {
  sensorCount_ = kSensors;
  totalFrameRate_ = kRecordsPerSecond;
  componentMask_ = kPositionComponent | kEulerComponent;
  continuousByte_ = 'S';
  pollByte_ = 'd';
  stopByte_ = 'D';
  prePollByte_ = '*';
  statusWord_ = kFamily;
  deviceType_ = kDeviceType;
  SetName(DeviceName::Logitech);
  LogitechDevice::SetUnits(1);
}

// ---- Port ----------------------------------------------------------------------------------

int LogitechDevice::OpenPort(const char* name, int) { return TrackerDevice::OpenPort(name, kBaud); }

// ---- Life ----------------------------------------------------------------------------------

BootResult LogitechDevice::Boot(int) {
  booted_ = false;
  lastModeByte_ = 0;
  lastHeader_ = 0;
  window_.Clear();
  strayInput_ = false;
  gate_.Forget();
  if (!PassesSelfTest()) return kPortNotOpen;
  WriteString(kDemandReporting, 0, false);
  WriteString(kAfterDemand, 0, false);
  SetTimeouts();
  statusWord_ = (statusWord_ & ~0xFFFFU) | kFamily;
  if (!AllocateSensors(kSensors)) return kCountedOut;
  offsets_[0] = givenOffset_;
  booted_ = true;
  return kBooted;
}

// A wrong answer that more bytes follow does not count: the unit streams, or old bytes were on the
// line.
bool LogitechDevice::PassesSelfTest() {
  std::optional<unsigned> result = RunSelfTest();
  if (result && *result != kAllPassed && WaitForRX(kStreamPauseMs, 1)) {
    Silence();
    result = RunSelfTest();
  }
  return result == kAllPassed;
}

std::optional<unsigned> LogitechDevice::RunSelfTest() {
  Write(kSelfTest, sizeof kSelfTest);
  WaitForRX(kSelfTestMs, 2);
  std::array<std::byte, 2> reply{};
  if (!Read(reply.data(), 2)) return std::nullopt;
  return WireReader(reply).U16Le();
}

void LogitechDevice::Silence() {
  constexpr int kMostRounds = 8;
  WriteString(kDemandReporting, 0, false);
  for (int round = 0; round < kMostRounds; ++round) {
    PurgeInput();
    if (!WaitForRX(kStreamPauseMs, 1)) return;
  }
}

void LogitechDevice::SetTimeouts() {
  const int baud = static_cast<int>(GetBaudRate());
  if (!HasHandle() || baud <= 0) return;
  const int step = 200000 / baud + 1;
  SetReadTimeouts(3 * step, step, 2 * step);
}

int LogitechDevice::QueryStatus(char* text, int size) {
  // A record that is on its way would be read as the answer.
  const bool polled = booted_ && lastModeByte_ == pollByte_;
  if (polled) {
    WaitForRX(kStreamPauseMs, kLogitechRecordSize);
    PurgeInput();
  }
  ReadInformation();
  const std::optional<unsigned> result = RunSelfTest();
  if (result) WriteSelfTestText(*result, text, size);
  if (polled) Poll();
  return result == kAllPassed ? 1 : 0;
}

// The meaning of this record is not known. It is read to clear the line for the self-test.
void LogitechDevice::ReadInformation() {
  WriteString(kInformation, 0, false);
  std::array<std::byte, kInformationSize> information{};
  if (WaitForRX(kInformationMs, kInformationSize)) {
    Read(information.data(), kInformationSize);
  } else {
    PurgeInput();
  }
}

// ---- Sampling ------------------------------------------------------------------------------

unsigned LogitechDevice::ReadFrame(double* sampleTime) {
  double time = 0.0;
  const bool read = ReadRecord(&time);
  if (sampleTime != nullptr && time != 0.0) *sampleTime = time;
  if (!read) {
    strayInput_ = true;
    return 0;
  }
  const auto record = window_.bytes().first<kLogitechRecordSize>();
  const bool valid =
      (record[0] & kNotValid) == std::byte{0} && !poses_.empty() && KeepPose(record, time);
  if (valid) {
    TellRecords(1, time);
  } else {
    TellDropped();
  }
  window_.Drop(kLogitechRecordSize);
  return valid ? 1 : 0;
}

// The port's time-outs are as short as unit and line allow, so a late byte is waited for here.
bool LogitechDevice::Await(std::size_t count) {
  if (window_.Want(*this, count)) return true;
  const int missing = static_cast<int>(count - window_.size());
  return WaitForRX(kLateMs, missing) && window_.Want(*this, count);
}

bool LogitechDevice::ReadRecord(double* sampleTime) {
  for (std::size_t skipped = 0; skipped < kLogitechRecordSize; ++skipped) {
    if (!Await(1)) return false;
    if (IsHeader(window_.bytes()[0])) return ReadRest(sampleTime);
    window_.Drop(1);
  }
  return false;
}

// A marked byte after the first is the header of the next record: the one before was cut.
bool LogitechDevice::ReadRest(double* sampleTime) {
  constexpr int kMostHeaders = 4;
  for (int headers = 0; headers < kMostHeaders; ++headers) {
    if (sampleTime != nullptr) *sampleTime = ElapsedSeconds();
    lastHeader_ = static_cast<unsigned>(window_.bytes()[0]) & kHeaderBits;
    if (!Await(kLogitechRecordSize)) return false;
    const auto record = window_.bytes();
    const auto next = std::find_if(record.begin() + 1, record.end(), IsHeader);
    if (next == record.end()) return true;
    window_.Drop(static_cast<std::size_t>(next - record.begin()));
  }
  return false;
}

// False for a record that was probably damaged.
bool LogitechDevice::KeepPose(std::span<const std::byte, kLogitechRecordSize> record, double time) {
  const auto values = DecodeLogitechRecord(record);
  for (std::size_t i = 0; i < values.size(); ++i) channels_[i].raw = values[i];
  Pose pose;
  for (std::size_t i = 0; i < pose.size(); ++i) {
    pose[i] = static_cast<float>(channels_[kChannelOfComponent[i]].Value());
  }
  for (std::size_t i = 3; i < pose.size(); ++i) pose[i] = WrapAngle(pose[i]);
  constexpr double kCmPerCount = 0.00254;
  const double unitInCm = kCmPerCount / double{UnitsPerCount(units_)};
  if (!gate_.Accept(MotionGate::SampleOf(pose, unitInCm, time),
                    {1.0 / kRecordsPerSecond, kCmPerCount, double{kRadiansPerCount}})) {
    Post(statusLog_, StatusCode::Refused, "A record was damaged: the pose jumps.");
    return false;
  }
  poses_[0] = ApplyLogitechMounting(protocol_, pose);
  if (componentMask_ != 0) quaternions_[0] = EulerToQuaternion(&poses_[0][3]);
  return true;
}

// Clears the line first: a late answer would be read as the answer to this poll, and every later
// pose would be one poll old.
void LogitechDevice::Poll() {
  if (strayInput_) {
    window_.Clear();
    PurgeInput();
  }
  strayInput_ = false;
  TrackerDevice::Poll();
}

// ---- Stations ------------------------------------------------------------------------------

// The mask does not change the mounting; only the axes and the protocol do.
unsigned LogitechDevice::SetSensorMask(unsigned mask, int) {
  MaskWithFirstSensor(mask);
  return sensorMask_ = 1;
}

// ---- Settings ------------------------------------------------------------------------------

int LogitechDevice::SetUnits(int units) {
  const float length = UnitsPerCount(units);
  for (std::size_t i = 0; i < kLogitechChannels; ++i) {
    channels_[i].scale = kChannelSigns[i] * static_cast<double>(i < 3 ? length : kRadiansPerCount);
  }
  units_ = units;
  return 1;
}

int LogitechDevice::SetAlignment(int sensor, const float xAxis[3], const float yAxis[3]) {
  if (sensor >= static_cast<int>(kSensors)) return 0;
  const auto mounting = LogitechMountingOf(xAxis, yAxis);
  if (!mounting) return 0;
  const int before = std::exchange(protocol_, static_cast<int>(*mounting));
  // The host gives the offsets in the published frame. With another mounting they belong to other
  // channels.
  if (before != protocol_) SetChannelOffsets();
  return 1;
}

bool LogitechDevice::SetSensorOffsetComponent(int sensor, unsigned component, double value) {
  if (sensor >= static_cast<int>(kSensors)) return false;
  const unsigned channel =
      component < kLogitechChannels ? kChannelOfComponent[component] : component;
  gate_.Forget();
  if (channel < channels_.size()) channels_[channel].offset = value;
  if (component < givenOffset_.size()) givenOffset_[component] = static_cast<float>(value);
  return TrackerDevice::SetSensorOffsetComponent(sensor, component, value);
}

bool LogitechDevice::SetSensorOffset(int sensor, const float pose[6]) {
  if (sensor >= static_cast<int>(kSensors)) return false;
  std::copy_n(pose, givenOffset_.size(), givenOffset_.begin());
  SetChannelOffsets();
  return poses_.empty() || TrackerDevice::SetSensorOffset(sensor, pose);
}

void LogitechDevice::SetChannelOffsets() {
  gate_.Forget();  // a new offset moves the pose at once
  const bool facing = protocol_ == static_cast<int>(LogitechMounting::Facing);
  const Pose onAxes = facing ? MountFacing(givenOffset_) : givenOffset_;
  for (std::size_t i = 0; i < onAxes.size(); ++i) {
    channels_[kChannelOfComponent[i]].offset = static_cast<double>(onAxes[i]);
  }
}

// ---- Buttons -------------------------------------------------------------------------------

ButtonBits::Buttons LogitechDevice::OwnButtons() const { return {kHeaderBits, lastHeader_}; }

}  // namespace kinetrel
