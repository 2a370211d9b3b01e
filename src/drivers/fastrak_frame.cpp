// Sampling of the FASTRAK family: bytes to pose records.
//
// Two reads of the port make a record: its head, which is also when the sample was taken, and all
// the rest. Whatever is wrong with a record, only its head is dropped; the bytes after it are
// looked through for the head of the next one.
#include <algorithm>
#include <array>

#include "devices/station_mask.h"
#include "drivers/fastrak_device.h"

namespace kinetrel {
namespace {

constexpr std::byte kHeadByte{'0'};
constexpr int kReadCode = -1;  // of what is posted about a record

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
  outOfStep_ = false;
  unsigned read = 0;
  for (int station = 0; station < sensorCount_; ++station) {
    if (HasStation(sensorMask_, station) && ReadStation(station, sampleTime)) {
      read |= StationBit(station);
    }
  }
  if (lastModeByte_ == pollByte_) lastModeByte_ = 0;
  return outOfStep_ ? ~0U : read;
}

void FastrakDevice::Poll() {
  if (booted_) {
    PurgeInput();
    window_.Clear();
  }
  TrackerDevice::Poll();
}

bool FastrakDevice::ReadStation(int station, double*& sampleTime) {
  if (!FindHead(station)) return false;
  if (sampleTime != nullptr) *sampleTime = ElapsedSeconds();
  sampleTime = nullptr;  // one for the frame: the first
  const bool good = ReadRest(station) && !CutByAnother(station) && Decode(station);
  window_.Drop(good ? layout_.Size() : kFastrakHeadSize);
  return good;
}

// ---- Head ----------------------------------------------------------------------------------

bool FastrakDevice::FindHead(int station) {
  for (int attempt = 0; attempt <= frameLength_; ++attempt) {
    if (!window_.Want(*this, 2)) return PostNoHead();
    const auto bytes = window_.bytes();
    if (bytes[0] == kHeadByte && bytes[1] == StationDigit(station)) return true;
    const int other = StationAhead();
    // This station's record was lost: waiting for its next one would lose all in between.
    if (HasStation(sensorMask_, other)) return PostNoHead();
    window_.Drop(SizeToSkip(other));
  }
  Post(statusLog_, kReadCode, "Read Head failed.  Record Length too long %d/%d.", frameLength_ + 2,
       frameLength_);
  return false;
}

bool FastrakDevice::PostNoHead() const {
  const auto found = static_cast<int>(std::min<std::size_t>(window_.size(), 1));
  Post(statusLog_, kReadCode, "Read Head failed.  %d/2.", found);
  return false;
}

// The record of a station that is not sampled is skipped whole: an InterSense unit sends of every
// sensor that is plugged in. Else until where a head may begin.
std::size_t FastrakDevice::SizeToSkip(int other) {
  if (other >= 0 && window_.Want(*this, layout_.Size())) return layout_.Size();
  return window_.bytes()[1] == kHeadByte ? 1 : 2;
}

// The station whose whole head is next; -1 for none.
int FastrakDevice::StationAhead() {
  if (window_.bytes()[0] != kHeadByte || !window_.Want(*this, kFastrakHeadSize)) return -1;
  const auto head = window_.bytes().first(kFastrakHeadSize);
  return BeginsLikeHead(head) ? StationOf(head[1]) : -1;
}

// Whether bytes, three or the fewer that there are, are the first of a head as it would be now.
bool FastrakDevice::BeginsLikeHead(std::span<const std::byte> bytes) const {
  if (bytes[0] != kHeadByte) return false;
  if (bytes.size() < 2) return true;
  const int station = StationOf(bytes[1]);
  if (station < 0 || station >= sensorCount_) return false;
  const int error = lastErrorCode_[static_cast<std::size_t>(station)];
  return bytes.size() < kFastrakHeadSize || bytes[2] == ErrorByte(error);
}

// Says when a station's error comes, changes and goes; nobody needs to hear it with every record.
void FastrakDevice::NoteBitError(int station, int code) {
  if (statusLog_ == nullptr) return;
  int& last = lastErrorCode_[static_cast<std::size_t>(station)];
  int& run = errorRunCount_[static_cast<std::size_t>(station)];
  if (code == last) {
    ++run;
    return;
  }
  if (code == 0) {
    Post(statusLog_, 0, "Sensor %d: No Errors.  (after %d error samples)", station + 1, run);
  } else {
    Post(statusLog_, -code, "Sensor %d: Error #%d: %s (after %d valid samples)", station + 1, code,
         BitErrorText(code), run);
  }
  last = code;
  run = 1;
}

// ---- Rest ----------------------------------------------------------------------------------

// A pause is no end yet: a busy machine or a USB adapter hands a record over in pieces.
bool FastrakDevice::ReadRest(int station) {
  const bool whole = window_.Want(*this, layout_.Size()) || window_.Want(*this, layout_.Size());
  if (window_.size() < kFastrakHeadSize) {
    Post(statusLog_, kReadCode, "Read Head failed.");
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
    Post(statusLog_, kReadCode, "Read Tail Failed.  Serial read error.");
  } else if (layout_.format == FastrakFormat::Bits32) {
    Post(statusLog_, kReadCode, "read_32 failed: %d. %u/4", window_.readFailed() ? 0 : 1, got % 4);
  } else if (layout_.format == FastrakFormat::Bits14) {
    Post(statusLog_, kReadCode, "Read Record failed in serial port read %u/%u.", got, whole);
  }
}

// Without CR LF nothing tells that bytes of this record were lost, and that it goes on with the
// next one's: it would be a pose out of nowhere. So when it seems to hold another head, there must
// be a head right behind it too; only then the likeness was chance.
bool FastrakDevice::CutByAnother(int station) {
  if (layout_.crLf || (lastModeByte_ == pollByte_ && IsLast(station)) || !HoldsHead()) return false;
  const std::size_t end = layout_.Size();
  if (!window_.Want(*this, end + 2)) return false;  // silence: nothing can have cut it
  if (BeginsLikeHead(window_.bytes().subspan(end, 2))) return false;
  Post(statusLog_, kReadCode, "Read Record failed.  Another one begins in it.");
  return true;
}

bool FastrakDevice::IsLast(int station) const {
  return (sensorMask_ & FirstStations(sensorCount_) & ~FirstStations(station + 1)) == 0;
}

// The last byte of a float is that of a head for values next to 0 only; the last byte of an
// integer for one in 256, and each of those would be held back until the next record comes.
bool FastrakDevice::HoldsHead() const {
  const std::size_t least = layout_.format == FastrakFormat::Bits32 ? 1 : 2;
  auto rest = window_.bytes().subspan(kFastrakHeadSize, layout_.BodySize());
  for (; rest.size() >= least; rest = rest.subspan(1)) {
    if (BeginsLikeHead(rest.first(std::min(rest.size(), kFastrakHeadSize)))) return true;
  }
  return false;
}

bool FastrakDevice::Decode(int station) {
  const auto body = window_.bytes().subspan(kFastrakHeadSize, layout_.BodySize());
  if (!FastrakInStep(layout_, body)) {
    PostOutOfStep();
    outOfStep_ = true;
    return false;
  }
  if (layout_.crLf && !TailIsRight()) return false;
  const auto index = static_cast<std::size_t>(station);
  const int values = DecodeFastrakBody(layout_, body, units_, channels_, offsets_[index],
                                       poses_[index], quaternions_[index]);
  if ((values & 0xFF) == layout_.ValueCount()) return true;
  Post(statusLog_, kReadCode, "read_32 failed: not a number.");
  return false;
}

void FastrakDevice::PostOutOfStep() const {
  std::array<char, 32> bits{};
  std::size_t count = 0;
  for (const std::byte byte : window_.bytes().subspan(kFastrakHeadSize, layout_.BodySize())) {
    bits[count++] = (byte & std::byte{0x80}) != std::byte{0} ? '1' : '0';
  }
  Post(statusLog_, kReadCode, "Syc bit invalid in 14 bit read. %s", bits.data());
}

bool FastrakDevice::TailIsRight() const {
  const auto tail = window_.bytes().subspan(layout_.Size() - kFastrakTailSize, kFastrakTailSize);
  if (tail[0] == std::byte{'\r'} && tail[1] == std::byte{'\n'}) return true;
  Post(statusLog_, kReadCode, "Read tail: Tail != 0x0A0D.");
  return false;
}

}  // namespace kinetrel
