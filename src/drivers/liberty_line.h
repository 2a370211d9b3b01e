// A Liberty or one of its relatives, spoken to with its own command set: what every such tracker
// can do, and the tracker at the far end of a line. Our own device library (vendor/pdi_library.cpp)
// has it behind the vendor's calls.
//
// Threads  one call at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "platform/byte_line.h"
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

  // 1 60 Hz, 3 120 Hz, 4 240 Hz.
  virtual bool SetRate(int code) = 0;
  virtual bool GetRate(int& code) = 0;
  virtual bool SetMetric(bool on) = 0;
  virtual bool SetSync(bool on) = 0;
  virtual bool Align(int station, std::span<const float, 9> points) = 0;
  virtual bool SetHemisphere(int station, std::span<const float, 3> zenith) = 0;
  virtual bool BitErrors(std::span<std::uint32_t> words, std::size_t& count) = 0;
  virtual bool ClearBitErrors() = 0;

  // What is connected, for people.
  virtual std::string Description() { return "done"; }
};

// A line to a tracker, as it was found.
struct LibertyConnection {
  std::unique_ptr<ByteLine> line;
  std::string name = {};      // of the unit, for people; empty: unknown
  bool isPatriot = false;     // two stations, 60 Hz, neither rates nor synchronisation to set
  std::size_t perSecond = 0;  // bytes that the line carries
  bool hasFifo = false;       // the unit keeps old frames for a late host, unless told not to
};

// Opens the line to the tracker at COM<port>, or wherever the opener knows it; empty when there is
// none, and `why` then says so in one line for a person.
using LibertyOpener = std::function<LibertyConnection(int port, unsigned baud, std::string& why)>;

// Nothing is written to the tracker's permanent memory: it forgets its settings when it is switched
// off. Connect refuses another unit than the first one, as far as units say who they are: by the
// answers to ^V, and to ^V with the number of a station. The manual leaves open whether the latter
// is of the unit or of its sensor, so one that is the same is enough.
std::unique_ptr<LibertyTracker> MakeLineLiberty(LibertyOpener opener);

// On the serial port COM<port>.
std::unique_ptr<LibertyTracker> MakeSerialLiberty();

}  // namespace kinetrel
