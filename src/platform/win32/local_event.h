// An event of this process alone. It counts how often it was set, so a waiter notices a Set that
// was followed by a Reset. The system's own events do not show that.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/clock.h"

namespace kinetrel {

class LocalEvent {
 public:
  LocalEvent();
  ~LocalEvent();

  void Set();
  std::uint32_t Reset();  // how often it was set so far
  bool IsSet() const;
  bool WaitSince(std::uint32_t count, Milliseconds timeout) const;
  std::uint32_t Count() const;

 private:
  struct Os;
  std::unique_ptr<Os> os_;
};

}  // namespace kinetrel
