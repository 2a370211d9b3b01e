// The Logitech head tracker: one sensor, position and angles, at 19200 baud.
//
// It sends a record of 16 bytes when asked ("*d"). Every byte but the first carries 7 bits, most
// significant first. Only the first byte has bit 7 set, so the start of a record is always found.
//   offset  size  field    unit, meaning
//   0       1     header   bit 7 set, bit 5 the record is not valid, bits 0-6 the buttons
//   1       3     y        signed, 0.001 inch
//   4       3     x        signed, 0.001 inch
//   7       3     z        signed, 0.001 inch, opposite direction
//   10      2     pitch    unsigned, 0.025 degrees
//   12      2     roll     unsigned, 0.025 degrees
//   14      2     yaw      unsigned, 0.025 degrees, opposite direction
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <span>

#include "devices/motion_gate.h"
#include "devices/optional_interfaces.h"
#include "devices/record_window.h"
#include "devices/tracker_device.h"

namespace kinetrel {

// How the head set is mounted, and so which way its axes point. The number is the driver's
// protocol. SetAlignment chooses the mounting by the axes.
enum class LogitechMounting : int {
  Upright = 0,
  Facing = 1,
  Turned = 2,
  Inverted = 3,
  Mirrored = 4
};

inline constexpr std::size_t kLogitechRecordSize = 16;
inline constexpr std::size_t kLogitechChannels = 6;

// The values of a record in wire order: y, x, z, pitch, roll, yaw. Ignores the header.
std::array<int, kLogitechChannels> DecodeLogitechRecord(
    std::span<const std::byte, kLogitechRecordSize> record);

// The pose in the frame of a mounting; an unknown mounting changes nothing.
Pose ApplyLogitechMounting(int mounting, const Pose& pose);

// The mounting with these X and Y axes; empty if no mounting has them.
std::optional<LogitechMounting> LogitechMountingOf(const float xAxis[3], const float yAxis[3]);

class LogitechDevice final : public TrackerDevice, public ButtonBits {
 public:
  LogitechDevice();

  // ---- Port --------------------------------------------------------------------------------

  // Opens the port at 19200 baud and ignores `baud`.
  int OpenPort(const char* name, int baud) override;

  // ---- Life --------------------------------------------------------------------------------

  // Runs the unit's self-test and puts it into demand reporting. Stops a unit that still streams
  // for an earlier program. The mounting and the offsets stay.
  //
  // Returns  kBooted; 0 if the self-test is not answered or not passed; -4 without memory.
  BootResult Boot(int reset) override;

  // Runs the self-test and writes its items, "*" for passed. Returns 1 if all passed, else 0.
  int QueryStatus(char* text, int size) override;

  // ---- Sampling ----------------------------------------------------------------------------

  // Reads one record into sensor 0.
  //
  // sampleTime  when the header was read.
  // Returns     1 for a decoded record. 0 if no record came, or if the unit marks it as not valid;
  //             the pose then stays as it was.
  unsigned ReadFrame(double* sampleTime) override;

  void Poll() override;

  // ---- Stations ----------------------------------------------------------------------------

  unsigned SetSensorMask(unsigned mask, int sensorCount) override;  // always 1: one sensor

  // ---- Settings ----------------------------------------------------------------------------

  int SetUnits(int units) override;  // 1 centimetre, 3 metre, any other inch; returns 1

  // Chooses the mounting by the directions of the reference frame's axes, in quarter turns. Returns
  // 1; 0 if no mounting has these axes: the mounting then stays as it was.
  int SetAlignment(int sensor, const float xAxis[3], const float yAxis[3]) override;

  // Both also set the offsets of the channels. Components 6 to 9 are channels that belong to no
  // component of the pose: returns false.
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
  void SetChannelOffsets();
  bool Await(std::size_t count);
  bool ReadRecord(double* sampleTime);
  bool ReadRest(double* sampleTime);
  bool KeepPose(std::span<const std::byte, kLogitechRecordSize> record, double time);

  RecordWindow window_;
  MotionGate gate_;
  Pose givenOffset_{};       // as last set, in the published frame; the base's is lost by a boot
  unsigned lastHeader_ = 0;  // low 7 bits of the first byte of the last record
  bool strayInput_ = false;  // the rest of a failed record may still come
};

}  // namespace kinetrel
