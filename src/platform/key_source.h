// The system's half of the key input behind console.h.
//
// State    one per process, like standard input.
// Threads  one at a time: the key input holds its lock.
#pragma once

#include <cstdint>
#include <optional>

#include "platform/clock.h"
#include "platform/console.h"

namespace kinetrel {

class KeySource {
 public:
  static void Open();  // finds out what standard input is, and prepares a terminal for keys
  static void Close();

  // Whether a call below would answer at once: with a key, a byte, or the end of the input.
  static bool HasInput();

  // Whether it delivers whole keys. If not, it delivers bytes as a terminal sends them.
  static bool HasWholeKeys();
  static std::optional<Key> TakeKey();

  // Waits for the next byte until the deadline. None: it did not come in time, or the input ended.
  static std::optional<std::uint8_t> TakeByte(const Deadline& deadline);
};

}  // namespace kinetrel
