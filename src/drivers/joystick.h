// A joystick as a source of button bits beside the tracker. Its buttons are the digital channels,
// its axes the analog channels; the axes x, y and z are read.
//
// Threads  one may boot the joystick while another reads it; that Read returns no new values.
#pragma once

#include <array>
#include <mutex>
#include <optional>
#include <string>

#include "devices/daq_control.h"
#include "platform/joystick.h"

namespace kinetrel {

// The numbers of channels that are used, at most 32 of each kind.
struct JoystickChannels {
  int maxButtons = 0;
  int digital = 0;  // the stick's buttons, or its driver's maximum if that is greater
  int analog = 0;   // axes
};
JoystickChannels ChannelsOf(const JoystickCapabilities& capabilities);

// Describes the stick and its channels for a person.
std::string DescribeJoystick(const JoystickCapabilities& capabilities);

class Joystick final : public DAQControl {
 public:
  explicit Joystick(int id);  // a number without a stick selects the first stick

  // Opens the stick, or reopens one that was unplugged, and reads it. Returns 1, or 0 after
  // printing the cause on the standard error stream.
  int Boot(int unused) override;
  int QueryCaps(char* text, int size) override;

  // Returns 0 and keeps the old values while the stick is unplugged. It comes back by itself.
  int Read(int unused) override;

  int GetId() override { return joystickId_; }
  const char* GetName() override { return "Joystick"; }

  int maxButtons() const { return maxButtons_; }
  const std::array<std::uint32_t, 6>& axisMax() const { return axisMax_; }  // x, y, z, r, u, v

 private:
  // With the lock held:
  Result<JoystickCapabilities> AskCapabilities();
  Status TakeCapabilities(char* text, int size);
  Status TakeState();

  std::mutex lock_;
  std::optional<JoystickInput> input_;
  int joystickId_ = 0;
  int deviceCount_;
  int maxButtons_ = 0;
  std::array<std::uint32_t, 6> axisMax_{};
};

}  // namespace kinetrel
