// The Polhemus Liberty, up to 16 stations at 120 or 240 Hz, through its device library: see
// interface/pdi_table.h for the library and liberty_frame.h for what it sends.
//
// Poses come out of the last frame: a sensor's index counts the active stations in the order of
// their numbers. The device's own records and sensor count stay empty.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "devices/optional_interfaces.h"
#include "devices/tracker_device.h"
#include "drivers/liberty_frame.h"
#include "drivers/liberty_pdi.h"
#include "filters/offset_filter.h"
#include "platform/timer.h"

namespace kinetrel {

// Threads  any: every call of the library is made under a lock of our own, also while ReadFrame
//          waits for a frame. So a setting waits for a frame, a second at the most.
class LibertyDevice final : public TrackerDevice, public OwnConnection, public PackedRecords {
 public:
  LibertyDevice();
  ~LibertyDevice() override;

  // ---- Port --------------------------------------------------------------------------------

  int OpenPort(const char* name, int baud) override;  // not by name: 0

  // Remembers where Boot shall look. 0 for a baud rate that the library does not know; the number
  // is then taken all the same.
  int OpenPortNumber(int number, int baud) override;
  int ClosePort() override;
  int GetPortNumber() override;
  unsigned GetBaudRate() override;

  // ---- Life --------------------------------------------------------------------------------

  // Connects, tells the tracker what to send, reports and clears the errors of its built-in test.
  // Returns kBooted, or 0 where no tracker is found.
  BootResult Boot(int reset) override;
  int QueryStatus(char* text, int size) override;  // 0: it has none
  bool ConnectionLost() override;

  // ---- Sampling ----------------------------------------------------------------------------

  // Waits for a frame that differs from the last one by its counter, some 500 ms at 1 ms a look.
  //
  // Returns  the mask of the active stations; 0 when none came or nothing is connected.
  unsigned ReadFrame(double* sampleTime) override;
  void Poll() override;  // ends continuous output; ReadFrame then asks for each frame
  void StartContinuous() override;

  // ---- Stations ----------------------------------------------------------------------------

  unsigned SetSensorMask(unsigned mask, int sensorCount) override;

  // With stations 1 and 3 active, sensor 2 (station 3) has record 1.
  int RecordOf(int sensor) override;

  // ---- Settings ----------------------------------------------------------------------------

  int SetUnits(int units) override;        // 0 inch; 1 and 2 centimetre; others change nothing: 0
  int SetCrLf(int on) override;            // 0: its records have no lines
  int SetProtocol(int protocol) override;  // the frame rate: 4 120 Hz, 5 240 Hz; others 0
  int SetSensorVector4(int sensor, float a, float b, float c, float d) override;
  int SetAlignment(int sensor, const float xAxis[3], const float yAxis[3]) override;
  int SetAlignmentPose(int sensor, const float pose[6]) override;
  int ResetAlignment(int sensor) override;
  int SetSynchronization(int mode) override;
  unsigned SetComponentMask(unsigned mask) override;
  int SetHemisphere(int sensor, const float zenith[3]) override;  // of all active stations, 1 to 8

  // One offset for all sensors.
  bool SetSensorOffsetComponent(int sensor, unsigned component, double value) override;
  bool SetSensorPositionOffset(int sensor, const float xyz[3]) override;
  bool SetSensorOffset(int sensor, const float pose[6]) override;

  // ---- Identity ----------------------------------------------------------------------------

  int GetProtocolText(char* text, int size) override;
  int GetFrameRate() override;  // of the whole tracker, 120 or 240, whatever the active stations

  // ---- Records -----------------------------------------------------------------------------
  // Null without a frame and for a sensor that is not in it. One record for all: each call writes
  // it anew.

  float* GetSensorOffset(int sensor) override;  // zeros
  float* GetSensorPose(int sensor) override;    // null unless position and angles are delivered
  float* GetSensorPosition(int sensor) override;
  float* GetSensorEuler(int sensor) override;
  float* GetSensorQuaternion(int sensor) override;

 private:
  static constexpr std::size_t kMostStations = 16;
  static constexpr std::size_t kLongestFrame = kMostStations * 64;

  void Connect();
  void ReportBitErrors();
  void ReadStationMap();
  void StopStream();
  void StartStream();
  void RefreshStations();
  void LayOutRecord();
  bool WaitForFrame();
  bool TakeFrame();
  int Align(int sensor, const float origin[3], const float xAxis[3], const float yAxis[3]);
  bool Tell(int result, const char* call);
  bool ReadFloats(int sensor, std::size_t offset, std::span<float> into);

  std::recursive_mutex pdiLock_;  // every library call, and all below
  CPDImdat motionList_;
  CPDIdev pdiDevice_;
  CPDIser pdiSerial_;
  LibertyLayout layout_;
  std::size_t expectedFrameSize_ = 0;  // active stations x record size
  std::uint32_t stationMap_ = 0;       // bit i: station i + 1 is active
  int activeStationCount_ = 0;
  OffsetFilter offsetFilter_;
  std::array<float, 3> positionOffset_{};
  std::array<float, 3> eulerOffset_{};
  Pose zeroOffset_{};
  Pose poseOut_{};
  Quaternion quaternionOut_ = kIdentityQuaternion;
  // Ours, as the library's memory is good until its next call only, and a frame stays readable.
  std::array<std::byte, kLongestFrame> frame_{};
  std::size_t frameSize_ = 0;  // 0: none
  std::uint32_t lastFrameCount_ = 0xFFFFFFFF;
  bool paused_ = false;
  PeriodicTimer frameTimer_;
  int framePeriodMs_ = 1;
  bool streaming_ = false;
  TimerResolution resolution_;
};

}  // namespace kinetrel
