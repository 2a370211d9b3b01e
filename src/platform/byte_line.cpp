// What the system holds is read ahead in one call, and most reads are then served without one.
#include "platform/byte_line.h"

#include <algorithm>

namespace kinetrel {
namespace {

// How much longer one read may wait.
class ReadClock {
 public:
  ReadClock(const ReadTimeouts& timeouts, std::size_t count)
      : total_(Total(timeouts, count)), interval_(timeouts.interval), gap_(kForever) {}

  void BytesArrived() {
    if (interval_.count() != 0) gap_ = Deadline(interval_);
  }
  Milliseconds Remaining() const { return std::min(total_.Remaining(), gap_.Remaining()); }

 private:
  static Milliseconds Total(const ReadTimeouts& timeouts, std::size_t count) {
    if (timeouts.multiplier == 0 && timeouts.constant == 0) {
      return timeouts.interval == ReadTimeouts::kReturnAtOnce ? Milliseconds(0) : kForever;
    }
    return Milliseconds(std::int64_t{timeouts.multiplier} * static_cast<std::int64_t>(count) +
                        timeouts.constant);
  }

  Deadline total_;
  Milliseconds interval_;
  Deadline gap_;
};

}  // namespace

// ---- The bytes read ahead ------------------------------------------------------------------

// Returns how many came within `atMost`. A full buffer takes none until some are read.
Result<std::size_t> ByteLine::ReadAhead(Milliseconds atMost) {
  constexpr Milliseconds kWhileFull{10};
  if (HeldAhead() == kMostReadAhead) {
    SleepFor(std::min(atMost, kWhileFull));
    return std::size_t{0};
  }
  if (begin_ > 0) {
    std::copy(ahead_.get() + begin_, ahead_.get() + end_, ahead_.get());
    end_ -= begin_;
    begin_ = 0;
  }
  const std::span<std::byte> room(ahead_.get() + end_, kMostReadAhead - end_);
  const Result<std::size_t> came = tap_ ? ReceiveForTap(room, atMost) : Receive(room, atMost);
  if (came.Ok()) end_ += *came;
  return came;
}

std::size_t ByteLine::TakeAhead(std::span<std::byte> into) {
  const std::size_t count = std::min(into.size(), HeldAhead());
  std::copy_n(ahead_.get() + begin_, count, into.data());
  begin_ += count;
  return count;
}

// ---- The tap -------------------------------------------------------------------------------

void ByteLine::SetTap(std::shared_ptr<LineTap> tap) {
  tap_ = std::move(tap);
  emptyAt_ = ClockTicks();
}

// Bytes that ended a wait came at its end. Others may have come since the call before.
Result<std::size_t> ByteLine::ReceiveForTap(std::span<std::byte> into, Milliseconds atMost) {
  const std::int64_t longestCall = ClockTicksPerSecond() / 5000;
  const std::int64_t begin = ClockTicks();
  const Result<std::size_t> came = Receive(into, atMost);
  const std::int64_t end = ClockTicks();
  const bool waited = atMost.count() > 0 && end - begin > longestCall;
  TellTap(LineEvent::Received, came, into.first(came.Ok() ? *came : 0), waited ? end : emptyAt_);
  emptyAt_ = end;
  return came;
}

// A transfer that moved bytes, or the first that found the line lost.
void ByteLine::TellTap(LineEvent event, const Result<std::size_t>& outcome,
                       std::span<const std::byte> bytes, std::int64_t since) {
  if (outcome.Ok() && !bytes.empty()) tap_->OnLine(event, bytes, since);
  if (outcome.status().error != Error::Closed || lostTold_) return;
  lostTold_ = true;
  tap_->OnLine(LineEvent::Lost, {}, ClockTicks());
}

// ---- Writing -------------------------------------------------------------------------------

Result<std::size_t> ByteLine::Write(std::span<const std::byte> from) {
  const Result<std::size_t> taken = Transmit(from);
  if (tap_) TellTap(LineEvent::Sent, taken, from.first(taken.Ok() ? *taken : 0), ClockTicks());
  return taken;
}

// ---- Reading -------------------------------------------------------------------------------

Status ByteLine::SetReadTimeouts(const ReadTimeouts& timeouts) {
  timeouts_ = timeouts;
  return PrepareReads();
}

Result<std::size_t> ByteLine::Read(std::span<std::byte> into) {
  ReadClock clock(timeouts_, into.size());
  std::size_t got = TakeAhead(into);
  if (got > 0) clock.BytesArrived();
  while (got < into.size()) {
    const Milliseconds left = clock.Remaining();
    const Result<std::size_t> came = ReadAhead(left);
    if (!came.Ok() && got == 0) return came;
    if (!came.Ok()) break;
    if (*came > 0) clock.BytesArrived();
    got += TakeAhead(into.subspan(got));
    if (left.count() == 0) break;
  }
  return got;
}

Result<std::size_t> ByteLine::InputQueueLength() {
  const Result<std::size_t> came = ReadAhead(Milliseconds(0));
  if (!came.Ok() && HeldAhead() == 0) return came;
  return HeldAhead();
}

// Waiting for input ends with the first byte. A record that trickles in would end one wait for each
// byte; so once it has begun, the missing bytes get the time that they need on the line.
Status ByteLine::WaitForInput(std::size_t count, Milliseconds timeout) {
  const Deadline deadline(timeout);
  for (bool trickling = false; HeldAhead() < count;) {
    const Milliseconds left = deadline.Remaining();
    if (trickling && left.count() > 0) NapFor(count - HeldAhead());
    const Result<std::size_t> came = ReadAhead(trickling ? Milliseconds(0) : left);
    if (!came.Ok()) return came.status();
    if (*came == 0 && left.count() == 0) return {Error::TimedOut, 0, "wait for input"};
    trickling = *came > 0;
  }
  return {};
}

// A device that never pauses has always more.
Status ByteLine::PurgeInput() {
  constexpr int kMostRounds = 4;
  if (const Status purged = PurgeDriver(); !purged.Ok()) return purged;
  for (int round = 0; round < kMostRounds; ++round) {
    begin_ = end_ = 0;
    const Result<std::size_t> came = ReadAhead(Milliseconds(0));
    if (!came.Ok()) return came.status();
    if (*came == 0) break;
  }
  begin_ = end_ = 0;
  return {};
}

}  // namespace kinetrel
