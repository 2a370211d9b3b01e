// A simulated tracker for runs and tests without hardware. 31 sensors follow fixed paths; the
// operator steers the sensor of index 3 from the console keyboard.
//
// Paths    sensor i runs around a tilted circle of radius 0.8 m x (1, 3, 9, 27)[i mod 4] at 15
//          degrees a second, i radians ahead of sensor 0. It looks along the path and rolls slowly.
// Keys     arrow and page keys move the steered sensor; with Ctrl they turn it. + - and [ ] change
//          the steps; Tab and Ctrl+Tab change by how much. x y z a e r v open a line editor for one
//          component or for the whole pose: x,y,z;yaw,pitch,roll in degrees.
//          The device reads keys while the steered sensor is in the sensor mask. It hands ESC and
//          'O' on to the console loop.
// Pace     about 60 frames a second: ReadFrame ends with a sleep of 16 ms.
#pragma once

#include <optional>

#include "devices/tracker_device.h"
#include "platform/console.h"
#include "platform/timer.h"

namespace kinetrel {

class KeyboardDevice final : public TrackerDevice {
 public:
  static constexpr int kSteeredSensor = 3;

  // The fields of the line editor; 1 to 6 are the components 0 to 5 of the pose.
  enum class Field : int { None, X, Y, Z, Yaw, Pitch, Roll, Vector };

  KeyboardDevice();
  ~KeyboardDevice() override;

  // ---- Port --------------------------------------------------------------------------------

  // Both ignore the arguments and open the simulated port.
  int OpenPort(const char* name, int baud) override;
  int OpenPortNumber(int number, int baud) override;

  // ---- Life --------------------------------------------------------------------------------

  BootResult Boot(int reset) override;

  // Leaves `text` unchanged and returns nonzero.
  int QueryStatus(char* text, int size) override;

  // ---- Sampling ----------------------------------------------------------------------------

  // Moves every active sensor on by one frame, acts on at most one key, and sleeps for the frame.
  //
  // sampleTime  the time after the sleep.
  // Returns     the active sensors; the steered one only if a key was acted upon.
  // Memory      allocates nothing. Prints after a key if the output takes the line at once.
  unsigned ReadFrame(double* sampleTime) override;

  void Poll() override;             // does nothing: frames need no request
  void StartContinuous() override;  // does nothing

  // ---- Stations ----------------------------------------------------------------------------

  // sensorCount  only so many low bits of the mask count; 0: one for each sensor.
  unsigned SetSensorMask(unsigned mask, int sensorCount) override;

  // ---- Settings ----------------------------------------------------------------------------

  // Bit 15 of the result is set while the steered sensor is active, whatever `mask` says.
  unsigned SetComponentMask(unsigned mask) override;

  // ---- Keys --------------------------------------------------------------------------------

  // Reads a key of the console, if one waits, and acts on it. True for a known key.
  //
  // The first call moves the steered sensor to its offset position. A later change of the offset
  // does not move it.
  // Threads  sampling thread.
  bool HandleKeys();

  // Passes a key to the line editor. Opens the field with an empty text if another one was open.
  //
  // key      0 only shows the line. Backspace, Enter, digits, '.' and '-' edit it; for the whole
  //          pose also ',' and ';'.
  // Returns  false for an unknown field or key.
  // Threads  sampling thread.
  bool EnterValue(Field field, int key);

 private:
  void FollowPath(int sensor, double unitsPerMetre);
  void ApplySteeredOffset();
  bool HandleExtendedKey(int code);
  bool HandleCharacter(int code);
  bool StepKey(int code);
  void PrintStatusLine() const;
  bool StoreEntry(const char* text);
  void StoreComponent(const char* text);
  void StoreVector(const char* text);
  Pose& SteeredPose() { return poses_[kSteeredSensor]; }

  void ClaimKeys();

  TimerResolution resolution_;
  std::optional<KeyClaim> claim_;  // while the steered sensor is active
  bool applyOffsetPending_ = true;
  unsigned frameCounter_ = 0;
  float positionStep_ = 1.0F;  // in the configured length unit
  float angleStep_ = 0.1F;     // radians
  float stepFactor_ = 0.1F;    // relative change of a step by its keys
  Field entryField_ = Field::None;
};

}  // namespace kinetrel
