// The FASTRAK family: magnetic trackers that speak the FASTRAK serial command language, and
// inertial ones that imitate it. Polhemus FasTRAK, InsideTRAK, IsoTRAK and IsoTRAK2; InterSense
// IS-300 and IS-600.
//
// A command is one letter, or a letter, arguments and CR. The unit sends binary records, one per
// station: on request ('P'), or continuously ('C' until 'c'). fastrak_wire.h describes a record.
// Commands of the FASTRAK class have a station digit after the letter, those of the IsoTRAK class
// have not.
//
// Units    positions as SetUnits says, angles in radians, quaternions scalar first.
// Pacing   pauses after commands are part of the dialogue: a unit loses commands that come too
// fast.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "devices/bounded_text.h"
#include "devices/motion_gate.h"
#include "devices/optional_interfaces.h"
#include "devices/stream_backlog.h"
#include "devices/tracker_device.h"
#include "drivers/fastrak_wire.h"

namespace kinetrel {

class FastrakDevice final : public TrackerDevice, public SerialRecords {
 public:
  FastrakDevice();

  // ---- Port --------------------------------------------------------------------------------

  // Also a unit on USB: "usb" for the only one, "usb:1-2.3", or kUsbPortNumber.
  int OpenPort(const char* name, int baud) override;
  int OpenPortNumber(int number, int baud) override;

  // ---- Life --------------------------------------------------------------------------------

  // Ends streaming, identifies the model, sets output list, stations and units, and leaves the
  // unit silent. The port must be open or simulated.
  //
  // reset    nonzero: re-initialises the unit first (Ctrl-Y), which takes up to 20 s.
  // Returns  kBooted; kPortNotOpen; kReadFailed, kTimedOut, kUnknownFailure or kNoSensors for
  //          the first answer; kNoResponse, kNoStatus or kNoSensors for the status record;
  //          kUnrecognizedProduct, kInitializationFailed, kStorageFailed; -11 no answer after a
  //          reset.
  // Effects  a failed status query is printed on the standard error stream. If the unit does not
  //          answer, the usual baud rates are tried; the port keeps the one that works.
  // Threads  no two devices of this family may boot at the same time.
  BootResult Boot(int reset) override;

  std::size_t RecordSize() const override { return layout_.Size(); }

  // Asks for the status record and clears the built-in test errors that it reports, at most 16.
  // Interrupts streaming.
  //
  // text     the record, or what went wrong; at most `size` bytes with the terminator.
  // Returns  1 for a status record, else 0.
  int QueryStatus(char* text, int size) override;

  // ---- Sampling ----------------------------------------------------------------------------

  // Reads one record of each active station. Sends 'P' first if no record is on its way.
  //
  // sampleTime  when the first station's head was read; untouched if no head came.
  // Returns     a mask of the stations read; all bits if a 14-bit record was out of step; 0 if none
  //             was read. A damaged or missing record is dropped and posted to the status log.
  // Threads     sampling thread. Waits at most the port's time-outs for each station, and 200 ms
  //             for the answer to a poll. Only log entries about failures allocate.
  unsigned ReadFrame(double* sampleTime) override;

  // Both first take in what the unit still sends: the rest of a stream, or the answer to the poll
  // before. It would be read as the answer to this poll, or as a new record of this stream.
  void Poll() override;
  void StartContinuous() override;

  // ---- Stations ----------------------------------------------------------------------------

  // Writes `command` once for each of the `stations` first (0: all) in the mask, its second
  // character replaced by the station's digit. Returns stations + 1; 0 unless booted or booting.
  int SendStationCommand(const char* command, unsigned stationMask, int stations) override;

  // While records are sent or due, the settings from here on to SetProtocol first wait for silence,
  // and start the stream again at the end. No record in the old form is then left to be decoded in
  // the new one, and no record stands before the unit's reply.

  // Switches the first `stations` (0: all) stations on and off. Does nothing for mask 0, before
  // boot, and on InterSense units: their active stations are those with a sensor plugged in.
  unsigned SetSensorMask(unsigned mask, int stations) override;

  // ---- Settings ----------------------------------------------------------------------------

  int SetUnits(int units) override;

  // Before boot the setting is only stored; Boot uses it. Returns 1.
  int SetCrLf(int on) override;

