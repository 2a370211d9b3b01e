// Follows one mapping of the tracking service on another machine and delivers its angles as sensor
// 0.
//
// The control string "host:a, b, c" names the host and the mapping's key there (device, bin, pose
// slot). Without a control string the environment variable KINETREL_RELAY is used.
//
// The connection stays open from frame to frame. After a failure it is made again, at most once a
// second; the failure and its end are reported once each. No frame takes longer than kFrameTime,
// whatever the service does.
#pragma once

#include <string>

#include "devices/tracker_device.h"
#include "platform/timer.h"
#include "rpc/track_client.h"

namespace kinetrel {

class RelayDevice final : public TrackerDevice {
 public:
  static constexpr Milliseconds kFrameTime{1800};
  static constexpr Milliseconds kRest{1000};       // after a failure, before the next attempt
  static constexpr unsigned kCheckInterval = 240;  // frames between two checks of the mapping

  explicit RelayDevice(std::uint16_t port = rpc::kTrackPort);

  // ---- Port ----
  int OpenPort(const char* name, int baud) override;  // always the simulated port

  // ---- Life ----

  // Starts the frame timer. Always succeeds, because the service may start later.
  BootResult Boot(int reset) override;
  int QueryStatus(char* text, int size) override;  // writes an empty text

  // ---- Sampling ----

  // Fetches the angles, once per period of the frame rate. The position stays unchanged.
  //
  // Returns  1 when finite angles came, else 0.
  // Memory   nothing is allocated while the connection stands.
  unsigned ReadFrame(double* sampleTime) override;
  void Poll() override {}

  // ---- Stations ----
  unsigned SetSensorMask(unsigned mask, int sensorCount) override;  // ignored; returns 0

  // ---- Settings ----

  // Takes a text as above. Blanks are allowed before a number, but not between a number and its
  // comma. Returns false, logs and changes nothing for any other text.
  bool SetControlString(const char* text) override;

  // ---- Identity ----
  bool GetControlString(char* text, int size) override;

 private:
  bool Connect();
  unsigned FetchAngles();
  bool CheckMapping();
  bool KeepsConnection(rpc::CallResult result);
  void ReportTrouble(const char* problem);
  void ReportFault();
  void ReportReturn();

  rpc::RpcTrackClient client_;
  rpc::TrackKey key_{};
  std::string host_ = "hostname";
  bool hasTarget_ = false;  // host_ and key_ are set
  PeriodicTimer frameTimer_;
  Milliseconds framePeriod_{10};
  bool reconnect_ = true;
  bool reportFailures_ = true;  // each failure is reported once, until a success
  bool reportFault_ = true;
  bool inTrouble_ = false;  // a failure was reported, and its end was not
  Deadline rest_{Milliseconds(0)};
  unsigned frameCounter_ = 0;
};

}  // namespace kinetrel
