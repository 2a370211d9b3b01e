// A joystick of the machine as a source of button bits beside the tracker: its buttons are the
// digital channels, its axes the analog ones, of which x, y and z are read.
//
// The joystick may be booted again while it is read; a Read meanwhile has no new values.
#pragma once

#include <array>
#include <mutex>
#include <optional>
#include <string>

#include "devices/daq_control.h"
#include "platform/joystick.h"

namespace kinetrel {

// How many channels a stick has for us: 32 of a kind at the most.
struct JoystickChannels {
  int maxButtons = 0;
  int digital = 0;  // buttons: those that the stick has, or as many as its driver knows of
  int analog = 0;   // axes
};
JoystickChannels ChannelsOf(const JoystickCapabilities& capabilities);

// The stick and its channels in words.
std::string DescribeJoystick(const JoystickCapabilities& capabilities);

class Joystick final : public DAQControl {
 public:
  explicit Joystick(int id);  // the first stick's where there are not as many

  // Opens the stick, or opens it anew when it was unplugged, and reads it. 1, or 0 on failure,
  // whose cause is printed on the standard error stream.
  int Boot(int unused) override;
  int QueryCaps(char* text, int size) override;

  // 0, and the old values stay, while it is unplugged; it comes back by itself.
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
