// Where keys come from: this system's half of the key input, behind console.h.
//
// Of a process, as its standard input is. Threads  one at a time: the key input holds its lock.
#pragma once

#include <cstdint>
#include <optional>

#include "platform/clock.h"
#include "platform/console.h"

namespace kinetrel {

class KeySource {
 public:
  static void Open();  // looks what standard input is now, and prepares a terminal for keys
  static void Close();

  // Whether something can be taken at once: a key, a byte, or the news that there are no more.
  static bool Waits();

  // Whether it hands out whole keys; else bytes, as a terminal sends them.
  static bool GivesKeys();
  static std::optional<Key> TakeKey();

  // The next byte, waited for until the deadline. None: it did not come in time, or never will.
  static std::optional<std::uint8_t> TakeByte(const Deadline& deadline);
};

}  // namespace kinetrel
