#include "drivers/pan_tilt_device.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <limits>

#include "devices/bounded_text.h"
#include "devices/wire.h"

namespace kinetrel {
namespace {

// ---- The wire --------------------------------------------------------------------------------

constexpr int kBaud = 9600;
constexpr char kReady = 'Z';  // ends the boot; its effect on the head is not known

struct RequestRow {
  char request;
  unsigned answerLength;
  unsigned fewest;  // bytes that count as its answer in a status query
  unsigned most;
  int result;
  const char* text;
};
constexpr unsigned kNoLimit = std::numeric_limits<unsigned>::max();
constexpr RequestRow kRequests[] = {
    {'d', 12, 12, 12, 1, "Encoders only enabled.  "},
    {'b', 14, 13, kNoLimit, 3, "All data enabled.  "},
    {'a', 2, 1, 11, 2, "Alternate data only enabled.  "},  // no byte at all is a failure
};
constexpr unsigned kLongestAnswer = 14;

const RequestRow* FindRequest(char request) {
  const auto row = std::ranges::find(kRequests, request, &RequestRow::request);
  return row != std::end(kRequests) ? row : nullptr;
}

constexpr std::size_t kPan = 4;
constexpr std::size_t kTilt = 5;
constexpr double kRadiansPerCount = kPi / 2000.0;
constexpr double kFastest = 70;  // answers a second that the line carries
constexpr double kHardestTurn = 10'000 * kRadiansPerDegree;  // a second, each second

// ---- How long the head may take, ms ----------------------------------------------------------

// An answer of 12 bytes takes 13 ms at this rate. But a USB adapter delivers every 16 ms only, and
// the machine may be busy.
constexpr int kPatience = 100;
constexpr int kExcess = 20;  // bytes beyond the end of an answer come within this time
constexpr int kSilence = 10;
constexpr int kMostNoise = 5;  // tries to find a silence

constexpr int kBootTries = 3;  // the head may still be answering an earlier program
constexpr unsigned kMostDue = 2;
constexpr unsigned kMostBytes = 256;
constexpr int kHeadStatus = static_cast<int>(DeviceFamily::PanTilt) | 3;
constexpr int kShortestText = 32;

unsigned RoundedUp(unsigned count, unsigned step) { return (count + step - 1) / step * step; }

}  // namespace

// ---- Decoding --------------------------------------------------------------------------------

std::size_t DecodePanTilt(std::span<const std::byte> answer,
                          std::array<int, kPanTiltWords>& words) {
  WireReader reader(answer);
  std::size_t count = 0;
  for (; reader.Remaining() >= 2; ++count) {
    words[std::min(count, kPanTiltWords - 1)] = reader.I16Le();
  }
  return count;
}

// ---- Life ------------------------------------------------------------------------------------

PanTiltDevice::PanTiltDevice() {
  sensorCount_ = 1;
  totalFrameRate_ = 30;
  componentMask_ = kEulerComponent;
  pollByte_ = 'd';
  deviceType_ = static_cast<int>(DeviceName::PanTiltHead);
  SetName(DeviceName::PanTiltHead);
  for (std::size_t i = 0; i < 6; ++i) channels_[i].scale = kRadiansPerCount;
}

BootResult PanTiltDevice::Boot(int) {
  booted_ = false;
  lastModeByte_ = 0;
  due_ = 0;
  gate_.Forget();
  if (GetBaudRate() != kBaud) SetLineSettings(kBaud, 8, 0, 0, 0);
  int answer = 0;
  for (int i = 0; i < kBootTries && answer == 0 && !LineLost(); ++i) {
    answer = PanTiltDevice::QueryStatus(nullptr, 0);
  }
  if (answer == 0) return kPortNotOpen;
  booted_ = AllocateSensors(1);
  Write(&kReady, 1);
  return booted_ ? kBooted : kPortNotOpen;
}

int PanTiltDevice::QueryStatus(char* text, int size) {
  if (due_ > 0) AwaitAnswers();
  PurgeInput();
  due_ = 0;
  NoteRequest();
  Write(&pollByte_, 1);
  const RequestRow* const row = FindRequest(pollByte_);
  if (row != nullptr) WaitForRX(kPatience, static_cast<int>(row->fewest));
  WaitForRX(kExcess, kLongestAnswer);
  statusWord_ = kHeadStatus;
  const unsigned waiting = InputQueueLength();
  if (text != nullptr && size > kShortestText) {
    std::array<char, 96> line;
    std::snprintf(line.data(), line.size(), "%s%u bytes returned.",
                  row != nullptr ? row->text : "Unrecognized data request.  ", waiting);
    CopyTruncated(text, size, line.data());
  }
  const bool good = row != nullptr && waiting >= row->fewest && waiting <= row->most;
  return good ? row->result : 0;
}

// ---- Sampling --------------------------------------------------------------------------------

// After silence the head is polled again. The answer to the first poll may still come; due_ counts
// both.
unsigned PanTiltDevice::ReadFrame(double* sampleTime) {
  if (poses_.empty()) return 0;
  if (lastModeByte_ == 0) PanTiltDevice::Poll();
  const unsigned waiting = AwaitAnswers();
  lastModeByte_ = 0;
  if (waiting == 0) return 0;
  const double time = ElapsedSeconds();
  const bool whole = TakeAnswers(waiting);
  PurgeInput();
  due_ = 0;
  if (!whole) return 0;
  Pose pose = poses_[0];
  pose[3] = static_cast<float>(channels_[kPan].Value());
  pose[4] = static_cast<float>(channels_[kTilt].Value());
  MotionGate::Source source{1.0 / kFastest, 0, kRadiansPerCount};
  source.hardestAngle = kHardestTurn;
  if (!gate_.Accept(MotionGate::SampleOf(pose, 1, time), source)) {
    Post(statusLog_, StatusCode::Refused, "A record was damaged: the pose jumps.");
    TellDropped();
    return 0;
  }
  if (sampleTime != nullptr) *sampleTime = time;
  poses_[0] = pose;
  TellRecords(1, time);
  return 1;
}

// Waits for all answers that are due and returns the number of waiting bytes. If only the first
// answer were taken, every later pose would be one poll old.
unsigned PanTiltDevice::AwaitAnswers() {
  WaitForRX(kPatience, static_cast<int>(std::max(1U, due_) * answerLength_));
  const unsigned waiting = BytesInHand();
  if (waiting % answerLength_ == 0) return waiting;
  WaitForRX(kPatience, static_cast<int>(RoundedUp(waiting, answerLength_)));
  return InputQueueLength();
}

// False if the length shows that bytes were lost or added: nothing shows which words are whole. Of
// several answers the first one counts.
bool PanTiltDevice::TakeAnswers(unsigned waiting) {
  if (waiting % answerLength_ != 0 || waiting > kMostBytes) {
    AwaitSilence();
    return false;
  }
  std::array<std::byte, kMostBytes> bytes;
  if (!Read(bytes.data(), waiting)) return false;
  std::array<int, kPanTiltWords> words{};
  const std::size_t count = DecodePanTilt(std::span(bytes).first(waiting), words);
  words[kPan] = -words[kPan];
  // An answer without the encoders leaves the pose as it is.
  const std::size_t taken = answerLength_ / 2 > kTilt ? std::min(count, words.size()) : 0;
  for (std::size_t i = 0; i < taken; ++i) channels_[i].raw = words[i];
  return true;
}

// Keeps the rest of a damaged answer from being read as the start of the next one.
void PanTiltDevice::AwaitSilence() {
  for (int i = 0; i < kMostNoise; ++i) {
    PurgeInput();
    Pause(kSilence);
    if (InputQueueLength() == 0) return;
  }
}

void PanTiltDevice::Poll() {
  if (!booted_) return;
  NoteRequest();
  TrackerDevice::Poll();
}

void PanTiltDevice::NoteRequest() {
  if (const RequestRow* const row = FindRequest(pollByte_)) answerLength_ = row->answerLength;
  due_ = std::min(due_ + 1, kMostDue);
}

// ---- Stations --------------------------------------------------------------------------------

unsigned PanTiltDevice::SetSensorMask(unsigned mask, int sensorCount) {
  return TrackerDevice::SetSensorMask(MaskWithFirstSensor(mask), sensorCount);
}

// ---- Settings --------------------------------------------------------------------------------

int PanTiltDevice::SetProtocol(int protocol) {
  protocol_ = protocol;
  pollByte_ = static_cast<char>(protocol & 0xFF);
  return protocol & 0xFF;
}

unsigned PanTiltDevice::SetComponentMask(unsigned) { return componentMask_ = kEulerComponent; }

}  // namespace kinetrel
