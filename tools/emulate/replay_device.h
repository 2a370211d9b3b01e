// The device of a capture: answers what the host sends with what the device answered then, after
// the same delays. What it sent by itself comes at the same pace.
//
// It walks through the capture. Where the host sent something then, it waits for the same bytes. A
// host that sends something else is told so; the replay goes on at the next place of the capture
// where these bytes were sent, or else stays silent. A host that opens the port anew gets the
// capture from its beginning.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "emulate/captured_line.h"
#include "emulate/emulated_device.h"

namespace kinetrel::emulate {

struct ReplayOptions {
  double speed = 1.0;  // 2: twice as fast
  bool loop = false;   // at the end the port disappears for a second, and all begins anew
};

class ReplayDevice final : public EmulatedDevice {
 public:
  // capture  open, at its beginning.
  ReplayDevice(CapturedLine capture, ReplayOptions options);

  std::string Name() const override;
  void PowerOn(Moment now, DeviceLine& line) override;
  void Receive(Moment now, std::span<const std::byte> bytes, DeviceLine& line) override;
  Moment NextEvent() const override { return wake_; }
  void OnEvent(Moment now, DeviceLine& line) override;
  void HostOpened(Moment now, DeviceLine& line) override;
  void HostRateChanged(Moment now, unsigned baud, DeviceLine& line) override;

 private:
  enum class Progress { Passed, Waits };

  void Walk(Moment now, DeviceLine& line);
  Progress TryStep(Moment now, DeviceLine& line);
  Progress TryQuestion(Moment now, DeviceLine& line);
  Progress TryOpening(Moment now);
  Progress TryRate(Moment now);
  void PullPlug(Moment now, DeviceLine& line);
  void FindQuestion(Moment now, DeviceLine& line);
  void Restart(Moment now, DeviceLine& line);
  void End(Moment now, DeviceLine& line);
  void Fetch();
  void Rewind();
  void Pass(Moment now);
  void WakeAt(Moment when);
  Moment DueOf(Moment time) const;
  std::string Place() const;  // where in the capture it is, for people

  CapturedLine capture_;
  const ReplayOptions options_;
  std::optional<LineStep> next_;      // empty: the capture has ended
  std::optional<LineStep> heldBack_;  // comes after next_
  bool endTold_ = false;
  Moment loopAt_{0};  // when the port disappears after the end

  // This moment of the capture is that one now.
  Moment captured_{0};
  Moment replayed_{0};

  std::vector<std::byte> asked_;  // by the host, and not yet found in the capture
  Moment askedAt_{0};             // the first of them
  Moment heardAt_{0};             // the last of them
  bool reopened_ = false;         // the host opened the port, and the capture did not yet
  Moment reopenedAt_{0};
  Moment openedAt_{0};
  Moment closedTime_{0};  // in the capture
  bool unplugged_ = false;
  unsigned hostBaud_ = 0;
  std::uint64_t capturedBaud_ = 0;  // that the replay has reached
  std::uint64_t rateDue_ = 0;       // the newest in the capture ...
  Moment rateTime_{0};              // ... set then
  Moment nextSearch_{0};
  Moment wake_{0};
};

}  // namespace kinetrel::emulate