  // 1: 14 bit, 2: 16 bit, 3: 32 bit. The FASTRAK class refuses 2, its InterSense units also 1; the
  // IsoTRAK class takes 3 for 2.
  // Returns the protocol now in force; 0 for a refusal and before boot.
  int SetProtocol(int protocol) override;

  int SetSensorVector4(int sensor, float a, float b, float c, float d) override;

  // Sets the alignment reference frame of a station (-1: all), by the directions of its axes or as
  // a pose. Returns the number of the last station set; 0 for an invalid sensor.
  int SetAlignment(int sensor, const float xAxis[3], const float yAxis[3]) override;
  int SetAlignmentPose(int sensor, const float pose[6]) override;
  int ResetAlignment(int sensor) override;

  int SetSynchronization(int mode) override;  // returns 1; 0 for an unknown mode

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

  // Keeps the line free of records while it lives; starts a stream that it has ended again. Does
  // nothing within another one, and before boot.
  class QuietLine {
   public:
    explicit QuietLine(FastrakDevice& device);
    ~QuietLine();
    QuietLine(const QuietLine&) = delete;
    QuietLine& operator=(const QuietLine&) = delete;

   private:
    FastrakDevice& device_;
    const bool streamed_;
  };

  // fastrak_boot.cpp
  BootResult FindUnit(int reset);
  BootResult FindKnownUnit(int reset);
  BootResult Identify(int reset, int patienceMs, std::span<char> failure);
  BootResult WakeUnit(int patienceMs);
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
  bool IsStreaming() const { return booted_ && lastModeByte_ == continuousByte_; }
  void AwaitQuiet();
  bool IsFastrakClass() const { return (statusWord_ & kFastrakClass) != 0; }
  std::uint32_t Model() const { return statusWord_ & 0xFFFF; }
  void WriteCommand(std::string_view command, unsigned pauseMs);
  bool SetOutputList(int protocol, unsigned components, int crLf, unsigned stationMask);
  void WriteOutputList(const std::array<const char*, 3>& items, unsigned stationMask);
  void LayOutRecords();
  void SwitchStations(unsigned mask, int stations);
  void TakeReportedStations(unsigned mask, int stations, unsigned reported);
  int SendAlignment(int sensor, Alignment alignment);

  // fastrak_frame.cpp
  struct Reading {
    Pose pose{};
    Quaternion quaternion{};
    double time = 0;  // s
  };
  unsigned ReadStations(double* sampleTime);
  bool ReadStation(int station, double*& sampleTime);
  bool FindHead(int station);
  void PostNoHead() const;
  std::size_t SizeToSkip(int other);
  int StationAhead();
  bool BeginsLikeHead(std::span<const std::byte> bytes) const;
  void NoteBitError(int station, int code);
  bool ReadRest(int station);
  void PostShortRecord() const;
  bool IsCutByAnother(int station);
  bool IsLastActive(int station) const;
  bool HoldsHead() const;
  bool Decode(int station, double time, Reading& reading);
  bool Keep(int station, const Reading& reading);
  MotionGate::Sample SampleOf(const Reading& reading) const;
  MotionGate::Source SourceOfRecords() const;
  bool HasTail() const;
  void PostOutOfStep() const;

  FastrakFormat modelFormat_ = FastrakFormat::Bits32;  // the model's own: 16 or 32 bits
  FastrakLayout layout_;
  int frameLength_ = 0;  // bytes of all active stations' records; a head is searched this far

  int knownRate_ = 0;             // baud, at which the unit was found; 0 before
  std::string usbUnit_;           // "usb:1-2", the unit that was opened; empty before
  std::uint16_t usbProduct_ = 0;  // of that unit
  std::string usbRefusal_;        // printed last
  int failedBoots_ = 0;           // since then

  // Sampling thread only.
  StreamBacklog backlog_;
  RecordWindow window_;
  std::array<MotionGate, 16> gates_;
  bool heldBack_ = false;                // a record of the frame being read, because its pose jumps
  bool outOfStep_ = false;               // in the frame being read
  std::array<int, 16> lastErrorCode_{};  // of the station's last record, 0 none
  std::array<int, 16> errorRunCount_{};  // records in a row with that code
};

}  // namespace kinetrel
