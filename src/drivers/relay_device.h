// A tracker that is another machine's: follows one mapping of the tracking service there, and
// delivers its angles as its own sensor 0.
//
// Which one is said by the control string "host:a, b, c": the host's name or address, and the
// mapping's key there (device, bin, pose slot). Without one, the environment variable
// KINETREL_RELAY holds it.
//
// The connection is kept from frame to frame and made anew after a failure, at most once a second.
// No frame takes longer than kFrameTime, whatever the service does.
#pragma once

#include <string>

#include "devices/tracker_device.h"
#include "platform/timer.h"
#include "rpc/track_client.h"

namespace kinetrel {

class RelayDevice final : public TrackerDevice {
 public:
  static constexpr Milliseconds kFrameTime{1800};
  static constexpr Milliseconds kRest{1000};  // after a failure, before the next attempt
  static constexpr unsigned kCheckInterval =
      240;  // frames from one look at the mapping to the next

  explicit RelayDevice(std::uint16_t port = rpc::kTrackPort);

  // ---- Port ----
  int OpenPort(const char* name, int baud) override;  // the simulated one, whatever the name

  // ---- Life ----

  // Starts the pace of the frames. Always succeeds: the service may come later.
  BootResult Boot(int reset) override;
  int QueryStatus(char* text, int size) override;  // an empty text: there is no instrument

  // ---- Sampling ----

  // Fetches the angles, once per period of the frame rate. The position stays as it is.
  //
  // Returns  1 when they came and are numbers.
  // Memory   nothing is allocated while the connection stands.
  unsigned ReadFrame(double* sampleTime) override;
  void Poll() override {}

  // ---- Stations ----
  unsigned SetSensorMask(unsigned mask, int sensorCount) override;  // there is one: ignored, 0

  // ---- Settings ----

  // The text as above; blanks may stand before a number, nothing between it and its comma. False,
  // said in the log, and nothing changed for another text.
  bool SetControlString(const char* text) override;

  // ---- Identity ----
  bool GetControlString(char* text, int size) override;

 private:
  bool Connect();
  unsigned FetchAngles();
  bool CheckMapping();
  bool Survives(rpc::CallResult result);
  void Report(const char* problem);
  void ReportFault();

  rpc::RpcTrackClient client_;
  rpc::TrackKey key_{};
  std::string host_ = "hostname";
  bool told_ = false;  // whom to follow
  PeriodicTimer frameTimer_;
  Milliseconds framePeriod_{10};
  bool reconnect_ = true;
  bool reportFailures_ = true;  // once each, until a success
  bool reportFault_ = true;
  Deadline rest_{Milliseconds(0)};
  unsigned frameCounter_ = 0;
};

}  // namespace kinetrel
