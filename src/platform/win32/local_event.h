// An event of this process alone. It also counts how often it has been set, which tells a waiter
// that overslept a set and a reset; the system's own events cannot.
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
