// Fakespace pan-tilt head: it answers a request of one byte with its encoders, at 9600 baud.
//
// An answer is a row of signed 16-bit words, low byte first:
//   offset  word  meaning
//   0       0-3   not used
//   8       4     pan, 4000 counts a turn; azimuth is minus this
//   10      5     tilt, 4000 counts a turn; elevation
//   12      6     not used; in an answer of all data only
// Nothing marks the start of an answer. Only its length shows whether it is whole.
#pragma once

#include <array>
#include <cstddef>
#include <span>

#include "devices/motion_gate.h"
#include "devices/tracker_device.h"

namespace kinetrel {

inline constexpr std::size_t kPanTiltWords = 10;

// Stores the words of `answer` in turn. Words beyond the last place overwrite the last one; half a
// word is not stored. Returns the number of whole words in the answer.
std::size_t DecodePanTilt(std::span<const std::byte> answer, std::array<int, kPanTiltWords>& words);

// The protocol is the request byte: 'd' encoders only (an answer of 12 bytes), 'b' all data (14),
// 'a' alternate data only (2), which does not include the encoders.
class PanTiltDevice final : public TrackerDevice {
 public:
  PanTiltDevice();

  // Sets the line to 9600 baud and asks until an answer has the right length, at most three times.
  //
  // Returns  kBooted; 0 if no answer had the right length, or without memory.
  BootResult Boot(int reset) override;

  // Sends the request and judges the answer by its length. The answer stays in the port for the
  // next frame.
  //
  // text     set if `size` is above 32.
  // Returns  1 encoders only, 2 alternate data, 3 all data; 0 for any other answer.
  int QueryStatus(char* text, int size) override;

  // Reads the answer to the poll and sets azimuth and elevation of sensor 0. Polls first if no
  // answer is on its way.
  //
  // Returns  1, also for alternate data, which leave the pose as it is; 0 if nothing came within
  //          100 ms or the length is wrong.
  unsigned ReadFrame(double* sampleTime) override;

  void Poll() override;

  // A mask without sensor 1 becomes sensor 1, and the console says so.
  unsigned SetSensorMask(unsigned mask, int sensorCount) override;

  // The low byte becomes the request byte, from the next poll on. Returns that byte.
  int SetProtocol(int protocol) override;

  unsigned SetComponentMask(unsigned mask) override;  // always angles only

 private:
  void NoteRequest();
  unsigned AwaitAnswers();
  bool TakeAnswers(unsigned waiting);
  void AwaitSilence();

  unsigned answerLength_ = 12;  // bytes, of the answer to the last request
  unsigned due_ = 0;            // requests whose answers have not been read
  MotionGate gate_;
};

}  // namespace kinetrel
