// The InterTrax: one sensor, three angles. It wakes at 1200 baud when the RTS line has been off for
// a moment, shakes hands ("c" is answered by "o", "d" by "d") and then talks at 38400 baud.
//
// It sends a record of 6 bytes when asked ("3"):
//   offset  size  field  unit, meaning
//   0       2     yaw    int16 LE, pi / 32767
//   2       2     pitch  int16 LE, pi / 32767, counts the other way
//   4       2     roll   int16 LE, pi / 32767, counts the other way
// Nothing marks its start: only when its bytes come tells.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "devices/tracker_device.h"

namespace kinetrel {

// How far the link has been brought up.
enum class IntertraxLink : int { Resetting = 0, Reset = 1, Answered = 2, Fast = 3 };

// What a step of the link came to; the codes that Boot returns and the engine logs.
enum class IntertraxResult : int {
  Done = 1,
  ResetRefused = -1,  // the port took no settings
  NoFirstAnswer = -2,
  NoSecondAnswer = -3,
  SpeedRefused = -5,  // the port does not run at 38400 baud
};

inline constexpr std::size_t kIntertraxRecordSize = 6;

// Yaw, pitch and roll of a record, in its own units.
std::array<int, 3> DecodeIntertraxRecord(std::span<const std::byte, kIntertraxRecordSize> record);

class IntertraxDevice final : public TrackerDevice {
 public:
  IntertraxDevice();

  // ---- Life --------------------------------------------------------------------------------

  // Resets the unit and brings the link up to 38400 baud. Whatever the unit was doing before, the
  // reset ends it.
  //
  // Returns  kBooted; an IntertraxResult below 0; 0 without memory. A unit that does not tell its
  //          version boots all the same.
  BootResult Boot(int reset) override;

  // Asks for the version and writes what the unit says of it. At 38400 baud that means a reset, and
  // the way up again afterwards: half a second in which no frames come.
  //
  // Returns  1 asked; 0 when the link did not come up to 38400 baud again; an IntertraxResult
  //          below 0 when the unit did not answer the first handshake; -12, -11 or -10 when its
  //          answer stopped before the first, second or third field. The text is empty then.
  int QueryStatus(char* text, int size) override;

  // ---- Sampling ----------------------------------------------------------------------------

  // Reads one record into sensor 0, for which it waits up to 200 ms.
  //
  // Returns  1 for a record, else 0.
  unsigned ReadFrame(double* sampleTime) override;

  void Poll() override;

  // ---- Settings ----------------------------------------------------------------------------

  unsigned SetComponentMask(unsigned mask) override;  // stays 2: angles only

  // ---- Link --------------------------------------------------------------------------------

  IntertraxLink link() const { return link_; }

 private:
  bool SetLine(int baud, unsigned rts);
  void SetTimeouts();
  bool Exchange(char ask, char expected);
  bool Fail(IntertraxResult result);
  bool Succeed();
  bool ResetUnit();
  bool ShakeHands();
  bool SpeedUp();
  int AskVersion(char* text, int size);
  bool ReadField();
  bool AwaitRecord();

  IntertraxLink link_ = IntertraxLink::Reset;
  std::int64_t askedAt_ = 0;  // clock ticks, before the last request went out
};

}  // namespace kinetrel
