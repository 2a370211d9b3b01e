// A GPS receiver that talks TSIP at 9600 baud, as a tracker with fifteen sensors. It reports by
// itself; gps_reports.h has the packets.
//   sensor  x, y, z                                            yaw, pitch
//   0       north, east and up of the origin                   -
//   1       km along the meridian, km along the equator, up    -
//   2       latitude, longitude in degrees without sign, up    -
//   3..14   satellites in all, PRN, signal level               elevation, azimuth in radians
// Lengths other than km are in the configured unit. The origin is the first fix, until
// SetProtocol moves it.
#pragma once

#include "devices/tracker_device.h"
#include "drivers/gps_reports.h"

namespace kinetrel {

class GpsDevice final : public TrackerDevice {
 public:
  GpsDevice();

  // ---- Port --------------------------------------------------------------------------------

  // At 9600 baud, 8N1, RTS off, whatever is asked for. An open port is left as it is.
  //
  // Returns  1 open; 0 failed; -5 the port takes no such settings.
  int OpenPort(const char* name, int baud) override;

  int ClosePort() override;  // 1 closed; -4 none was open

  // ---- Life --------------------------------------------------------------------------------

  // Listens for reports, up to two seconds: a receiver sends one a second at the least. The origin
  // of an earlier boot stays, so that a receiver that was unplugged goes on in the same frame.
  //
  // Returns  kBooted, also when it has been booted since the port was opened; 0 when no port is
  //          open, nothing like TSIP comes, or there is no memory.
  BootResult Boot(int reset) override;

  int QueryStatus(char* text, int size) override;  // -13: it tells nothing

  // ---- Sampling ----------------------------------------------------------------------------

  // Takes reports until one is about an active sensor, up to 1.5 s.
  //
  // sampleTime  when the report's last byte was in hand.
  // Returns     bits 0 to 3 for a position, bit 3 + k for satellite k, and bit 3 for anything that
  //             a receiver sends; 0 for none of it.
  unsigned ReadFrame(double* sampleTime) override;

  void Poll() override;  // nothing: reports come by themselves

  // ---- Settings ----------------------------------------------------------------------------

  int SetUnits(int units) override;  // 0 inch, 1 centimetre, 2 metre; others are refused

  // Takes the present fix as the origin, whatever the number.
  int SetProtocol(int protocol) override;

  // ---- Identity ----------------------------------------------------------------------------

  int GetProtocolText(char* text, int size) override;
  int GetFrameRate() override;  // Hz of all sensors together

  // ---- Receiver ----------------------------------------------------------------------------

  const GpsState& gps() const { return reports_.state(); }

 private:
  unsigned News() const;
  unsigned SatelliteMask() const;
  unsigned TakeWaiting(unsigned& accepted);
  unsigned Listen(Milliseconds patience, unsigned wanted);
  void PublishPosition();
  void PublishSatellites();

  GpsReports reports_;
  double unitScale_ = 1.0;  // configured length units in a metre
};

}  // namespace kinetrel
