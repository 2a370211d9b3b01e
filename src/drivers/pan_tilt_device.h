// Fakespace pan-tilt head: it answers a request of one byte with its encoders, at 9600 baud.
//
// An answer is a row of 16-bit words, signed, low byte first:
//   offset  word  meaning
//   0       0-3   not ours to know
//   8       4     pan, 4000 counts a turn; azimuth is minus this
//   10      5     tilt, 4000 counts a turn; elevation
//   12      6     with all data only; not ours to know
// Nothing in an answer marks its start, so its length is all that tells a whole one.
#pragma once

#include <array>
#include <cstddef>
#include <span>

#include "devices/tracker_device.h"

namespace kinetrel {

inline constexpr std::size_t kPanTiltWords = 10;

// Walks over the words of `answer` and stores them in turn; those beyond the last place all land
// there, half a word nowhere. Returns how many words there were.
std::size_t DecodePanTilt(std::span<const std::byte> answer, std::array<int, kPanTiltWords>& words);

// The protocol is the request byte: 'd' encoders only (12 bytes come back), 'b' all data (14),
// 'a' alternate data only (2), in which the encoders are not.
class PanTiltDevice final : public TrackerDevice {
 public:
  PanTiltDevice();

  // Sets the line to 9600 baud and asks until an answer has the right length, three times at most.
  //
  // Returns  kBooted; 0 when none had, or without memory.
  BootResult Boot(int reset) override;

  // Sends the request and judges the answer by its length; the answer stays in the port, for the
  // next frame.
  //
  // text     set when `size` is above 32.
  // Returns  1 encoders only, 2 alternate data, 3 all data; 0 for anything else.
  int QueryStatus(char* text, int size) override;

  // Reads the answer to the poll, or polls first when none is on its way, and sets azimuth and
  // elevation of sensor 0.
  //
  // Returns  1, also for alternate data, which leave the pose as it is; 0 when nothing came within
  //          100 ms or its length is wrong.
  unsigned ReadFrame(double* sampleTime) override;

  void Poll() override;

  // The low byte becomes the request byte, from the next poll on. Returns that byte.
  int SetProtocol(int protocol) override;

  unsigned SetComponentMask(unsigned mask) override;  // always angles only

 private:
  void NoteRequest();
  unsigned AwaitAnswers();
  bool TakeAnswers(unsigned waiting);
  void AwaitSilence();

  unsigned answerLength_ = 12;  // bytes; to the request last sent
  unsigned due_ = 0;            // requests whose answers were not read
};

}  // namespace kinetrel
