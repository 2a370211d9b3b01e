// A tracker as the substitute of the Liberty library knows it, however it is reached.
//
// Threads  one at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace kinetrel::substitute {

class PdiTracker {
 public:
  virtual ~PdiTracker() = default;

  // All: true for success. Stations count from 1; -1 is all of them.
  virtual bool Connected() = 0;
  virtual bool Connect(int port, unsigned baud) = 0;
  virtual void Disconnect() = 0;

  virtual bool SetItems(int station, std::span<const std::int32_t> items) = 0;
  virtual bool GetStations(std::uint32_t& map) = 0;
  virtual bool SetStations(std::uint32_t map) = 0;
  virtual int MostStations() = 0;
  virtual bool Start() = 0;
  virtual bool Stop() = 0;
  virtual bool Request() = 0;

  // The oldest frame that was not handed out, else the last one again.
  virtual bool LastFrame(const std::uint8_t*& frame, std::uint32_t& size) = 0;

  virtual bool SetRate(int code) = 0;
  virtual bool GetRate(int& code) = 0;
  virtual bool SetMetric(bool on) = 0;
  virtual bool SetSync(bool on) = 0;
  virtual bool Align(int station, std::span<const float, 9> points) = 0;
  virtual bool SetHemisphere(int station, std::span<const float, 3> zenith) = 0;
  virtual bool BitErrors(std::span<std::uint32_t> words, std::size_t& count) = 0;
  virtual bool ClearBitErrors() = 0;
};

// One that needs no hardware: its frames come by the clock, and each tells its number.
//   KINETREL_PDI_STATIONS  the mask of the sensors that are plugged; without: 15, the first four
//   KINETREL_PDI_MAP       the station map that it reports, whatever is plugged
//   KINETREL_PDI_BIT       the first word of its built-in test, until it is cleared
//   KINETREL_PDI_FRAMES    "stall@500+50": the same frame for 50 periods from frame 500 on,
//                          "jump@500+7": 7 frames missing, "lost@500+50": no connection for 50
//                          periods, "null@..", "short@..", "lie@..", "move@..": a frame without
//                          a place, cut in half, said to be of 4 GiB, and each call at another
//                          place while the one before is gone; several with commas
std::unique_ptr<PdiTracker> MakeKnownTracker();

// A Liberty on the serial port COM<port>.
std::unique_ptr<PdiTracker> MakeSerialTracker();

}  // namespace kinetrel::substitute
