// The Liberty behind our own device library (vendor/pdi_library.cpp): what every tracker there can
// do, and the tracker that is a real Liberty on a serial port.
//
// Threads  one call at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "platform/clock.h"

namespace kinetrel {

class LibertyTracker {
 public:
  virtual ~LibertyTracker() = default;

  // All return true for success. Stations count from 1; -1 stands for all stations.
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

  // The oldest frame that was not handed out yet, or the last one again. The bytes stay valid until
  // the next call.
  virtual bool LastFrame(const std::uint8_t*& frame, std::uint32_t& size) = 0;

  // The next record of the frame that LastFrame returns next, as soon as it came. False when none
  // did, and always from a tracker that tells whole frames only.
  virtual bool NextRecord(const std::uint8_t*&, std::uint32_t&) { return false; }

  // False when nothing has come within the time, or the tracker has gone.
  virtual bool AwaitRecord(Milliseconds timeout) = 0;

  virtual bool SetRate(int code) = 0;
  virtual bool GetRate(int& code) = 0;
  virtual bool SetMetric(bool on) = 0;
  virtual bool SetSync(bool on) = 0;
  virtual bool Align(int station, std::span<const float, 9> points) = 0;
  virtual bool SetHemisphere(int station, std::span<const float, 3> zenith) = 0;
  virtual bool BitErrors(std::span<std::uint32_t> words, std::size_t& count) = 0;
  virtual bool ClearBitErrors() = 0;
};

// A Liberty on the serial port COM<port>, spoken to with its own command set. Nothing is written to
// its permanent memory: it forgets its settings when it is switched off.
std::unique_ptr<LibertyTracker> MakeSerialLiberty();

}  // namespace kinetrel
