// An InterTrax. It wakes at 1200 baud after a reset; 8 data bits, no parity, one stop bit.
//
//   c     answers "o"                          3   one record
//   d     answers "d", then 38400 baud         6   starts the stream of records; again: ends it
//   v 0   its version: "v" 0, two words, a text with a 0 at its end
//
// A record is yaw, pitch and roll, 16 bits each, little-endian, 32767 for half a turn. Pitch and
// roll have the opposite sign. RTS off resets the unit; a pseudo-terminal has no RTS, so a host
// that changes to 1200 baud resets it here.
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
enum class IntertraxStart {
  Idle,      // just switched on
  Streaming  // still sending at 38400 baud, for an earlier host
};

struct IntertraxSettings {
  IntertraxStart start = IntertraxStart::Idle;
  bool tellsVersion = true;
  double rate = 250;  // measurements a second
};

// 6 bytes.
WireWriter EncodeIntertraxRecord(const MotionPose& pose);

class IntertraxEmulator final : public EmulatedDevice {
 public:
  IntertraxEmulator(IntertraxSettings settings, std::shared_ptr<const Motion> motion);

  std::string Name() const override { return "InterTrax"; }
  void PowerOn(Moment now, DeviceLine& line) override;
  void Receive(Moment now, std::span<const std::byte> bytes, DeviceLine& line) override;
  Moment NextEvent() const override;
  void OnEvent(Moment now, DeviceLine& line) override;
  void HostRateChanged(Moment now, unsigned baud, DeviceLine& line) override;

 private:
  enum class Link { Reset, Answered, Fast };

  void Reset(Moment now, DeviceLine& line);
  const char* Obey(Moment now, char command, DeviceLine& line);
  const char* TellVersion(Moment now, DeviceLine& line);
  void SendRecord(Moment now, DeviceLine& line);
  void SpeedUp(Moment now, DeviceLine& line);

  const IntertraxSettings settings_;
  const std::shared_ptr<const Motion> motion_;
  bool poweredBefore_ = false;
  Link link_ = Link::Reset;
  bool speedUpDue_ = false;    // the answer to `d` leaves at the old rate
  Moment speedUpAt_ = kNever;  // for a host whose rate is unknown
  unsigned hostBaud_ = 0;      // 0: unknown
  bool askedVersion_ = false;  // "v" came, its 0 has not
  bool streaming_ = false;
  Moment streamStart_{0};
  std::uint64_t slot_ = 0;
  std::uint64_t frame_ = 0;  // records sent
};

// ---- For the table of devices -------------------------------------------------------------------

OptionTable IntertraxOptions();
std::unique_ptr<EmulatedDevice> MakeIntertrax(OptionValues& options,
                                              std::shared_ptr<const Motion> motion);

}  // namespace kinetrel::emulate
