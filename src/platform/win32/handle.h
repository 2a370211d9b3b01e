// A handle of the system that is closed with its owner, and waiting for one.
#pragma once

#include <utility>

#include "platform/clock.h"

namespace kinetrel {

class Handle {
 public:
  Handle() = default;
  explicit Handle(void* handle) : handle_(handle) {}
  Handle(Handle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  Handle& operator=(Handle&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  ~Handle();

  void* get() const { return handle_; }
  explicit operator bool() const { return handle_ != nullptr; }

 private:
  void* handle_ = nullptr;  // null: none, as the calls that make objects have it
};

enum class WaitEnd { Signalled, Abandoned, TimedOut, Failed };

// Waits for a handle; kForever has no end. Abandoned: a mutex whose owner died, and now ours.
WaitEnd WaitFor(void* handle, Milliseconds timeout);

// As much of `time` as one system call takes; never its value for "no end".
unsigned long WaitStep(Milliseconds time);

}  // namespace kinetrel
