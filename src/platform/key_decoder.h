// Decodes the bytes that a terminal sends into keys. Uses no terminal, no clock and no state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "platform/console.h"

namespace kinetrel {

// Terminals send no longer sequence; the decoder drops one.
inline constexpr std::size_t kLongestKeySequence = 128;

struct KeyDecoding {
  std::size_t used = 0;    // bytes at the front that are decoded; 0: more must come first
  std::optional<Key> key;  // none: the used bytes are not a key that programs take
};

// Decodes the front of `bytes`: a character, or a key sequence of xterm, rxvt or the system's own
// console. Sequences of other keys and replies of the terminal are used up whole.
//
// silent   no byte followed in time. A lone ESC is then the ESC key, and an unfinished sequence is
//          dropped: at least one byte is used, unless `bytes` is empty.
KeyDecoding DecodeKey(std::span<const std::uint8_t> bytes, bool silent);

}  // namespace kinetrel
