// The FASTRAK family: FasTRAK, InsideTRAK, IsoTRAK, IsoTRAK2, and the IS-300 and IS-600 that speak
// the same language. 8 data bits, no parity, one stop bit; see fastrak_records.h for what it sends.
//
//   P            one record of each active station     C, c     records as they are measured; stop
//   S            status record                         f, F     binary, ASCII
//   U, u         inches, centimetres                   K        saves the configuration
//   ^Y           restarts: silent for seconds, then it answers what came meanwhile
//   O1,2,4,1     output list of station 1; O1 tells it (without station digits: O2,4,1 and O)
//   l1,1         station 1 on, 0: off; l1 tells the states (IsoTRAK: l1 turns it over, l tells)
//   A1,o,x,y     alignment frame of station 1: origin, a point on x, a point toward y; R1 resets it
//   H1,x,y,z     hemisphere        N1,x,y,z  tip offset        y0  synchronization 0, 1 or 2
//   T65,0        clears that BIT error            e1,0      stylus of station 1: 0 mouse, 1 point
//   x, v         position and attitude filter: f,low,high,factor; x alone tells it
//   N1, G1       tell the tip offset and the boresight reference
//   b B G d D t Y  are accepted in silence and change nothing
//   M...         InterSense only: MZ zeroes the time stamp, MS and Ms1 tell a status; any other is
//                accepted in silence
//
// Lines end with CR or LF. An unknown command is answered with an error record.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "emulate/emulated_device.h"
#include "emulate/fastrak_parser.h"
#include "emulate/fastrak_records.h"
#include "emulate/fresh_poses.h"
#include "emulate/motion.h"
#include "emulate/options.h"
#include "emulate/pose.h"

namespace kinetrel::emulate {

// The state of the unit when a host opens the port.
enum class FastrakStart {
  Ascii,       // just switched on
  Binary,      // as an earlier host left it
  Streaming,   // the same, and still sending
  HalfRecord,  // the same, with the rest of a record still to come when the port is opened
  HalfCommand  // a command came without its end
};

struct FastrakSettings {
  FastrakModel model = FastrakModel::Fastrak;
  FastrakStart start = FastrakStart::Ascii;
  unsigned receivers = 16;  // plugged in, at most the model's stations
  Moment resetTime = std::chrono::seconds(10);
  std::vector<int> errors = {};  // BIT errors pending at the start
  bool stickyErrors = false;     // T does not clear them
};

class FastrakEmulator final : public EmulatedDevice {
 public:
  FastrakEmulator(FastrakSettings settings, std::shared_ptr<const Motion> motion);

  std::string Name() const override { return std::string(model_.name); }
  void PowerOn(Moment now, DeviceLine& line) override;
  void Receive(Moment now, std::span<const std::byte> bytes, DeviceLine& line) override;
  Moment NextEvent() const override;
  void OnEvent(Moment now, DeviceLine& line) override;
  void HostOpened(Moment now, DeviceLine& line) override;
  void NewPoses(Moment now, std::uint32_t stations, DeviceLine& line) override;
  bool RaiseError(Moment now, std::optional<int> code) override;

 private:
  struct Station {
    bool active = true;
    std::vector<FastrakItem> items;
    Frame frame;
    Vector3 tip{};        // cm
    Vector3 reference{};  // of the boresight, degrees
  };
  struct CommandRow;
  using Numbers = std::vector<double>;
  struct Context {  // time and line of one command
    Moment now;
    DeviceLine& line;
  };

  // ---- Commands: what they did, for people; empty: refused
  // ----------------------------------------

  std::string StartStream(const Numbers& numbers, Context context);
  std::string StopStream(const Numbers& numbers, Context context);
  std::string Poll(const Numbers& numbers, Context context);
  std::string TellStatus(const Numbers& numbers, Context context);
  std::string UseInches(const Numbers& numbers, Context context);
  std::string UseCentimetres(const Numbers& numbers, Context context);
  std::string UseBinary(const Numbers& numbers, Context context);
  std::string UseAscii(const Numbers& numbers, Context context);
  std::string Save(const Numbers& numbers, Context context);
  std::string Reinitialize(const Numbers& numbers, Context context);
  std::string OutputList(const Numbers& numbers, Context context);
  std::string ActiveStations(const Numbers& numbers, Context context);
  std::string Align(const Numbers& numbers, Context context);
  std::string ResetAlignment(const Numbers& numbers, Context context);
  std::string Hemisphere(const Numbers& numbers, Context context);
  std::string TipOffset(const Numbers& numbers, Context context);
  std::string Synchronization(const Numbers& numbers, Context context);
  std::string ClearError(const Numbers& numbers, Context context);
  std::string PositionFilter(const Numbers& numbers, Context context);
  std::string AttitudeFilter(const Numbers& numbers, Context context);
  std::string StylusMode(const Numbers& numbers, Context context);
  std::string Boresight(const Numbers& numbers, Context context);
  std::string BoresightReference(const Numbers& numbers, Context context);
  std::string PassOver(const Numbers& numbers, Context context);

  static std::span<const CommandRow> Commands();
  static const CommandRow* FindCommand(char letter);
  void Obey(const FastrakCommand& command, Context context);
  std::string ObeyInterSense(std::string_view arguments, Context context);
  std::string SetStationActive(unsigned index, bool on, Moment now);

  void Reply(Context context, const std::string& text) const;
  using Filter = std::array<double, 4>;  // sensitivity, low, high, factor
  std::string ServeFilter(char letter, Filter& filter, const Numbers& numbers, Context context);
  Station* StationOf(const Numbers& numbers, std::size_t wantedCount);
  Vector3 Length(const Numbers& numbers, std::size_t from) const;  // in cm, from the unit in force

  // ---- Sending
  // -----------------------------------------------------------------------------------

  void SetDefaults();
  void SetAsLeftByHost();
  void RestartStream(Moment now);
  void SendNextOfStream(Moment now, DeviceLine& line);
  void SendFresh(Moment now, DeviceLine& line);
  void AnswerPoll(Moment now, DeviceLine& line);
  FastrakRecord Measure(unsigned index, Moment now) const;
  unsigned ActiveCount() const;
  double FramesPerSecond() const;
  unsigned NextActive(
      unsigned from) const;  // the first active station from `from` on; the count if none

  // Constant.
  const FastrakSettings settings_;
  const FastrakModelRow& model_;
  const std::shared_ptr<const Motion> motion_;

  // What the host has set.
  bool binary_ = false;
  bool metric_ = false;
  Filter positionFilter_{};
  Filter attitudeFilter_{};
  Moment timeZero_{0};
  std::vector<Station> stations_;

  // What it does now.
  FastrakParser parser_;
  bool poweredBefore_ = false;
  bool owesHalfRecord_ = false;
  std::vector<int> errors_;
  Moment busyUntil_{0};
  std::vector<std::byte> unread_;  // bytes that came while it was busy
  bool streaming_ = false;
  Moment streamStart_{0};
  std::uint64_t slot_ = 0;    // of the stream: each may take one record
  unsigned nextStation_ = 0;  // of the frame that is being sent
  std::uint64_t frame_ = 0;
  FreshPoses fresh_;  // of a live source
  Moment pollAt_ = kNever;
  Moment nextMeasured_{0};  // a poll is never answered with an old frame
};

// ---- For the table of devices -------------------------------------------------------------------

OptionTable FastrakOptions();
std::unique_ptr<EmulatedDevice> MakeFastrak(OptionValues& options,
                                            std::shared_ptr<const Motion> motion);

}  // namespace kinetrel::emulate
