// A Flock of Birds, reached through its master bird. 8 data bits, no parity, one stop bit.
//
//   O p         answers parameter p              B      one record of the bird; ends a stream
//   P p data    changes parameter p              @      records as they are measured
//   L axis sign hemisphere                       Y      position and angles (all it sends here)
//   F0+n        the next command is for the bird at address n
//
// A record is x, y, z, azimuth, elevation, roll: 14 bits each in two 7-bit bytes, low first. Only
// the first byte of a record has bit 7 set. Compared with the host's frame, y, z, azimuth and
// elevation have the opposite sign. An unknown command is an error: bit 13 of the status stays set
// until a host reads the error code.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "emulate/emulated_device.h"
#include "emulate/motion.h"
#include "emulate/options.h"
#include "emulate/wire_writer.h"

namespace kinetrel::emulate {

// The state of the bird when a host opens the port.
enum class FlockStart {
  Idle,        // just switched on
  Streaming,   // still sending for an earlier host
  HalfRecord,  // with the rest of a record to come when the port is opened
  HalfCommand  // a command came without its end
};

struct FlockSettings {
  FlockStart start = FlockStart::Idle;
  unsigned birds = 3;  // at addresses 1, 2, ...
  double rate = 144;   // measurements a second
  unsigned error = 0;  // pending at the start; 0: none
  Moment configurationTime =
      std::chrono::milliseconds(300);  // no answers after a bus configuration
};

// 12 bytes.
WireWriter EncodeFlockRecord(const MotionPose& pose);

class FlockEmulator final : public EmulatedDevice {
 public:
  FlockEmulator(FlockSettings settings, std::shared_ptr<const Motion> motion);

  std::string Name() const override { return "Flock of Birds"; }
  void PowerOn(Moment now, DeviceLine& line) override;
  void Receive(Moment now, std::span<const std::byte> bytes, DeviceLine& line) override;
  Moment NextEvent() const override;
  void OnEvent(Moment now, DeviceLine& line) override;
  void HostOpened(Moment now, DeviceLine& line) override;
  bool RaiseError(Moment now, std::optional<int> code) override;

 private:
  struct Turn {  // time and line of one command
    Moment now;
    DeviceLine& line;
  };
  struct CommandRow;
  struct ParameterRow;

  // ---- Commands: what they did, for people; empty: refused
  // ---------------------------------------

  std::string Examine(Turn turn);
  std::string Change(Turn turn);
  std::string Point(Turn turn);
  std::string Stream(Turn turn);
  std::string SetHemisphere(Turn turn);
  std::string UsePositionAndAngles(Turn turn);

  static std::span<const CommandRow> Commands();
  static const CommandRow* FindCommand(unsigned code);
  static std::span<const ParameterRow> Parameters();
  std::size_t WantedLength() const;  // of the command that has begun
  void Feed(std::byte byte, Turn turn);
  void Obey(Turn turn);

  // ---- Parameters
  // --------------------------------------------------------------------------------

  WireWriter BirdStatus();
  WireWriter SoftwareRevision();
  WireWriter CrystalSpeed();
  WireWriter MeasurementCount();
  WireWriter SampleRate();
  WireWriter ErrorCode();
  WireWriter ModelId();
  WireWriter BirdsOnBus();
  WireWriter GroupMode();
  WireWriter FlockStatus();
  WireWriter AutoConfiguration();

  unsigned BirdMask() const;  // bit n: the bird at address n
  void SendRecord(Moment now, unsigned station, DeviceLine& line);

  // Constant.
  const FlockSettings settings_;
  const std::shared_ptr<const Motion> motion_;

  // What it does now.
  bool poweredBefore_ = false;
  bool owesHalfRecord_ = false;
  unsigned error_ = 0;
  unsigned configuredBirds_ = 0;
  std::vector<unsigned> command_;  // the bytes received of it
  unsigned address_ = 0;           // of the bird that the command is for; 0: the master
  Moment busyUntil_{0};
  std::vector<std::byte> unread_;  // bytes that came while it was busy
  bool streaming_ = false;
  Moment streamStart_{0};
  std::uint64_t slot_ = 0;
  std::uint64_t frame_ = 0;
  Moment pollAt_ = kNever;
  unsigned polledStation_ = 0;
  Moment nextMeasured_{0};  // a poll is never answered with an old frame
};

// ---- For the table of devices -------------------------------------------------------------------

OptionTable FlockOptions();
std::unique_ptr<EmulatedDevice> MakeFlock(OptionValues& options,
                                          std::shared_ptr<const Motion> motion);

}  // namespace kinetrel::emulate
