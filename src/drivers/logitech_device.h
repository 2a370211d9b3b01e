// The Logitech head tracker: one sensor, position and angles, at 19200 baud.
//
// It sends a record of 16 bytes when asked ("*d"). Every byte but the first carries 7 bits, the
// most significant first; only the first has bit 7 set, so the start of a record shows anywhere.
//   offset  size  field    unit, meaning
//   0       1     header   bit 7 set, bit 5 the record is not valid, bits 0-6 the buttons
//   1       3     y        signed, 0.001 inch
//   4       3     x        signed, 0.001 inch
//   7       3     z        signed, 0.001 inch, counts the other way
//   10      2     pitch    0.025 degrees, 0 and up
//   12      2     roll     0.025 degrees, 0 and up
//   14      2     yaw      0.025 degrees, 0 and up, counts the other way
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <span>

#include "devices/button_bits.h"
#include "devices/record_window.h"
#include "devices/tracker_device.h"

namespace kinetrel {

// How the head set sits on the head, and so which way its axes point: its number is the driver's
// protocol. SetAlignment chooses it by the axes.
enum class LogitechMounting : int {
  Upright = 0,
  Facing = 1,
  Turned = 2,
  Inverted = 3,
  Mirrored = 4
};

inline constexpr std::size_t kLogitechRecordSize = 16;
inline constexpr std::size_t kLogitechChannels = 6;

// The values of a record in wire order: y, x, z, pitch, roll, yaw. The header is not looked at.
std::array<int, kLogitechChannels> DecodeLogitechRecord(
    std::span<const std::byte, kLogitechRecordSize> record);

// The pose in the frame of a mounting; a number that is no mounting changes nothing.
Pose ApplyLogitechMounting(int mounting, const Pose& pose);

// The mounting whose X and Y axes these are; nothing where they are no pair of a mounting.
std::optional<LogitechMounting> LogitechMountingOf(const float xAxis[3], const float yAxis[3]);

class LogitechDevice final : public TrackerDevice, public ButtonBits {
 public:
  LogitechDevice();

  // ---- Port --------------------------------------------------------------------------------

  // The unit has one baud rate: 19200, whatever is asked for.
  int OpenPort(const char* name, int baud) override;

  // ---- Life --------------------------------------------------------------------------------

  // Runs the unit's self-test and puts it into demand reporting. One that still streams from an
  // earlier run is silenced first. The mounting and the offsets of the channels stay.
  //
  // Returns  kBooted; 0 when the self-test is not answered or not passed; -4 without memory.
  BootResult Boot(int reset) override;

  // Runs the self-test and writes its items, "*" for passed. Returns 1 when all passed, else 0.
  int QueryStatus(char* text, int size) override;

  // ---- Sampling ----------------------------------------------------------------------------

  // Reads one record into sensor 0.
  //
  // sampleTime  when the header was in hand.
  // Returns     1 for a decoded record. 0 for none, or for one that the unit marks as not valid:
  //             the pose is then as it was.
  unsigned ReadFrame(double* sampleTime) override;

  void Poll() override;

  // ---- Stations ----------------------------------------------------------------------------

  unsigned SetSensorMask(unsigned mask, int sensorCount) override;  // stays 1: one sensor

  // ---- Settings ----------------------------------------------------------------------------

  int SetUnits(int units) override;  // 1 centimetre, 3 metre, any other inch; returns 1

  // Chooses the mounting by where the reference frame's axes lie, in quarter turns. Returns 1; 0
  // when no mounting has these axes, which leaves it as it was.
  int SetAlignment(int sensor, const float xAxis[3], const float yAxis[3]) override;

  // Both also shift what is read. Components 6 to 9 are channels without a component: false.
  bool SetSensorOffsetComponent(int sensor, unsigned component, double value) override;
  bool SetSensorOffset(int sensor, const float pose[6]) override;

  // ---- Buttons -----------------------------------------------------------------------------

  Buttons OwnButtons() const override;

 private:
  std::optional<unsigned> RunSelfTest();
  bool PassesSelfTest();
  void Silence();
  void ReadInformation();
  void SetTimeouts();
  bool Await(std::size_t count);
  bool ReadRecord(double* sampleTime);
  bool ReadRest(double* sampleTime);
  void KeepPose(std::span<const std::byte, kLogitechRecordSize> record);

  RecordWindow window_;
  unsigned lastHeader_ = 0;  // low 7 bits of the first byte of the last record
  bool strayInput_ = false;  // the rest of a record that failed may still come
};

}  // namespace kinetrel
