// A Polhemus Liberty or Patriot. Serial line: 115200 baud, 8 data bits, no parity, one stop bit.
//
// Commands are text: a letter (of any case) or a control code, values with commas, a carriage
// return. A command without a value asks for it; a command that sets a value is not answered.
//   C     frames as they are measured        O    what is in a record    ^U   the active stations
//   P     one frame, and no more (at once,   U    0 inches, 1 cm         ^T   its built-in test
//         without a carriage return)         R    3 120 Hz, 4 240 Hz     ^R   no alignment
//   F     0 text, 1 binary                   Z    external mark          ^V   who it is, or with a
//                                                                            station its sensor
//   Q     zeroes the frame count (Q1), the   @B   0 or 1: its buffer on USB
//         time stamp (Q2) or both (Q0)       ^Y   restarts it
//   A H L N X Y B G ^B  are accepted
//
// A frame is "LY" ("PA" of a Patriot), the station, the command that it answers, an error, a
// reserved byte, the size of the rest in 16 bits, and the rest, little-endian. Every cycle sends
// one frame for each active station, in the order of their numbers. In text it is a line for each:
// the station and the items of its list. The unit leaves out whole
// cycles that the line cannot carry in time; the frame count shows that.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "emulate/emulated_device.h"
#include "emulate/fresh_poses.h"
#include "emulate/motion.h"
#include "emulate/options.h"
#include "emulate/wire_writer.h"

namespace kinetrel::emulate {

// The state of the unit when a host opens the port.
enum class LibertyStart {
  Text,        // just switched on: answers in text
  Streaming,   // still sending for an earlier host
  HalfCommand  // half a command came before
};

struct LibertySettings {
  LibertyStart start = LibertyStart::Text;
  std::uint32_t plugged = 1;    // bit i: a sensor at station i + 1
  std::uint32_t unplugged = 0;  // of those, the stations that are unplugged for a while
  Moment unplugFrom{0}, unplugTo{0};
  std::uint32_t bit = 0;        // first word of the built-in test until it is cleared
  bool blankMeansGood = false;  // sends a blank, not 0, for no error
  bool lastCycle = false;       // a P that ends the stream sends a cycle too
  std::string unit = "1";       // its number, with which it says who it is
  std::string serial = "1";     // of its sensors
  bool isPatriot = false;       // two stations at 60 Hz; no command R or Z
};

class LibertyEmulator final : public EmulatedDevice {
 public:
  LibertyEmulator(LibertySettings settings, std::shared_ptr<const Motion> motion);

  std::string Name() const override {
    return settings_.isPatriot ? "Polhemus Patriot" : "Polhemus Liberty";
  }
  void PowerOn(Moment now, DeviceLine& line) override;
  void Receive(Moment now, std::span<const std::byte> bytes, DeviceLine& line) override;
  Moment NextEvent() const override;
  void OnEvent(Moment now, DeviceLine& line) override;
  void NewPoses(Moment now, std::uint32_t stations, DeviceLine& line) override;

  // The built-in test finds an error: every pose is marked with 'I' until a host clears it.
  bool RaiseError(Moment now, std::optional<int> code) override;

 private:
  struct CommandRow;
  struct Cycle {  // of one station
    MotionPose pose;
    std::uint32_t milliseconds;
    bool pressed;
  };

  void Obey(Moment now, std::string_view command, DeviceLine& line);
  void Answer(Moment now, char command, const WireWriter& body, std::string_view text,
              DeviceLine& line, unsigned station = 0);
  void AnswerNumber(Moment now, char command, std::uint32_t value, DeviceLine& line);
  void Refuse(Moment now, char command, unsigned code, DeviceLine& line);
  std::string WhoText() const;
  void SetFactory();
  void SkipTo(Moment now);
  void SendCycle(Moment now, char command, DeviceLine& line);
  void SendStation(Moment now, unsigned i, char command, DeviceLine& line);
  void SendFresh(Moment now, DeviceLine& line);
  void AddItem(WireWriter& body, int item, const Cycle& cycle) const;
  std::string TextOf(int item, const Cycle& cycle) const;
  std::uint32_t Plugged(Moment now) const;
  double Rate() const { return settings_.isPatriot ? 60 : rate_ == 3 ? 120 : 240; }
  WireWriter Header(unsigned station, char command, unsigned error, std::size_t size) const;

  void Format(Moment now, std::string_view values, DeviceLine& line);
  void Units(Moment now, std::string_view values, DeviceLine& line);
  void RateCode(Moment now, std::string_view values, DeviceLine& line);
  void Sync(Moment now, std::string_view values, DeviceLine& line);
  void Stations(Moment now, std::string_view values, DeviceLine& line);
  void Items(Moment now, std::string_view values, DeviceLine& line);
  void WhoAmI(Moment now, std::string_view values, DeviceLine& line);
  void SelfTest(Moment now, std::string_view values, DeviceLine& line);
  void Counters(Moment now, std::string_view values, DeviceLine& line);
  void Stream(Moment now, std::string_view values, DeviceLine& line);
  void Restart(Moment now, std::string_view values, DeviceLine& line);
  void Buffer(Moment now, std::string_view values, DeviceLine& line);
  void Take(Moment now, std::string_view values, DeviceLine& line);

  const LibertySettings settings_;
  const std::shared_ptr<const Motion> motion_;
  bool poweredBefore_ = false;
  Moment deafUntil_{0};  // while it starts
  std::string heard_;    // the begun command
  bool binary_ = false;
  bool streaming_ = false;
  bool metric_ = false;
  bool sync_ = false;
  bool buffers_ = false;
  unsigned rate_ = 4;
  std::uint32_t active_ = 0;
  std::uint32_t bit_ = 0;
  std::array<std::vector<int>, 16> items_;
  Moment start_{0};          // of the measurements
  std::uint64_t cycle_ = 0;  // measured since then
  std::uint64_t zero_ = 0;   // the cycle that counts as 0
  Moment timeZero_{0};
  FreshPoses fresh_;  // of a live source
};

// ---- For the table of devices -------------------------------------------------------------------

OptionTable LibertyOptions();
std::unique_ptr<EmulatedDevice> MakeLiberty(OptionValues& options,
                                            std::shared_ptr<const Motion> motion);
std::unique_ptr<EmulatedDevice> MakePatriot(OptionValues& options,
                                            std::shared_ptr<const Motion> motion);

}  // namespace kinetrel::emulate
