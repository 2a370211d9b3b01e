// A line that carries bytes both ways: a serial line or the pipes of a USB device.
//
// Received bytes are read ahead: one system call takes all that the system holds, and the reads
// that follow take from memory. Lengths, waits and purges count these bytes too.
//
// Threads  one at a time.
// Memory   the operations allocate nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>

#include "platform/clock.h"
#include "platform/status.h"

namespace kinetrel {

// When a read ends, in ms. With interval kReturnAtOnce and zeros it returns the bytes that are
// there, at once. Otherwise it ends after multiplier x count + constant (never, when both are 0),
// or when `interval` (if not 0) has passed since the last byte. Before the first byte no interval
// runs.
struct ReadTimeouts {
  static constexpr std::uint32_t kReturnAtOnce = 0xFFFFFFFF;
  std::uint32_t interval = kReturnAtOnce;
  std::uint32_t multiplier = 0;
  std::uint32_t constant = 0;
};

// Received and Sent: bytes. Lost: the far end hung up or was unplugged; told once for each opening.
enum class LineEvent { Received, Sent, Opened, Settings, Lost, Closed };

// Sees what passes over a line, for a capture.
//
// Threads  those that use the line, one at a time. A call neither waits nor allocates.
class LineTap {
 public:
  virtual ~LineTap() = default;

  // bytes  those that passed; of Opened the name of the port, of Settings the settings in words,
  //        which begin with the rate; else empty.
  // since  ClockTicks(), of Received: before that none of the bytes was there. Else the moment.
  virtual void OnLine(LineEvent event, std::span<const std::byte> bytes, std::int64_t since) = 0;
};

class ByteLine {
 public:
  static constexpr std::size_t kMostReadAhead = 4096;  // bytes

  virtual ~ByteLine() = default;
  ByteLine(const ByteLine&) = delete;
  ByteLine& operator=(const ByteLine&) = delete;

  // From now on `tap` sees what the line receives and sends, and that it is lost. Null: none does.
  void SetTap(std::shared_ptr<LineTap> tap);

  Status SetReadTimeouts(const ReadTimeouts& timeouts);

  // Reads up to into.size() bytes under the read time-outs; 0 bytes is a success.
  // Closed: the far end hung up or the device was unplugged. Bytes received before that are
  // returned first; the call after them reports it.
  Result<std::size_t> Read(std::span<std::byte> into);

  // Returns the number of bytes taken. It is below from.size() when the line then took nothing for
  // 1 s or failed. TimedOut, Closed: none was taken.
  Result<std::size_t> Write(std::span<const std::byte> from);

  // Bytes read ahead and not yet taken, without asking the system.
  std::size_t HeldAhead() const { return end_ - begin_; }

  // Bytes received and not yet read, at most kMostReadAhead. Asks the system each time.
  // Closed: as Read, after all received bytes were read.
  Result<std::size_t> InputQueueLength();

  // Waits until `count` bytes are received, and returns at once when they already are.
  // kForever: no time-out. TimedOut: fewer came; more than kMostReadAhead never do.
  // Closed: the line is lost and fewer bytes than that are left.
  Status WaitForInput(std::size_t count, Milliseconds timeout);

  Status PurgeInput();               // discards received bytes, also those read ahead
  virtual Status PurgeOutput() = 0;  // cannot recall what has already left for the far end
  virtual Status DrainOutput() = 0;  // waits until all is sent; TimedOut after 1 s

 protected:
  ByteLine() = default;
  ByteLine(ByteLine&&) noexcept = default;
  ByteLine& operator=(ByteLine&&) noexcept = default;

 private:
  // ---- What each kind of line implements -----------------------------------------------------

  virtual Result<std::size_t> Transmit(std::span<const std::byte> from) = 0;  // as Write

  // Returns the bytes that the system holds; when it holds none, waits for the first one. 0: none
  // came within `atMost`, or a signal came.
  virtual Result<std::size_t> Receive(std::span<std::byte> into, Milliseconds atMost) = 0;
  virtual Status PrepareReads() { return {}; }  // called when the read time-outs are set
  virtual Status PurgeDriver() { return {}; }   // discards what no read can reach yet
  virtual void NapFor(std::size_t) {}  // as long as these bytes need on the line, 1 ms at most

  // ---- The same on every line (byte_line.cpp) ------------------------------------------------

  Result<std::size_t> ReadAhead(Milliseconds atMost);
  std::size_t TakeAhead(std::span<std::byte> into);
  Result<std::size_t> ReceiveForTap(std::span<std::byte> into, Milliseconds atMost);
  void TellTap(LineEvent event, const Result<std::size_t>& outcome,
               std::span<const std::byte> bytes, std::int64_t since);

  std::shared_ptr<LineTap> tap_;  // null: none
  bool lostTold_ = false;
  std::int64_t emptyAt_ = 0;  // ticks; the system then held no bytes
  ReadTimeouts timeouts_;
  std::unique_ptr<std::byte[]> ahead_ = std::make_unique<std::byte[]>(kMostReadAhead);
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

}  // namespace kinetrel
