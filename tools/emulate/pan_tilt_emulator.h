// A pan-tilt head with encoders in its joints. 9600 baud, 8 data bits, no parity, one stop bit.
//
//   d   answers with the encoders (12 bytes)      a   with the alternate data only (2)
//   b   with both (14)                            Z   is taken without an answer
//
// An answer is 16-bit words, signed, low byte first: four of unknown meaning (0), pan and tilt
// in 4000 counts a turn, and the alternate data (0). Pan counts the other way than azimuth. The
// encoders are read when the request comes, so each answer is a new frame.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "emulate/emulated_device.h"
#include "emulate/motion.h"
#include "emulate/options.h"
#include "emulate/wire_writer.h"

namespace kinetrel::emulate {

// The state in which a host finds it.
enum class PanTiltStart {
  Idle,       // just switched on
  HalfAnswer  // with the rest of an answer to come when the port is opened
};

// The answer to 'd', 'b' or 'a'; empty to anything else.
WireWriter EncodePanTilt(char request, const MotionPose& pose);

class PanTiltEmulator final : public EmulatedDevice {
 public:
  PanTiltEmulator(PanTiltStart start, std::shared_ptr<const Motion> motion);

  std::string Name() const override { return "pan-tilt head"; }
  void PowerOn(Moment now, DeviceLine& line) override;
  void Receive(Moment now, std::span<const std::byte> bytes, DeviceLine& line) override;
  Moment NextEvent() const override { return kNever; }
  void OnEvent(Moment, DeviceLine&) override {}
  void HostOpened(Moment now, DeviceLine& line) override;

 private:
  void Obey(Moment now, char request, DeviceLine& line);

  const PanTiltStart start_;
  const std::shared_ptr<const Motion> motion_;
  bool poweredBefore_ = false;
  bool owesHalfAnswer_ = false;
  std::uint64_t frame_ = 0;
};

// ---- For the table of devices -------------------------------------------------------------------

OptionTable PanTiltOptions();
std::unique_ptr<EmulatedDevice> MakePanTilt(OptionValues& options,
                                            std::shared_ptr<const Motion> motion);

}  // namespace kinetrel::emulate
