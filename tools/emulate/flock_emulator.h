// A Flock of Birds, reached through its master bird. 8 data bits, no parity, one stop bit.
//
//   O p         answers parameter p              B      one record of the bird; ends a stream
//   P p data    changes parameter p              @ ?    records as they are measured; no more
//   L axis sign hemisphere                       F G    runs, sleeps: a bird asleep sends nothing
//   F0+n        the next command is for bird n   /      resets the flock
//   V W X Y Z \ ]  what the bird sends: position, angles, matrix, position with angles or matrix,
//                  quaternion, position with quaternion
//
// Other commands of the Bird are accepted with all their data and change nothing.
//
// A record is 14-bit numbers in two 7-bit bytes each, low first. Only the first byte of a record
// has bit 7 set. In group mode a byte with the bird's address follows, and every running bird
// sends. Compared with the host's frame, y, z, azimuth and elevation have the opposite sign. Matrix
// and quaternion follow from these angles: which way round a real bird gives them is not known for
// sure. An unknown command is an error: bit 13 of the status stays set until a host reads the error
// code.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "emulate/emulated_device.h"
#include "emulate/fresh_poses.h"
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
  double range = 144;  // inches of the full scale: 36, 72, or 144 with the extended transmitter
  Moment configurationTime =
      std::chrono::milliseconds(300);  // no answers after a bus configuration
};

// What a bird sends; the numbers are those of its status word.
enum class FlockMode : std::uint8_t {
  Position = 1,
  Angles = 2,
  Matrix = 3,
  PositionAngles = 4,
  PositionMatrix = 5,
  Quaternion = 7,
  PositionQuaternion = 8
};

// 6 to 24 bytes. fullScale in cm.
WireWriter EncodeFlockRecord(FlockMode mode, const MotionPose& pose, double fullScale);

class FlockEmulator final : public EmulatedDevice {
 public:
  FlockEmulator(FlockSettings settings, std::shared_ptr<const Motion> motion);

  std::string Name() const override { return "Flock of Birds"; }
  void PowerOn(Moment now, DeviceLine& line) override;
  void Receive(Moment now, std::span<const std::byte> bytes, DeviceLine& line) override;
  Moment NextEvent() const override;
  void OnEvent(Moment now, DeviceLine& line) override;
  void HostOpened(Moment now, DeviceLine& line) override;
  void NewPoses(Moment now, std::uint32_t stations, DeviceLine& line) override;
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
  std::string EndStream(Turn turn);
  std::string SetHemisphere(Turn turn);
  std::string SetMode(Turn turn);
  std::string RunOrSleep(Turn turn);
  std::string Reset(Turn turn);
  std::string ReadButton(Turn turn);
  std::string PassOver(Turn turn);

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
  WireWriter DataReady();
  WireWriter Zeros();

  unsigned BirdMask() const;  // bit n: the bird at address n
  unsigned RunningMask() const;
  void ForgetBus();
  WireWriter RecordOf(unsigned station, double seconds) const;
  void SendRecords(Moment now, unsigned station, DeviceLine& line);
  std::uint32_t Senders(unsigned station) const;  // stations whose records go out; bits
  void SendFresh(Moment now, DeviceLine& line);
  double FullScale() const;  // cm

  // Constant.
  const FlockSettings settings_;
  const std::shared_ptr<const Motion> motion_;

  // What it does now.
  bool poweredBefore_ = false;
  bool owesHalfRecord_ = false;
  unsigned error_ = 0;
  unsigned configuredBirds_ = 0;
  unsigned asleep_ = 0;  // bit n: the bird at address n
  bool groupMode_ = false;
  bool doubled_ = false;               // the full scale, by parameter 3
  std::array<FlockMode, 15> modes_{};  // by address
  std::vector<unsigned> command_;      // the bytes received of it
  unsigned address_ = 0;               // of the bird that the command is for; 0: the master
  Moment busyUntil_{0};
  std::vector<std::byte> unread_;  // bytes that came while it was busy
  bool streaming_ = false;
  Moment streamStart_{0};
  std::uint64_t slot_ = 0;
  std::uint64_t frame_ = 0;
  FreshPoses fresh_;  // of a live source
  Moment pollAt_ = kNever;
  unsigned polledStation_ = 0;
  unsigned streamedStation_ = 0;
  Moment nextMeasured_{0};  // a poll is never answered with an old frame
};

// ---- For the table of devices -------------------------------------------------------------------

OptionTable FlockOptions();
std::unique_ptr<EmulatedDevice> MakeFlock(OptionValues& options,
                                          std::shared_ptr<const Motion> motion);

}  // namespace kinetrel::emulate
