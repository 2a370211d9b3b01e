// Waiting for a condition, never for luck.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace kinetrel::test {

// Generous: a sanitizer build on a busy machine is slow.
inline constexpr std::chrono::milliseconds kPatience{20000};

// True as soon as `condition` holds; false when it still does not after `patience`.
inline bool WaitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds patience = kPatience) {
  const auto end = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace kinetrel::test
