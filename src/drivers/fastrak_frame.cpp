// Sampling of the FASTRAK family: bytes to pose records.
//
// A record is read in two steps: its head, whose arrival is the sample time, and the rest. Of a bad
// record only the head is dropped; the bytes after it are searched for the next head.
#include <algorithm>
#include <array>
#include <bit>
#include <cmath>

#include "drivers/fastrak_device.h"

namespace kinetrel {
namespace {

constexpr std::byte kHeadByte{'0'};
constexpr StatusCode kBadRecord = StatusCode::Refused;

std::byte StationDigit(int station) { return static_cast<std::byte>('1' + station); }

int StationOf(std::byte digit) { return std::to_integer<int>(digit) - '1'; }

std::byte ErrorByte(int code) { return static_cast<std::byte>(code == 0 ? ' ' : code); }

int ErrorCode(std::byte byte) { return byte == std::byte{' '} ? 0 : std::to_integer<int>(byte); }

}  // namespace

unsigned FastrakDevice::ReadFrame(double* sampleTime) {
  constexpr int kPollMs = 200;
  if (!booted_) return 0;
  if (lastModeByte_ == 0) Poll();
  if (lastModeByte_ == pollByte_) WaitForRX(kPollMs, static_cast<int>(kFastrakHeadSize));
  if (IsStreaming() &&
      backlog_.DropOld(*this, window_, {deviceName_, layout_.Size(), totalFrameRate_},
                       statusLog_)) {
    for (MotionGate& gate : gates_) gate.Forget();  // the sensors went on meanwhile
  }
  outOfStep_ = false;
  heldBack_ = false;
  unsigned read = ReadStations(sampleTime);
  // The next record tells whether the one held back was damaged.
  if (read == 0 && heldBack_ && IsStreaming()) read = ReadStations(sampleTime);
  if (lastModeByte_ == pollByte_) lastModeByte_ = 0;
  return outOfStep_ ? ~0U : read;
}

unsigned FastrakDevice::ReadStations(double* sampleTime) {
  unsigned read = 0;
  for (int station = 0; station < sensorCount_; ++station) {
    if (HasStation(sensorMask_, station) && ReadStation(station, sampleTime)) {
      read |= StationBit(station);
    }
  }
  return read;
}

void FastrakDevice::Poll() {
  AwaitQuiet();
  if (booted_) {
    PurgeInput();
    window_.Clear();
  }
  TrackerDevice::Poll();
}

void FastrakDevice::StartContinuous() {
  AwaitQuiet();
  if (booted_) {
    PurgeInput();
    window_.Clear();
  }
  for (MotionGate& gate : gates_) gate.Forget();
  TrackerDevice::StartContinuous();
}

bool FastrakDevice::ReadStation(int station, double*& sampleTime) {
  if (!FindHead(station)) return false;
  const double headTime = ElapsedSeconds();
  if (sampleTime != nullptr) *sampleTime = headTime;
  sampleTime = nullptr;  // the frame has one time: of its first record
  Reading reading;
  const bool whole =
      ReadRest(station) && !IsCutByAnother(station) && Decode(station, headTime, reading);
  const bool good = whole && Keep(station, reading);
  if (good) {
    TellRecords(StationBit(station), headTime, lastErrorCode_[static_cast<std::size_t>(station)]);
  } else {
    TellDropped();
  }
  window_.Drop(whole ? layout_.Size() : kFastrakHeadSize);
  return good;
}

// ---- Head ----------------------------------------------------------------------------------

bool FastrakDevice::FindHead(int station) {
  for (int attempt = 0; attempt <= frameLength_; ++attempt) {
    const bool two = window_.Want(*this, 2);
    const auto bytes = window_.bytes();
    if (two && bytes[0] == kHeadByte && bytes[1] == StationDigit(station)) return true;
    const int other = two ? StationAhead() : -1;
    // This station's record was lost. Waiting for its next one would lose the records in between.
    if (!two || HasStation(sensorMask_, other)) {
      PostNoHead();
      return false;
    }
    window_.Drop(SizeToSkip(other));
  }
  Post(statusLog_, kBadRecord, "Read Head failed.  Record Length too long %d/%d.", frameLength_ + 2,
       frameLength_);
  return false;
}

void FastrakDevice::PostNoHead() const {
  const auto found = static_cast<int>(std::min<std::size_t>(window_.size(), 1));
  Post(statusLog_, kBadRecord, "Read Head failed.  %d/2.", found);
}

// The record of a station that is not sampled is skipped whole: an InterSense unit sends records of
// all sensors plugged in. Otherwise skips to the next byte that may begin a head.
std::size_t FastrakDevice::SizeToSkip(int other) {
  if (other >= 0 && window_.Want(*this, layout_.Size())) return layout_.Size();
  return window_.bytes()[1] == kHeadByte ? 1 : 2;
}

// The station whose whole head comes next; -1 if no head comes next.
int FastrakDevice::StationAhead() {
  if (window_.bytes()[0] != kHeadByte || !window_.Want(*this, kFastrakHeadSize)) return -1;
  const auto head = window_.bytes().first(kFastrakHeadSize);
  return BeginsLikeHead(head) ? StationOf(head[1]) : -1;
}

// Whether `bytes`, of which at most three are looked at, begin like a head with the station's
// present error code.
bool FastrakDevice::BeginsLikeHead(std::span<const std::byte> bytes) const {
  if (bytes[0] != kHeadByte) return false;
  if (bytes.size() < 2) return true;
  const int station = StationOf(bytes[1]);
  if (station < 0 || station >= sensorCount_) return false;
  const int error = lastErrorCode_[static_cast<std::size_t>(station)];
  return bytes.size() < kFastrakHeadSize || bytes[2] == ErrorByte(error);
}

// Posts when a station's error comes, changes and goes, not with every record.
void FastrakDevice::NoteBitError(int station, int code) {
  if (statusLog_ == nullptr) return;
  int& last = lastErrorCode_[static_cast<std::size_t>(station)];
  int& run = errorRunCount_[static_cast<std::size_t>(station)];
  if (code == last) {
    ++run;
    return;
  }
  if (code == 0) {
    Post(statusLog_, StatusCode::Report, "Sensor %d: No Errors.  (after %d error samples)",
         station + 1, run);
  } else {
    Post(statusLog_, StatusCode{-code}, "Sensor %d: Error #%d: %s (after %d valid samples)",
         station + 1, code, BitErrorText(code), run);
  }
  last = code;
  run = 1;
}

// ---- Rest ----------------------------------------------------------------------------------

// Waits twice, because a busy machine or a USB adapter may deliver a record in pieces.
bool FastrakDevice::ReadRest(int station) {
  const bool whole = window_.Want(*this, layout_.Size()) || window_.Want(*this, layout_.Size());
  if (window_.size() < kFastrakHeadSize) {
    Post(statusLog_, kBadRecord, "Read Head failed.");
    return false;
  }
  if (const std::byte error = window_.bytes()[2];
      error < std::byte{' '} || error > std::byte{'~'}) {
    Post(statusLog_, kBadRecord, "Read Head failed.  There is no error code %d.",
         std::to_integer<int>(error));
    return false;
  }
  NoteBitError(station, ErrorCode(window_.bytes()[2]));
  if (!whole) PostShortRecord();
  return whole;
}

void FastrakDevice::PostShortRecord() const {
  const auto got = static_cast<unsigned>(window_.size() - kFastrakHeadSize);
  const auto whole = static_cast<unsigned>(layout_.BodySize());
  if (got >= whole) {
    Post(statusLog_, kBadRecord, "Read Tail Failed.  Serial read error.");
  } else if (layout_.format == FastrakFormat::Bits32) {
    Post(statusLog_, kBadRecord, "read_32 failed: %d. %u/4", window_.readFailed() ? 0 : 1, got % 4);
  } else if (layout_.format == FastrakFormat::Bits14) {
    Post(statusLog_, kBadRecord, "Read Record failed in serial port read %u/%u.", got, whole);
  }
}

// Without CR LF nothing marks the end of a record, so a record that lost bytes goes on with those
// of the next one. If a head seems to begin inside it, a head must also follow right behind it;
// then the likeness was chance.
bool FastrakDevice::IsCutByAnother(int station) {
  if (layout_.crLf || (lastModeByte_ == pollByte_ && IsLastActive(station)) || !HoldsHead())
    return false;
  const std::size_t end = layout_.Size();
  if (!window_.Want(*this, end + 2)) return false;  // silence: no other record cut it
  if (BeginsLikeHead(window_.bytes().subspan(end, 2))) return false;
  Post(statusLog_, kBadRecord, "Read Record failed.  Another one begins in it.");
  return true;
}

bool FastrakDevice::IsLastActive(int station) const {
  return (sensorMask_ & FirstStations(sensorCount_) & ~FirstStations(station + 1)) == 0;
}

// The last byte of a float equals a head's first byte only for values next to 0. The last byte of
// an integer does once in 256 values, and each would wait for the next record; so it is left out.
bool FastrakDevice::HoldsHead() const {
  const std::size_t least = layout_.format == FastrakFormat::Bits32 ? 1 : 2;
  auto rest = window_.bytes().subspan(kFastrakHeadSize, layout_.BodySize());
  for (; rest.size() >= least; rest = rest.subspan(1)) {
    if (BeginsLikeHead(rest.first(std::min(rest.size(), kFastrakHeadSize)))) return true;
  }
  return false;
}

bool FastrakDevice::Decode(int station, double time, Reading& reading) {
  const auto body = window_.bytes().subspan(kFastrakHeadSize, layout_.BodySize());
  if (!IsFastrakInStep(layout_, body)) {
    PostOutOfStep();
    outOfStep_ = true;
    return false;
  }
  if (layout_.crLf && !HasTail()) return false;
  const auto index = static_cast<std::size_t>(station);
  reading = {poses_[index], quaternions_[index], time};
  const int values = DecodeFastrakBody(layout_, body, units_, channels_, offsets_[index],
                                       reading.pose, reading.quaternion);
  if ((values & 0xFF) == layout_.ValueCount()) return true;
  Post(statusLog_, kBadRecord, "read_32 failed: not a number.");
  return false;
}

// False for a record that was probably damaged: its values have no checksum.
bool FastrakDevice::Keep(int station, const Reading& reading) {
  const auto index = static_cast<std::size_t>(station);
  if ((layout_.components & kQuaternionComponent) != 0 && !IsUnit(reading.quaternion)) {
    Post(statusLog_, kBadRecord, "Read Record failed.  The quaternion has not unit length.");
    return false;
  }
  if (!gates_[index].Accept(SampleOf(reading), SourceOfRecords())) {
    Post(statusLog_, kBadRecord, "Read Record failed.  The pose of sensor %d jumps.", station + 1);
    heldBack_ = true;
    return false;
  }
  poses_[index] = reading.pose;
  quaternions_[index] = reading.quaternion;
  return true;
}

MotionGate::Sample FastrakDevice::SampleOf(const Reading& reading) const {
  MotionGate::Sample sample;
  sample.time = reading.time;
  if ((layout_.components & kPositionComponent) != 0) {
    const float centimetres = units_ == 0 ? 2.54F : (units_ & 2) != 0 ? 100.0F : 1.0F;
    for (std::size_t i = 0; i < 3; ++i) sample.position[i] = reading.pose[i] * centimetres;
  }
  if ((layout_.components & kQuaternionComponent) != 0) {
    sample.rotation = reading.quaternion;
  } else if ((layout_.components & kEulerComponent) != 0) {
    sample.rotation = EulerToQuaternion(&reading.pose[3]);
  }
  return sample;
}

MotionGate::Source FastrakDevice::SourceOfRecords() const {
  constexpr double kRange = 300;  // cm
  constexpr double kSteps14 = 1.0 / 8192;
  constexpr double kSteps16 = 1.0 / 32768;
  const int active = std::max(std::popcount(sensorMask_ & FirstStations(sensorCount_)), 1);
  const double resolution = layout_.format == FastrakFormat::Bits14   ? kSteps14
                            : layout_.format == FastrakFormat::Bits16 ? kSteps16
                                                                      : 0;
  return {static_cast<double>(active) / totalFrameRate_, resolution * kRange, resolution * kPi};
}

void FastrakDevice::PostOutOfStep() const {
  std::array<char, 32> bits{};
  std::size_t count = 0;
  for (const std::byte byte : window_.bytes().subspan(kFastrakHeadSize, layout_.BodySize())) {
    bits[count++] = (byte & std::byte{0x80}) != std::byte{0} ? '1' : '0';
  }
  Post(statusLog_, kBadRecord, "Syc bit invalid in 14 bit read. %s", bits.data());
}

bool FastrakDevice::HasTail() const {
  const auto tail = window_.bytes().subspan(layout_.Size() - kFastrakTailSize, kFastrakTailSize);
  if (tail[0] == std::byte{'\r'} && tail[1] == std::byte{'\n'}) return true;
  Post(statusLog_, kBadRecord, "Read tail: Tail != 0x0A0D.");
  return false;
}

}  // namespace kinetrel
