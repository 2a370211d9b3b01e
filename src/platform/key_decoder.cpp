#include "platform/key_decoder.h"

#include <algorithm>
#include <array>

namespace kinetrel {
namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::uint8_t kBell = 7;
constexpr std::uint8_t kBackspace = 8;
constexpr std::uint8_t kTab = 9;
constexpr std::uint8_t kEscape = 27;
constexpr std::uint8_t kRubout = 0x7F;

bool IsBetween(std::uint8_t byte, int low, int high) { return byte >= low && byte <= high; }
bool IsFinal(std::uint8_t byte) { return IsBetween(byte, 0x40, 0x7E); }

// ---- Where a sequence ends -----------------------------------------------------------------

struct Extent {
  enum class State { Unfinished, Whole, Broken } state;
  std::size_t length;  // up to the end, or up to the byte that does not fit
};

constexpr Extent kUnfinished = {Extent::State::Unfinished, 0};
Extent Whole(std::size_t length) { return {Extent::State::Whole, length}; }
Extent Broken(std::size_t length) { return {Extent::State::Broken, length}; }
Extent FixedExtent(Bytes bytes, std::size_t length) {
  return bytes.size() < length ? kUnfinished : Whole(length);
}

// ESC [ parameters final.
Extent ControlExtent(Bytes bytes) {
  if (bytes.size() < 3) return kUnfinished;
  if (bytes[2] == '[') return FixedExtent(bytes, 4);  // a function key of the system's console
  if (bytes[2] == 'M') return FixedExtent(bytes, 6);  // a mouse that a program left switched on
  for (std::size_t i = 2; i < bytes.size(); ++i) {
    if (IsFinal(bytes[i])) return Whole(i + 1);
    if (!IsBetween(bytes[i], 0x20, 0x3F)) return Broken(i);
  }
  return kUnfinished;
}

// ESC O final, with the modifier before the final byte in some terminals.
Extent ShiftExtent(Bytes bytes) {
  for (std::size_t i = 2; i < bytes.size(); ++i) {
    if (IsFinal(bytes[i])) return Whole(i + 1);
    if (!IsBetween(bytes[i], '0', '9') && bytes[i] != ';') return Broken(i);
  }
  return kUnfinished;
}

// A late reply to a question of an earlier program (colours, version): text up to BEL or ESC \.
Extent ReplyExtent(Bytes bytes) {
  for (std::size_t i = 2; i < bytes.size(); ++i) {
    if (bytes[i] == kBell) return Whole(i + 1);
    if (bytes[i] == kEscape && i + 1 < bytes.size()) {
      return bytes[i + 1] == '\\' ? Whole(i + 2) : Broken(i);
    }
  }
  return kUnfinished;
}

struct Introducer {
  std::uint8_t byte;
  Extent (*extent)(Bytes bytes);
};
constexpr Introducer kIntroducers[] = {
    {'[', ControlExtent}, {'O', ShiftExtent}, {']', ReplyExtent},
    {'P', ReplyExtent},   {'_', ReplyExtent},
};

// An introducer and nothing fitting behind it was ESC and a letter typed in haste.
constexpr std::size_t kIntroducerLength = 2;

Extent SequenceExtent(Bytes bytes) {
  for (const Introducer& row : kIntroducers) {
    if (bytes[1] == row.byte) return row.extent(bytes);
  }
  return Broken(kIntroducerLength);
}

// ---- Which key a sequence is ---------------------------------------------------------------

struct KeyRow {
  int number;       // of ESC [ number ~; 0: none
  int otherNumber;  // the same in rxvt
  char letter;      // of ESC [ letter and ESC O letter; 0: none
  ExtendedKey plain;
  std::optional<ExtendedKey> ctrl;
};
constexpr KeyRow kKeys[] = {
    {0, 0, 'A', ExtendedKey::Up, ExtendedKey::CtrlUp},
    {0, 0, 'B', ExtendedKey::Down, ExtendedKey::CtrlDown},
    {0, 0, 'C', ExtendedKey::Right, ExtendedKey::CtrlRight},
    {0, 0, 'D', ExtendedKey::Left, ExtendedKey::CtrlLeft},
    {1, 7, 'H', ExtendedKey::Home, {}},
    {2, 2, 0, ExtendedKey::Insert, {}},
    {3, 3, 0, ExtendedKey::Delete, {}},
    {4, 8, 'F', ExtendedKey::End, {}},
    {5, 5, 0, ExtendedKey::PageUp, ExtendedKey::CtrlPageUp},
    {6, 6, 0, ExtendedKey::PageDown, ExtendedKey::CtrlPageDown},
};

struct Parameters {
  std::array<int, 3> value{};
  std::size_t count = 0;
  bool Last(int wanted) const { return count > 0 && value[count - 1] == wanted; }
};

// Digits with semicolons between; nothing for another text.
std::optional<Parameters> ReadParameters(Bytes text) {
  Parameters read;
  if (text.empty()) return read;
  read.count = 1;
  for (const std::uint8_t byte : text) {
    if (byte == ';') {
      if (++read.count > read.value.size()) return {};
    } else if (IsBetween(byte, '0', '9')) {
      int& value = read.value[read.count - 1];
      value = std::min(value * 10 + (byte - '0'), 9999);
    } else {
      return {};
    }
  }
  return read;
}

enum class Held { Nothing, Ctrl, Other };

// A modifier parameter is 1 more than the bits 1 Shift, 2 Alt, 4 Ctrl, 8 and up further ones, and
// the two locks. Shift makes no other key of an arrow.
Held HeldWith(int modifier) {
  constexpr unsigned kCtrl = 4;
  constexpr unsigned kFurther = 2 | 8 | 16 | 32;
  const unsigned bits = modifier > 0 ? static_cast<unsigned>(modifier) - 1 : 0;
  if ((bits & kFurther) != 0) return Held::Other;
  return (bits & kCtrl) != 0 ? Held::Ctrl : Held::Nothing;
}

std::optional<Key> ExtendedAs(ExtendedKey key) { return Key{static_cast<int>(key), true}; }

std::optional<Key> KeyOfRow(const KeyRow& row, Held held) {
  if (held == Held::Nothing) return ExtendedAs(row.plain);
  if (held == Held::Ctrl && row.ctrl) return ExtendedAs(*row.ctrl);
  return {};
}

std::optional<Key> NumberedKey(const Parameters& read, std::uint8_t final) {
  const int number = read.value[0];
  const Held held = final == '~' ? HeldWith(read.value[1]) : Held::Ctrl;
  for (const KeyRow& row : kKeys) {
    if (number != 0 && (row.number == number || row.otherNumber == number)) {
      return KeyOfRow(row, held);
    }
  }
  return {};
}

// In rxvt the small letters are the arrows with Ctrl (ESC O) and with Shift (ESC [).
std::optional<Key> LetteredKey(const Parameters& read, std::uint8_t introducer,
                               std::uint8_t final) {
  const bool small = IsBetween(final, 'a', 'd');
  const int letter = small ? final - 'a' + 'A' : final;
  Held held = HeldWith(read.count > 0 ? read.value[read.count - 1] : 0);
  if (small && introducer == 'O') held = Held::Ctrl;
  for (const KeyRow& row : kKeys) {
    if (row.letter == letter) return KeyOfRow(row, held);
  }
  return {};
}

// ESC [ 9 ; 5 u and ESC [ 27 ; 5 ; 9 ~.
bool IsCtrlTab(const Parameters& read, std::uint8_t final) {
  constexpr int kWithCtrl = 5;
  if (final == 'u') return read.value[0] == kTab && read.count == 2 && read.Last(kWithCtrl);
  return final == '~' && read.value[0] == kEscape && read.value[1] == kWithCtrl && read.Last(kTab);
}

std::optional<Key> KeyOfSequence(Bytes whole) {
  const std::uint8_t introducer = whole[1];
  const std::uint8_t final = whole.back();
  const auto read = ReadParameters(whole.subspan(2, whole.size() - 3));
  if (!read || (introducer != '[' && introducer != 'O')) return {};
  if (IsCtrlTab(*read, final)) return ExtendedAs(ExtendedKey::CtrlTab);
  if (final == '~' || final == '^' || final == '@') return NumberedKey(*read, final);
  return LetteredKey(*read, introducer, final);
}

KeyDecoding CharacterKey(std::uint8_t byte) {
  return {1, Key{byte == kRubout ? kBackspace : byte, false}};
}

}  // namespace

KeyDecoding DecodeKey(std::span<const std::uint8_t> bytes, bool silent) {
  if (bytes.empty()) return {};
  if (bytes[0] != kEscape) return CharacterKey(bytes[0]);
  const Extent extent = bytes.size() > 1 ? SequenceExtent(bytes) : kUnfinished;
  if (extent.state == Extent::State::Whole) {
    return {extent.length, KeyOfSequence(bytes.first(extent.length))};
  }
  std::size_t length = extent.length;
  if (extent.state == Extent::State::Unfinished) {
    if (!silent && bytes.size() < kLongestKeySequence) return {};
    length = bytes.size();
  }
  return length > kIntroducerLength ? KeyDecoding{length, {}} : CharacterKey(kEscape);
}

}  // namespace kinetrel
