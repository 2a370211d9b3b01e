// A tracker without hardware, to run and test the whole chain with: 32 sensors on fixed paths,
// except the sensor of index 3, which the operator steers from the console keyboard.
//
// Paths    sensor i runs around a circle of radius 0.8 m x (1, 3, 9, 27)[i mod 4], tilted, at 15
//          degrees a second, i radians ahead of sensor 0; it looks along the path and rolls slowly.
// Keys     arrows and page keys move the steered sensor, with Ctrl they turn it; + - and [ ] change
//          the steps, Tab and Ctrl+Tab by how much; x y z a e r v open a line editor for one
//          component or for the whole pose, x,y,z;yaw,pitch,roll in degrees.
//          They are read while the steered sensor is in the sensor mask, and taken away from
//          everybody else then; ESC and 'O' are handed on.
// Pace     about 60 frames a second: ReadFrame ends with a sleep of 16 ms.
#pragma once

#include "devices/tracker_device.h"
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

  // Both open the simulated port, whatever the arguments.
  int OpenPort(const char* name, int baud) override;
  int OpenPortNumber(int number, int baud) override;

  // ---- Life --------------------------------------------------------------------------------

  BootResult Boot(int reset) override;

  // Writes nothing into `text`; nonzero.
  int QueryStatus(char* text, int size) override;

  // ---- Sampling ----------------------------------------------------------------------------

  // Moves every active sensor on by a frame, acts on a key at the most, and sleeps for the frame.
  //
  // sampleTime  the time after the sleep.
  // Returns     the active sensors; the steered one only when a key was acted upon.
  // Memory      allocates nothing. Prints when there was a key, if the output takes it at once.
  unsigned ReadFrame(double* sampleTime) override;

  void Poll() override;             // nothing: frames come by themselves
  void StartContinuous() override;  // nothing

  // ---- Stations ----------------------------------------------------------------------------

  // sensorCount  how many low bits of the mask count, 0 for all sensors there are.
  unsigned SetSensorMask(unsigned mask, int sensorCount) override;

  // ---- Settings ----------------------------------------------------------------------------

  // Bit 15 tells, whatever the mask says, whether the steered sensor is active.
  unsigned SetComponentMask(unsigned mask) override;

  // ---- Keys --------------------------------------------------------------------------------

  // Reads a key of the console, if there is one, and acts on it. True when it was a known key.
  //
  // The first call moves the steered sensor to its offset position; a later change of the offset
  // does not move it.
  // Threads  sampling thread.
  bool HandleKeys();

  // Hands a key to the line editor, opening the field with an empty text if another one was open.
  //
  // key      0 only shows the line; Backspace, Enter, digits, '.', '-' and for the whole pose ','
  //          and ';' edit it.
  // Returns  false for a field that does not exist and for every other key.
  // Threads  sampling thread.
  bool EnterValue(Field field, int key);

 private:
  void FollowPath(int sensor, double unitsPerMetre);
  void ApplySteeredOffset();
  bool HandleExtendedKey(int code);
  bool HandleCharacter(int code);
  bool StepKey(int code);
  void PrintStatusLine() const;
  bool StoreEntry();
  void StoreComponent(const char* text);
  void StoreVector(const char* text);
  Pose& SteeredPose() { return poses_[kSteeredSensor]; }

  TimerResolution resolution_;
  bool applyOffsetPending_ = true;
  unsigned frameCounter_ = 0;
  float positionStep_ = 1.0F;  // in the configured length unit
  float angleStep_ = 0.1F;     // radians
  float stepFactor_ = 0.1F;    // relative change of a step by its keys
  Field entryField_ = Field::None;
};

}  // namespace kinetrel
