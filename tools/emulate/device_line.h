// The device's end of its line. The bytes it sends wait here, leave at the line's real speed, and
// suffer the faults that are due.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "emulate/faults.h"
#include "emulate/time_and_chance.h"

namespace kinetrel::emulate {

// Shows a person a line of text about what happened at that time.
using ShowLine = std::function<void(Moment, const std::string&)>;

struct LineOptions {
  unsigned baud = 9600;
  double clockPpm = 0;  // the device's clock is faster by this many millionths
  Moment jitter{0};     // standard deviation of the time at which a record leaves
  bool whole = false;   // hand over each record in one piece, when its last byte is out
  bool wired = false;   // a real line takes the time itself: hand over as soon as it is free
  std::uint64_t seed = 1;
  std::vector<FaultRule> faults = {};
  ShowLine show = {};    // empty: no text is wanted
  bool anyRate = false;  // it fits every rate of the host
};

class DeviceLine {
 public:
  explicit DeviceLine(LineOptions options);

  // ---- The device's side -----------------------------------------------------------------------

  unsigned baud() const { return options_.baud; }
  bool Fits(unsigned hostBaud) const { return options_.anyRate || hostBaud == options_.baud; }
  void SetBaud(unsigned baud) { options_.baud = baud; }  // for later bytes

  // The first byte starts at `start`, or when all that was sent before is out; each takes ten bits.
  // With jitter a record starts later, by three times the jitter on average and never out of order.
  // Faults count and damage records only. Bytes beyond the device's buffer are lost.
  void SendRecord(Moment start, std::span<const std::byte> bytes);
  void SendReply(Moment start, std::span<const std::byte> bytes);

  Moment FreeAt() const { return freeAt_; }  // when all that was sent so far is out
  void DropWaiting();                        // drops the bytes that have not left yet

  // A fault of the device's own making, which concerns the port.
  void Raise(const Fault& fault) { foreignFaults_.push_back(fault); }

  bool Shown() const { return static_cast<bool>(options_.show); }
  void Say(Moment now, const std::string& text) const;

  // ---- The emulator's side ---------------------------------------------------------------------

  Moment NextDeparture() const;

  // Appends the bytes that have left by `now`, in the pieces in which a serial port hands them
  // over.
  void Take(Moment now, std::vector<std::byte>& into);

  Moment NextFault() const { return faults_.NextTime(); }
  std::vector<Fault> TakeDueFaults(Moment now) { return faults_.TakeDue(now); }
  std::vector<Fault> FaultsFor(FaultTrigger asked) const { return faults_.For(asked); }

  // Faults that a record triggered and that concern the device or the port, not the line.
  std::vector<Fault> TakeForeignFaults();

  // False: this fault does not concern the line.
  bool Strike(Moment now, const Fault& fault);

  std::byte Noise() { return random_.Byte(); }
  std::uint64_t records() const { return records_; }

 private:
  struct Burst {
    Moment start;
    unsigned baud;
    std::vector<std::byte> bytes;
    std::size_t gone = 0;
    Moment EndOf(std::size_t count) const { return NthOf(start, count, baud / kBitsPerByte); }
  };
  static constexpr double kBitsPerByte = 10;  // with start and stop bit

  void Send(Moment start, std::vector<std::byte> bytes);
  bool StrikeBytes(Moment now, const Fault& fault);
  void Damage(std::vector<std::byte>& record);
  std::size_t NextPiece(const Burst& burst) const;
  Moment DepartureOf(const Burst& burst) const;  // of the next piece

  LineOptions options_;
  FaultSchedule faults_;
  RandomSource random_;
  RandomSource jitter_;  // apart, so that faults are the same with and without
  std::deque<Burst> bursts_;
  std::size_t waiting_ = 0;
  Moment freeAt_{0};
  Moment silentUntil_{0};
  std::optional<Fault> cut_;  // for the next record, as garble_ is
  std::optional<Fault> garble_;
  std::vector<Fault> foreignFaults_;
  std::uint64_t records_ = 0;
};

}  // namespace kinetrel::emulate
