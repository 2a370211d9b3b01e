// The InterTrax: one sensor, three angles. It resets to 1200 baud when the RTS line goes off for a
// moment. After a handshake ("c" is answered by "o", "d" by "d") it uses 38400 baud.
//
// It sends a record of 6 bytes when asked ("3"):
//   offset  size  field  unit, meaning
//   0       2     yaw    int16 LE, pi / 32767
//   2       2     pitch  int16 LE, pi / 32767, opposite sign
//   4       2     roll   int16 LE, pi / 32767, opposite sign
// A record has no start mark; only the time of its arrival shows where it begins.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "devices/motion_gate.h"
#include "devices/tracker_device.h"

namespace kinetrel {

// How far the link has been brought up.
enum class IntertraxLink : int { Resetting = 0, Reset = 1, Answered = 2, Fast = 3 };

// The result of a step of the link, which Boot returns and the engine logs.
enum class IntertraxResult : int {
  Done = 1,
  ResetRefused = -1,  // the port refused the settings
  NoFirstAnswer = -2,
  NoSecondAnswer = -3,
  SpeedRefused = -5,  // the port refused 38400 baud
};

inline constexpr std::size_t kIntertraxRecordSize = 6;

// Yaw, pitch and roll of a record, in its own units.
std::array<int, 3> DecodeIntertraxRecord(std::span<const std::byte, kIntertraxRecordSize> record);

class IntertraxDevice final : public TrackerDevice {
 public:
  IntertraxDevice();

  // ---- Life --------------------------------------------------------------------------------

  // Resets the unit, whatever its state, and brings the link up to 38400 baud.
  //
  // Returns  kBooted, also when the unit does not tell its version; an IntertraxResult below 0; 0
  //          when memory is short.
  BootResult Boot(int reset) override;

  // Asks for the version and writes the unit's text. At 38400 baud this resets the unit and sets
  // the link up again, and for half a second no frames come.
  //
  // Returns  1 answered; 0 when the link did not return to 38400 baud; an IntertraxResult below 0
  //          when the unit did not answer the first handshake; -12, -11 or -10 when its answer
  //          stopped before the first, second or third field. The text is empty on failure.
  int QueryStatus(char* text, int size) override;

  // ---- Sampling ----------------------------------------------------------------------------

  // Reads one record into sensor 0; waits up to 200 ms for it.
  //
  // Returns  1 for a record, else 0.
  unsigned ReadFrame(double* sampleTime) override;

  void Poll() override;

  // ---- Stations ----------------------------------------------------------------------------

  unsigned SetSensorMask(unsigned mask, int sensorCount) override;  // sensor 1, whatever is asked

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

  MotionGate gate_;
  IntertraxLink link_ = IntertraxLink::Reset;
  std::int64_t askedAt_ = 0;  // clock ticks just before the last request was sent
};

}  // namespace kinetrel
