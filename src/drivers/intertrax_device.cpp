#include "drivers/intertrax_device.h"

#include "devices/bounded_text.h"
#include "devices/wire.h"
#include "platform/clock.h"

namespace kinetrel {
namespace {

// ---- Wire ----------------------------------------------------------------------------------

constexpr int kSlowBaud = 1200;
constexpr int kFastBaud = 38400;
constexpr unsigned kRtsOff = 0;
constexpr unsigned kRtsOn = 1;
constexpr unsigned kResetMs = 100;

constexpr char kFirstAsk = 'c';
constexpr char kFirstAnswer = 'o';
constexpr char kSecondAsk = 'd';
constexpr char kSecondAnswer = 'd';
constexpr char kVersionAsk[] = {'v', '\0'};

constexpr int kHandshakeMs = 250;  // the unit takes 80; more for adapters and busy machines
constexpr int kFieldMs = 200;
constexpr unsigned kFieldSize = 2;
constexpr int kVersionTextMs = 400;
constexpr int kVersionTextSize = 50;
constexpr std::size_t kVersionTextRoom = 100;  // a text without an end is cut off here

constexpr int kRecordMs = 200;
constexpr int kTimedBytes = 4;
constexpr int kBitsPerByte = 10;

constexpr unsigned kSensors = 1;
constexpr unsigned kFamily = static_cast<unsigned>(DeviceFamily::VendorLibrary) | 2;
constexpr unsigned kFlagsCleared = 0x000F0000;
constexpr unsigned kFlagsSet = 0x00100000;
constexpr double kRadiansPerCount = kPi / 32767;

// The unit's own rate is not known. The line, which carries a request and the answer, allows at
// most this many records a second.
constexpr int kBitsPerFrame = kBitsPerByte * (1 + static_cast<int>(kIntertraxRecordSize));
constexpr int kRecordsPerSecond = kFastBaud / kBitsPerFrame;

// The shortest time from a request to the end of the answer's first byte.
constexpr int kBitsToAnswer = kBitsPerByte * 2;

// Results of a version query whose answer stopped; the link itself works.
constexpr int kNoEcho = -12;
constexpr int kNoFirstField = -11;
constexpr int kNoSecondField = -10;

}  // namespace

std::array<int, 3> DecodeIntertraxRecord(std::span<const std::byte, kIntertraxRecordSize> record) {
  WireReader wire(record);
  std::array<int, 3> angles{};
  for (int& angle : angles) angle = wire.I16Le();
  return angles;
}

IntertraxDevice::IntertraxDevice() {
  sensorCount_ = kSensors;
  totalFrameRate_ = kRecordsPerSecond;
  componentMask_ = kEulerComponent;
  continuousByte_ = '6';
  pollByte_ = '3';
  stopByte_ = '6';
  deviceType_ = static_cast<int>(DeviceName::InterSenseIntertrax);
  SetName(DeviceName::InterSenseIntertrax);
}

// ---- Life ----------------------------------------------------------------------------------

BootResult IntertraxDevice::Boot(int) {
  booted_ = false;
  lastModeByte_ = 0;
  gate_.Forget();
  std::array<char, kVersionTextRoom> version{};
  const bool up = ResetUnit() && ShakeHands() &&
                  QueryStatus(version.data(), static_cast<int>(version.size())) != 0 && SpeedUp();
  if (!up) return reportCode_;
  for (std::size_t i = 0; i < 6; ++i) {
    const bool reversed = i == 1 || i == 2;
    channels_[i].scale = reversed ? -kRadiansPerCount : kRadiansPerCount;
  }
  if (!AllocateSensors(kSensors)) return 0;
  booted_ = true;
  return kBooted;
}

// The link returns to 38400 baud even when the query failed. A unit left at 1200 baud would stay
// silent until the next reset.
int IntertraxDevice::QueryStatus(char* text, int size) {
  CopyTruncated(text, size, "");
  statusWord_ = (statusWord_ & ~(0xFFFFU | kFlagsCleared)) | kFamily | kFlagsSet;
  const bool wasFast = link_ == IntertraxLink::Fast;
  if (!ShakeHands()) return reportCode_;
  const int asked = AskVersion(text, size);
  if (wasFast && !SpeedUp()) return 0;
  reportCode_ = static_cast<int>(IntertraxResult::Done);
  return asked;
}

int IntertraxDevice::AskVersion(char* text, int size) {
  PurgeInput();
  Write(kVersionAsk, sizeof kVersionAsk);
  for (const int failure : {kNoEcho, kNoFirstField, kNoSecondField}) {
    if (ReadField()) continue;
    // A late answer must not be taken for the answer to the next question.
    WaitForRX(kVersionTextMs, kVersionTextSize);
    PurgeInput();
    return failure;
  }
  std::array<char, kVersionTextRoom> version{};
  WaitForRX(kVersionTextMs, kVersionTextSize);
  ReadString(version.data(), static_cast<int>(version.size()), '\0');
  CopyTruncated(text, size, version.data());
  return 1;
}

// The meaning of the fields is not known; the first repeats the question.
bool IntertraxDevice::ReadField() {
  std::array<char, kFieldSize> field{};
  return WaitForRX(kFieldMs, kFieldSize) && Read(field.data(), kFieldSize);
}

// ---- Link ----------------------------------------------------------------------------------

bool IntertraxDevice::Fail(IntertraxResult result) {
  reportCode_ = static_cast<int>(result);
  return false;
}

bool IntertraxDevice::Succeed() {
  reportCode_ = static_cast<int>(IntertraxResult::Done);
  return true;
}

bool IntertraxDevice::SetLine(int baud, unsigned rts) {
  return SetLineSettings(baud, 8, 0, 0, rts);
}

void IntertraxDevice::SetTimeouts() {
  const int baud = static_cast<int>(GetBaudRate());
  if (baud <= 0) return;  // the port was never opened
  const int step = kTimedBytes * 10000 / baud + 1;
  SetReadTimeouts(3 * step, step, 2 * step);
}

bool IntertraxDevice::Exchange(char ask, char expected) {
  PurgeInput();
  Write(&ask, 1);
  char answer = 0;
  return WaitForRX(kHandshakeMs, 1) && Read(&answer, 1) && answer == expected;
}

bool IntertraxDevice::ResetUnit() {
  link_ = IntertraxLink::Resetting;
  SetLine(kSlowBaud, kRtsOff);
  Pause(kResetMs);
  if (!SetLine(kSlowBaud, kRtsOn)) return Fail(IntertraxResult::ResetRefused);
  link_ = IntertraxLink::Reset;
  return Succeed();
}

bool IntertraxDevice::ShakeHands() {
  if (link_ == IntertraxLink::Answered) return Succeed();
  if (link_ != IntertraxLink::Reset && !ResetUnit()) return false;
  SetTimeouts();
  if (!Exchange(kFirstAsk, kFirstAnswer)) return Fail(IntertraxResult::NoFirstAnswer);
  link_ = IntertraxLink::Answered;
  return Succeed();
}

bool IntertraxDevice::SpeedUp() {
  if (link_ == IntertraxLink::Fast) return Succeed();
  if (link_ != IntertraxLink::Answered && !ShakeHands()) return false;
  if (!Exchange(kSecondAsk, kSecondAnswer)) return Fail(IntertraxResult::NoSecondAnswer);
  link_ = IntertraxLink::Fast;
  if (!SetLine(kFastBaud, kRtsOn)) return Fail(IntertraxResult::SpeedRefused);
  SetTimeouts();
  return Succeed();
}

// ---- Sampling ------------------------------------------------------------------------------

unsigned IntertraxDevice::ReadFrame(double* sampleTime) {
  lastModeByte_ = 0;  // the unit answers single requests, so no stream has to be stopped
  std::array<std::byte, kIntertraxRecordSize> record{};
  const bool read = AwaitRecord() && Read(record.data(), kIntertraxRecordSize);
  if (!read || poses_.empty()) return 0;
  const double time = ElapsedSeconds();
  Pose pose = poses_[0];
  const auto angles = DecodeIntertraxRecord(record);
  for (std::size_t i = 0; i < angles.size(); ++i) {
    channels_[i].raw = angles[i];
    pose[3 + i] = static_cast<float>(channels_[i].Value());
  }
  if (!gate_.Accept(MotionGate::SampleOf(pose, 1, time),
                    {1.0 / kRecordsPerSecond, 0, kRadiansPerCount})) {
    Post(statusLog_, StatusCode::Refused, "A record was damaged: the pose jumps.");
    TellDropped();
    return 0;
  }
  if (sampleTime != nullptr) *sampleTime = time;
  poses_[0] = pose;
  TellRecords(1, time);
  return 1;
}

// The rest of a damaged record would shift this record and all later ones. Bytes that arrive before
// the line can have carried the request and a byte of the answer are such a rest. A whole record is
// accepted even then, because an emulated unit may be faster than a line.
bool IntertraxDevice::AwaitRecord() {
  const std::int64_t earliest = askedAt_ + ClockTicksPerSecond() * kBitsToAnswer / kFastBaud;
  std::array<std::byte, kIntertraxRecordSize> rest{};
  while (WaitForRX(kRecordMs, 1) && ClockTicks() < earliest) {
    const unsigned waiting = InputQueueLength();
    const unsigned before = waiting % kIntertraxRecordSize;
    if (before == 0 || !Read(rest.data(), before)) break;
  }
  return WaitForRX(kRecordMs, kIntertraxRecordSize);
}

void IntertraxDevice::Poll() {
  if (booted_) PurgeInput();
  askedAt_ = ClockTicks();
  TrackerDevice::Poll();
}

// ---- Stations ------------------------------------------------------------------------------

unsigned IntertraxDevice::SetSensorMask(unsigned mask, int sensorCount) {
  return TrackerDevice::SetSensorMask(MaskWithFirstSensor(mask), sensorCount);
}

// ---- Settings ------------------------------------------------------------------------------

unsigned IntertraxDevice::SetComponentMask(unsigned) { return componentMask_ = kEulerComponent; }

}  // namespace kinetrel
