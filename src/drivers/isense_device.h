// InterSense trackers (IS-300, IS-600, IS-900, InterTrax, InertiaCube), reached through the
// vendor's library. The library speaks to the port, finds the model and does the filtering; this
// driver asks it for the orientation of station 1 once a frame:
//   format      orientation[0..3]
//   Euler       yaw, pitch, roll in degrees, (unused); yaw and pitch count the other way
//   quaternion  w, x, y, z; y and z count the other way
// Positions are not read.
//
// A port number below 1000 is a serial or USB port, 0 lets the library search. From 1000 on it is a
// UDP port: another computer, or another Kinetrel, passes its records on to it. Such a source is
// waited for, frame by frame, and the library opened on the port when something comes.
#pragma once

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

class IsenseDevice final : public TrackerDevice {
 public:
  IsenseDevice();
  ~IsenseDevice() override;

  // ---- Port --------------------------------------------------------------------------------

  // name     a word and the port number ("COM 3"); without a number 0.
  // Returns  1; -4 when the library refuses the port. A UDP port always opens. So does any port
  //          while the library is missing: Boot says so then.
  int OpenPort(const char* name, int baud) override;
  int OpenPortNumber(int number, int baud) override;

  int ClosePort() override;         // 1
  int GetPortNumber() override;     // last opened, 0 when closed
  unsigned GetBaudRate() override;  // bits a second as the library tells; 38400 if it does not

  // ---- Life --------------------------------------------------------------------------------

  // Asks for the model and sets rate, sensors, components and name by it. A UDP port whose source
  // has not come yet boots as an InertiaCube2.
  //
  // Returns  kBooted; 0 when the port does not open, or without memory; -13 when a tracker on a
  //          serial or USB port does not tell its configuration.
  BootResult Boot(int reset) override;

  // Returns 1, or -13 when the tracker does not tell its configuration. Below 100 bytes of room
  // nothing is written.
  int QueryStatus(char* text, int size) override;

  // ---- Sampling ----------------------------------------------------------------------------

  // Takes a new record of station 1, for which it waits at most two periods, and passes it on
  // where SetControlString says.
  //
  // Returns  1; 0 when the library fails or has nothing new, or the record could not be passed on.
  //          A UDP source that has not come yet: 1 and a pose of zeros, after 1 s.
  unsigned ReadFrame(double* sampleTime) override;

  void Poll() override;  // waits for the next period of the tracker's rate, at most two

  // ---- Settings ----------------------------------------------------------------------------

  // level    how the library smooths: 0 accurate, 1 gently, 2 strongly.
  // Returns  the level now in force; -20, -14 or -21 for a refusal.
  int SetProtocol(int level) override;

  // Euler angles or a quaternion, by the tracker itself; of both, Euler angles.
  unsigned SetComponentMask(unsigned mask) override;

  // text     the UDP port to which records are passed on, as C writes integers; 0 to 1000: none.
  //          Empty changes nothing. False, and none, for a text without a number or a number that
  //          is no port.
  bool SetControlString(const char* text) override;

  // ---- Identity ----------------------------------------------------------------------------

  int GetProtocolText(char* text, int size) override;
  bool GetControlString(char* text, int size) override;

 private:
  bool HasTracker() const { return trackerHandle_ >= 1; }
  bool IsLive() const;
  bool OpenSource(int port);
  bool OpenTracker(int port, bool infoScreen);
  void LookForSource(int port);
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
  int trackerHandle_ = 0;  // as the library gave it: 0 and below are none
  IsenseTrackerData data_;
  int rebroadcastPort_ = 0;
  UdpProbe probe_;
  PeriodicTimer frameTimer_;
  int framePeriodMs_ = 100;
};

}  // namespace kinetrel
