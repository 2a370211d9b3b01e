// The FASTRAK family: magnetic trackers that speak the FASTRAK serial command language, and
// inertial ones that imitate it. Polhemus FasTRAK, InsideTRAK, IsoTRAK and IsoTRAK2; InterSense
// IS-300 and IS-600.
//
// The host sends one letter, or a letter, arguments and CR; the unit delivers binary records, one
// per station, on request ('P') or by itself ('C' until 'c'). fastrak_wire.h says how a record is
// built. The models differ in what their commands look like: the FASTRAK class takes a station
// digit after the letter, the IsoTRAK class does not.
//
// Units    positions as SetUnits says, angles in radians, quaternions scalar first.
// Pacing   pauses after commands are part of the dialogue: the units lose what comes too fast.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

#include "devices/bounded_text.h"
#include "devices/record_window.h"
#include "devices/tracker_device.h"
#include "drivers/fastrak_wire.h"

namespace kinetrel {

class FastrakDevice final : public TrackerDevice {
 public:
  FastrakDevice();

  // ---- Life --------------------------------------------------------------------------------

  // Ends streaming, identifies the model, sets output list, stations and units, and leaves the
  // unit silent. The port must be open, or be the simulated one.
  //
  // reset    nonzero: re-initialises the unit first (Ctrl-Y), which takes up to 20 s.
  // Returns  kBooted; kPortNotOpen; kReadFailed, kTimedOut, kUnknownFailure or kNoSensors for
  //          the first answer; kNoResponse, kNoStatus or kNoSensors for the status record;
  //          kUnrecognizedProduct, kInitializationFailed, kStorageFailed; -11 nothing after a
  //          reset.
  // Effects  a failed status query is printed on the standard error stream. A unit that is set to
  //          another baud rate is looked for at the usual ones; the port keeps the one found.
  // Threads  no two devices of this family may boot at the same time.
  BootResult Boot(int reset) override;

  // Asks for the status record, and clears the built-in test errors that it reports, one after the
  // other and 16 at the most. Streaming is interrupted for it.
  //
  // text     the record, or what went wrong; at most `size` bytes with the terminator.
  // Returns  1 for a status record, else 0.
  int QueryStatus(char* text, int size) override;

  // ---- Sampling ----------------------------------------------------------------------------

  // Reads one record of each active station; sends 'P' first when nothing was asked for yet.
  //
  // sampleTime  when the first station's head was in hand; untouched when none came.
  // Returns     the stations read; every bit set when a 14-bit record was out of step; 0 for none.
  //             A damaged or missing record is dropped whole and posted to the status log.
  // Threads     sampling thread. Waits no longer than the port's time-outs for each station, and
  //             200 ms for the answer to a poll. Allocates nothing but log entries about failures.
  unsigned ReadFrame(double* sampleTime) override;

  // What came too late for the poll before must not pass as the answer to this one: it is dropped.
  void Poll() override;

  // ---- Stations ----------------------------------------------------------------------------

  // Writes `command` once for each of the `stations` first (0: all) in the mask, its second
  // character replaced by the station's digit. Returns stations + 1; 0 unless booted or booting.
  int SendStationCommand(const char* command, unsigned stationMask, int stations) override;

  // Activates and deactivates the first `stations` (0: all) stations. Nothing for mask 0, before
  // boot, and on InterSense units, whose stations are what is plugged in.
  unsigned SetSensorMask(unsigned mask, int stations) override;

  // ---- Settings ----------------------------------------------------------------------------

  int SetUnits(int units) override;

  // Before boot the setting is kept for it. Returns 1.
  int SetCrLf(int on) override;

  // 1: 14 bit, 2: 16 bit, 3: 32 bit. The FASTRAK class refuses 2, the IsoTRAK class takes 3 for 2.
  // Returns the protocol now in force; 0 for a refusal and before boot.
  int SetProtocol(int protocol) override;

  int SetSensorVector4(int sensor, float a, float b, float c, float d) override;

  // The alignment reference frame of a station (-1: all), by its axes or as a pose; axes are
  // directions. Returns the number of the last station told; 0 for one that cannot be.
  int SetAlignment(int sensor, const float xAxis[3], const float yAxis[3]) override;
  int SetAlignmentPose(int sensor, const float pose[6]) override;
  int ResetAlignment(int sensor) override;

  int SetSynchronization(int mode) override;  // 1; 0 for a mode there is not

  // Returns 1; 0 before boot.
  unsigned SetComponentMask(unsigned mask) override;

  // sensor  a station's number, from 1; 0 and below: all stations.
  int SetHemisphere(int sensor, const float zenith[3]) override;

  // Sends `text`, CR and LF.
  bool SetControlString(const char* text) override;

  // ---- Identity ----------------------------------------------------------------------------

  // For example "3: 32 bit". Returns the protocol.
  int GetProtocolText(char* text, int size) override;

 private:
  struct Reply;
  struct Alignment;

  // fastrak_boot.cpp
  BootResult FindUnit(int reset);
  BootResult Identify(int reset, std::span<char> failure);
  BootResult WakeUnit();
  BootResult WaitForReply(int timeoutMs);
  void SilenceUnit();
  bool Reinitialize();
  BootResult Configure();
  void TakeModel(const FastrakProduct& model);
  void ConfigureFastrak(int stations);
  void ConfigureIsotrak();
  bool RequestStatus(Reply& reply);
  bool ReadReply(Reply& reply);
  bool ClearBitErrors(Reply& reply, TextAppender& diagnosis);
  FastrakStatusRecord QueryOnce(Reply& reply, TextAppender& diagnosis);
  bool ClearBitError(int code);

  // fastrak_device.cpp
  bool AcceptsCommands();
  bool FastrakClass() const { return (statusWord_ & kFastrakClass) != 0; }
  std::uint32_t Model() const { return statusWord_ & 0xFFFF; }
  void WriteCommand(std::string_view command, unsigned pauseMs);
  bool SetOutputList(int protocol, unsigned components, int crLf, unsigned stationMask);
  void WriteOutputList(const std::array<const char*, 3>& items, unsigned stationMask);
  void LayOutRecords();
  void SwitchStations(unsigned mask, int stations);
  void TakeReportedStations(unsigned mask, int stations, unsigned reported);
  int SendAlignment(int sensor, Alignment alignment);

  // fastrak_frame.cpp
  bool ReadStation(int station, double*& sampleTime);
  bool FindHead(int station);
  bool PostNoHead() const;
  std::size_t SizeToSkip(int other);
  int StationAhead();
  bool BeginsLikeHead(std::span<const std::byte> bytes) const;
  void NoteBitError(int station, int code);
  bool ReadRest(int station);
  void PostShortRecord() const;
  bool CutByAnother(int station);
  bool IsLast(int station) const;
  bool HoldsHead() const;
  bool Decode(int station);
  bool TailIsRight() const;
  void PostOutOfStep() const;

  FastrakFormat modelFormat_ = FastrakFormat::Bits32;  // of the model's 16 or 32-bit values
  FastrakLayout layout_;
  int frameLength_ = 0;  // bytes of all active stations' records: how far a head is looked for

  // Sampling thread only.
  RecordWindow window_;
  bool outOfStep_ = false;               // in the frame being read
  std::array<int, 16> lastErrorCode_{};  // of the station's last record, 0 none
  std::array<int, 16> errorRunCount_{};  // records in a row with that code
};

}  // namespace kinetrel
