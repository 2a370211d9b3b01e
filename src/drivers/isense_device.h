// InterSense trackers (IS-300, IS-600, IS-900, InterTrax, InertiaCube), reached through the
// vendor's library. The library uses the port, finds the model and filters; this driver asks it for
// the orientation of station 1 once a frame:
//   format      orientation[0..3]
//   Euler       yaw, pitch, roll in degrees, (unused); yaw and pitch with opposite sign
//   quaternion  w, x, y, z; y and z with opposite sign
// Positions are not read.
//
// A port number below 1000 is a serial or USB port; with 0 the library searches. From 1000 on it is
// a UDP port to which another computer or another Kinetrel sends its records. The driver listens on
// that port and lets the library open it when the first datagram has arrived.
#pragma once

#include "devices/optional_interfaces.h"
#include "devices/tracker_device.h"
#include "drivers/isense_records.h"
#include "drivers/isense_udp_probe.h"
#include "platform/timer.h"

namespace kinetrel {

// The codes of this driver's refusals.
enum class IsenseFailure : int {
  OpenFailed = -4,
  NoTrackerConfig = -13,
  NoStationConfig = -14,
  LevelOutOfRange = -20,
  StationConfigRefused = -21,
};

class IsenseDevice final : public TrackerDevice, public OwnConnection {
 public:
  IsenseDevice();
  ~IsenseDevice() override;

  // ---- Port --------------------------------------------------------------------------------

  // name     a word and the port number ("COM 3"); 0 without a number.
  // Returns  1; -4 when the library refuses the port. A UDP port always opens. Without the library
  //          any port opens, and Boot reports the failure.
  int OpenPort(const char* name, int baud) override;
  int OpenPortNumber(int number, int baud) override;

  int ClosePort() override;         // 1
  int GetPortNumber() override;     // 0 when closed
  unsigned GetBaudRate() override;  // the library's bits per second, or 38400 without them

  // ---- Life --------------------------------------------------------------------------------

  // Asks for the model, which decides rate, sensors, components and name. A UDP port without a
  // sender boots as an InertiaCube2.
  //
  // Returns  kBooted; 0 when the port does not open or memory is short; -13 when a tracker on a
  // serial
  //          or USB port does not tell its configuration.
  BootResult Boot(int reset) override;

  // True when the library has lost the tracker on a serial or USB port, or could not open it again.
  bool ConnectionLost() override;

  // False on a UDP port: its sender may stop and start at any time.
  bool MayBeRestarted() const override { return port_ < kFirstUdpPort; }

  // Returns 1, or -13 when the tracker does not tell its configuration. With a size below 100
  // nothing is written.
  int QueryStatus(char* text, int size) override;

  // ---- Sampling ----------------------------------------------------------------------------

  // Reads a new record of station 1, for which it waits at most two periods. Sends the record on to
  // the port of SetControlString.
  //
  // Returns  1; 0 when the library fails, has no new record, or could not send it on. On a UDP port
  //          without a sender: 1 and a pose of zeros, after 1 s.
  unsigned ReadFrame(double* sampleTime) override;

  void Poll() override;  // waits for the next period of the tracker's rate, at most two

  // ---- Settings ----------------------------------------------------------------------------

  // level    how much the library smooths: 0 not, 1 a little, 2 strongly.
  // Returns  the level now in force; -20, -14 or -21 for a refusal.
  int SetProtocol(int level) override;

  // Euler angles or a quaternion, by the tracker itself; of both, Euler angles.
  unsigned SetComponentMask(unsigned mask) override;

  // text     the UDP port to which records are sent on, in C notation; 0 to 1000: no port. An empty
  //          text changes nothing. Returns false, and sends no more, for a text without a valid
  //          port number.
  bool SetControlString(const char* text) override;

  // ---- Identity ----------------------------------------------------------------------------

  int GetProtocolText(char* text, int size) override;
  bool GetControlString(char* text, int size) override;

 private:
  static constexpr int kFirstUdpPort = 1000;

  bool HasTracker() const { return trackerHandle_ >= 1; }
  bool IsTrackerLive() const;
  bool OpenSource(int port);
  bool OpenTracker(int port, bool infoScreen);
  void LookForSource(int port);
  void ReportUdpPort(int port, const Status& opened);
  void CloseTracker();
  float MeasureKBits();
  bool ReadTrackerConfig(IsenseTrackerInfo& info, char* text, int size);
  bool ReadStationConfig(IsenseStationInfo& info, char* text, int size);
  void SetUpModel(std::uint32_t model);
  void StartTimer();
  void SetScales();
  void StoreOrientation(const IsenseStationData& station);
  bool TakeNewData();
  unsigned ReportNoSource(double* sampleTime);

  int port_ = 0;
  int trackerHandle_ = 0;  // the library's handle; 0 and below: no tracker
  IsenseTrackerData data_;
  int rebroadcastPort_ = 0;
  UdpProbe probe_;
  bool busyReported_ = false;  // the UDP port did not open
  PeriodicTimer frameTimer_;
  int framePeriodMs_ = 100;
};

}  // namespace kinetrel
