// From the bytes that a terminal sends to keys. Pure: no terminal, no clock, no state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "platform/console.h"

namespace kinetrel {

// A sequence that is longer than this is no sequence of a terminal; it is given up.
inline constexpr std::size_t kLongestKeySequence = 128;

struct KeyDecoding {
  std::size_t used = 0;    // bytes at the front that are done with; 0: more must come first
  std::optional<Key> key;  // none: the bytes used are no key of ours
};

// Decodes what is at the front of `bytes`: a character, or a key sequence of xterm, rxvt or the
// system's own console. Sequences of other keys and replies of the terminal are used up whole.
//
// silent   nothing follows the bytes for now: a lone ESC is the ESC key, a sequence that is not
//          whole is dropped. At least one byte is then used, unless there is none.
KeyDecoding DecodeKey(std::span<const std::uint8_t> bytes, bool silent);

}  // namespace kinetrel
