// A Logitech head tracker. 19200 baud, 8 data bits, no parity, one stop bit.
//
//   *05h  runs its self-test: 2 bytes         *D, D  records only when asked
//   *m    describes itself: 30 bytes          *d     one record, as soon as it is measured
//   *A    is accepted, no answer              *S, S  records as they are measured
//
// A record is a header (bit 7 set, bit 5 the record is not valid, bits 0 to 4 and 6 its buttons),
// then 7 bits in every byte, the higher first: y, x, z in 21 bits of 0.001 inch; pitch, roll, yaw
// in 14 bits of 0.025 degrees, 0 to 360. z and yaw have the opposite sign. Pitch and roll refer to
// axes that do not turn with the head.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "emulate/emulated_device.h"
#include "emulate/motion.h"
#include "emulate/options.h"
#include "emulate/wire_writer.h"

namespace kinetrel::emulate {

// The state of the unit when a host opens the port.
enum class LogitechStart {
  Idle,       // just switched on
  Streaming,  // still sending for an earlier host
  HalfRecord  // with the rest of a record to come when the port is opened
};

struct LogitechSettings {
  LogitechStart start = LogitechStart::Idle;
  unsigned buttons = 0;        // bits 0 to 4 and 6 of the header
  unsigned selfTest = 0x3FBF;  // its result
  double rate = 50;            // measurements a second
};

// 16 bytes.
WireWriter EncodeLogitechRecord(const MotionPose& pose, unsigned header);

class LogitechEmulator final : public EmulatedDevice {
 public:
  LogitechEmulator(LogitechSettings settings, std::shared_ptr<const Motion> motion);

  std::string Name() const override { return "Logitech head tracker"; }
  void PowerOn(Moment now, DeviceLine& line) override;
  void Receive(Moment now, std::span<const std::byte> bytes, DeviceLine& line) override;
  Moment NextEvent() const override;
  void OnEvent(Moment now, DeviceLine& line) override;
  void HostOpened(Moment now, DeviceLine& line) override;

  // The next record is not valid: the head is out of sight.
  bool RaiseError(Moment now, std::optional<int> code) override;

 private:
  struct CommandRow;

  const char* Obey(Moment now, char command, bool starred, DeviceLine& line);
  void SkipTo(Moment now);
  void SendRecord(Moment now, DeviceLine& line);

  const LogitechSettings settings_;
  const std::shared_ptr<const Motion> motion_;
  bool poweredBefore_ = false;
  bool owesHalfRecord_ = false;
  bool starred_ = false;  // "*" came, its command not yet
  bool streaming_ = false;
  bool outOfSight_ = false;
  Moment start_{0};          // of the measurements
  std::uint64_t slot_ = 0;   // measurements since then
  std::uint64_t asked_ = 0;  // records asked for and not sent
  std::uint64_t frame_ = 0;  // records sent
};

// ---- For the table of devices -------------------------------------------------------------------

OptionTable LogitechOptions();
std::unique_ptr<EmulatedDevice> MakeLogitech(OptionValues& options,
                                             std::shared_ptr<const Motion> motion);

}  // namespace kinetrel::emulate
