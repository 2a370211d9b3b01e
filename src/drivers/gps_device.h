// A GPS receiver with the TSIP protocol at 9600 baud, as a tracker with fifteen sensors. It sends
// reports by itself; gps_reports.h describes them.
//   sensor  x, y, z                                            yaw, pitch
//   0       north, east and up of the origin                   -
//   1       km along the meridian, km along the equator, up    -
//   2       latitude, longitude in degrees without sign, up    -
//   3..14   number of satellites, PRN, signal level            elevation, azimuth in radians
// Lengths are in the configured unit, except those in km. The origin is the first fix, until
// SetProtocol moves it.
#pragma once

#include "devices/tracker_device.h"
#include "drivers/gps_reports.h"

namespace kinetrel {

class GpsDevice final : public TrackerDevice {
 public:
  GpsDevice();

  // ---- Port --------------------------------------------------------------------------------

  // Opens at 9600 baud, 8N1, RTS off; `baud` is ignored. An open port stays as it is.
  //
  // Returns  1 open; 0 failed; -5 the port refused the settings.
  int OpenPort(const char* name, int baud) override;

  int ClosePort() override;  // 1 closed; -4 none was open

  // ---- Life --------------------------------------------------------------------------------

  // Waits up to two seconds for the first byte of the protocol; a receiver sends reports at least
  // once a second. The origin of an earlier boot stays, so that a receiver that was unplugged goes
  // on in the same frame.
  //
  // Returns  kBooted, also when the receiver was booted before and the port not closed since; 0
  // when
  //          no port is open, no byte of the protocol comes, or memory is short.
  BootResult Boot(int reset) override;

  int QueryStatus(char* text, int size) override;  // -13: it has no status text

  // ---- Sampling ----------------------------------------------------------------------------

  // Reads until a report concerns an active sensor, for up to 1.5 s. With sensor 3 active, any
  // packet ends the wait. Reports once that the receiver has no fix, or that it sends NMEA text.
  //
  // sampleTime  when the report's last byte was read.
  // Returns     bits 0 to 2 for a position, bit 3 + k for satellite k, and bit 3 for any byte of
  // the
  //             protocol or line of text; 0 when none came.
  unsigned ReadFrame(double* sampleTime) override;

  void Poll() override;  // does nothing: the receiver sends by itself

  // ---- Settings ----------------------------------------------------------------------------

  int SetUnits(int units) override;  // 0 inch, 1 centimetre, 2 metre; others are refused

  // Makes the current fix the origin and stores the number.
  int SetProtocol(int protocol) override;

  // ---- Identity ----------------------------------------------------------------------------

  int GetProtocolText(char* text, int size) override;
  int GetFrameRate() override;  // Hz of all sensors together

  // ---- Receiver ----------------------------------------------------------------------------

  const GpsState& gps() const { return reports_.state(); }

 private:
  unsigned UpdatedSensors() const;
  unsigned SatelliteMask() const;
  unsigned ReadWaiting(unsigned& accepted);
  unsigned Listen(Milliseconds patience, unsigned wanted);
  bool HasEnough(unsigned wanted, unsigned accepted);
  void WatchReceiver(unsigned updated);
  void ReportFix(const char* what);
  void PublishPosition();
  void PublishSatellites();

  GpsReports reports_;
  double unitScale_ = 1.0;  // configured length units in a metre

  static constexpr Milliseconds kSilence{3000};
  Deadline packetDue_{kSilence};  // then the receiver counts as one that sends no packets
  Deadline fixDue_{kSilence};     // then the receiver counts as one without a fix
  bool everFixed_ = false;
  bool noFixReported_ = false;
  bool nmeaReported_ = false;
};

}  // namespace kinetrel
