// A GPS receiver that talks TSIP. 9600 baud, 8 data bits, no parity, one stop bit.
//
// A packet is DLE (10h), an identifier, data, DLE, ETX (03h); a 10h among the data is sent twice.
// Numbers are big-endian. Unasked, it sends its position and velocity at its rate; once a second
// the time, the satellites in use, their levels, and one of them in detail; every five seconds its
// health and identity. A host may ask with packets:
//   21h  time                       1Fh  version            26h  health and identity
//   22h, 24h  satellites in use     2Ch  what it requires   35h  which reports it sends
//   37h  position and velocity      3Ch  each satellite in detail, or the one that is named
// Any other packet is answered with 13h: its identifier and first byte.
//
// It follows the motion with centimetres as metres: x north of its origin, y east, z up. Its
// satellites rise and set.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "emulate/emulated_device.h"
#include "emulate/motion.h"
#include "emulate/options.h"
#include "emulate/wire_writer.h"

namespace kinetrel::emulate {

// Degrees and metres.
struct GpsPlace {
  double latitude = 1;
  double longitude = 1;
  double altitude = 100;
};

struct GpsSettings {
  GpsPlace origin = {};
  double rate = 5;          // positions a second
  unsigned satellites = 8;  // 0 to 15
};

// A satellite as the receiver sees it.
struct GpsSky {
  unsigned prn;
  double elevation;  // radians
  double azimuth;    // radians
  double level;
};
GpsSky SatelliteAt(unsigned index, double seconds);

// A whole packet on the wire.
WireWriter TsipPacket(std::uint8_t id, const WireWriter& data);

WireWriter EncodePosition(const GpsPlace& place, double seconds);

class GpsEmulator final : public EmulatedDevice {
 public:
  GpsEmulator(GpsSettings settings, std::shared_ptr<const Motion> motion);

  std::string Name() const override { return "GPS receiver"; }
  void PowerOn(Moment now, DeviceLine& line) override;
  void Receive(Moment now, std::span<const std::byte> bytes, DeviceLine& line) override;
  Moment NextEvent() const override;
  void OnEvent(Moment now, DeviceLine& line) override;

  // The receiver loses its fix for that many seconds (5): it sends no positions.
  bool RaiseError(Moment now, std::optional<int> code) override;

 private:
  const char* Obey(Moment now, DeviceLine& line);
  void Send(Moment now, std::uint8_t id, const WireWriter& data, DeviceLine& line);
  void SendPosition(Moment now, DeviceLine& line);
  void SendTime(Moment now, DeviceLine& line);
  void SendHealth(Moment now, DeviceLine& line);
  void SendSatellites(Moment now, DeviceLine& line);
  void SendSelection(Moment now, DeviceLine& line);
  void SendDetail(Moment now, unsigned index, DeviceLine& line);
  void SendDetails(Moment now, unsigned prn, DeviceLine& line);  // 0: of all
  GpsPlace PlaceAt(double seconds) const;
  bool HasFix(Moment now) const { return now >= fixAt_ && motion_->Has(0); }

  const GpsSettings settings_;
  const std::shared_ptr<const Motion> motion_;

  Moment start_{0};
  std::uint64_t slot_ = 0;     // positions due so far
  std::uint64_t seconds_ = 0;  // whole seconds reported so far
  std::uint64_t frame_ = 0;    // positions sent
  Moment fixAt_{0};

  // The packet that comes from the host.
  enum class Place { Outside, Mark, Inside, MarkInside };
  Place place_ = Place::Outside;
  unsigned request_ = 0;
  std::vector<unsigned> data_;  // its first bytes
};

// ---- For the table of devices -------------------------------------------------------------------

OptionTable GpsOptions();
std::unique_ptr<EmulatedDevice> MakeGps(OptionValues& options,
                                        std::shared_ptr<const Motion> motion);

}  // namespace kinetrel::emulate
