// Which stations of a live source have a pose that the device has not sent yet.
//
// Each pose is sent as soon as it comes, at most at the device's own rate and when the line is
// free. A pose that cannot be sent at once is replaced by the next one, so that no old pose is ever
// sent.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>
#include <optional>

#include "emulate/device_line.h"
#include "emulate/time_and_chance.h"

namespace kinetrel::emulate {

class FreshPoses {
 public:
  // Bit i is station i.
  void Add(Moment now, std::uint32_t stations) {
    waiting_ |= stations;
    tryAt_ = std::min(tryAt_, now);
  }
  void Clear() { waiting_ = 0; }

  Moment Next() const { return waiting_ == 0 ? kNever : tryAt_; }

  // The next station to send from; none: nothing waits, or not yet.
  //
  // stations  of one frame: they may be sent in a row
  std::optional<unsigned> Take(Moment now, const DeviceLine& line, double recordsPerSecond,
                               unsigned stations) {
    if (waiting_ == 0) return std::nullopt;
    const Moment period = NthOf(Moment(0), 1, recordsPerSecond);
    const Moment allowed = sentUntil_ - period * std::max(1U, stations);
    tryAt_ = std::max(line.FreeAt(), allowed);
    if (tryAt_ > now) return std::nullopt;
    tryAt_ = now;
    const std::uint32_t later = waiting_ & ~((1U << next_) - 1);
    const auto station = static_cast<unsigned>(std::countr_zero(later != 0 ? later : waiting_));
    waiting_ &= ~(1U << station);
    next_ = (station + 1) % 32;
    sentUntil_ = std::max(sentUntil_, now) + period;
    return station;
  }

 private:
  std::uint32_t waiting_ = 0;
  unsigned next_ = 0;
  Moment tryAt_{0};
  Moment sentUntil_{0};  // the time that the records so far take at the device's rate
};

}  // namespace kinetrel::emulate
