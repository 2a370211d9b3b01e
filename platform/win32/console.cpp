#include "platform/console.h"

#include <conio.h>
#include <windows.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <mutex>

#include "platform/clock.h"
#include "platform/key_decoder.h"

namespace kinetrel {
namespace {

constexpr Milliseconds kEscapeLook{30};
constexpr Milliseconds kPipeLook{5};

// What standard input is. Keys of a console come from the system as keys; of a pipe (a terminal
// emulator's, too) and of a file as bytes, as a terminal would send them.
enum class Source { None, Console, Pipe, File };

// What was typed and not yet taken: one per process, as standard input is. Written by whoever
// takes or puts back keys and by the session, all under the lock.
struct KeyInput {
  std::mutex lock;
  bool open = false;
  Source source = Source::None;
  HANDLE handle = nullptr;
  std::array<std::uint8_t, kLongestKeySequence> bytes{};  // read, but no key yet
  std::size_t count = 0;
  std::array<Key, 16> putBack{};  // the last one comes first
  std::size_t putBackCount = 0;
  std::uint64_t taken = 0;  // keys, less those put back
};
KeyInput input;

Source SourceOf(HANDLE handle) {
  DWORD mode = 0;
  if (handle == nullptr || handle == INVALID_HANDLE_VALUE) return Source::None;
  if (::GetConsoleMode(handle, &mode)) return Source::Console;
  switch (::GetFileType(handle)) {
    case FILE_TYPE_PIPE:
      return Source::Pipe;
    case FILE_TYPE_DISK:
      return Source::File;
    default:
      return Source::None;  // "nul", and devices whose reads would keep us
  }
}

// ---- Bytes of a pipe or a file ----------------------------------------------------------------

// Whether a read would return at once. A pipe whose other end has gone is no source any more.
bool ByteWaits() {
  if (input.source == Source::File) return true;
  if (input.source != Source::Pipe) return false;
  DWORD waiting = 0;
  if (!::PeekNamedPipe(input.handle, nullptr, 0, nullptr, &waiting, nullptr)) {
    input.source = Source::None;
  }
  return waiting > 0;
}

// A pipe cannot be waited for.
bool AwaitByte(const Deadline& deadline) {
  while (!ByteWaits()) {
    if (input.source == Source::None || deadline.Passed()) return false;
    SleepFor(std::min(kPipeLook, deadline.Remaining()));
  }
  return true;
}

// Adds the next byte to those that are no key yet.
bool TakeByte(const Deadline& deadline) {
  if (!AwaitByte(deadline)) return false;
  DWORD got = 0;
  const BOOL read = ::ReadFile(input.handle, &input.bytes[input.count], 1, &got, nullptr);
  if (read && got == 1) {
    ++input.count;
    return true;
  }
  input.source = Source::None;
  return false;
}

void DropBytes(std::size_t count) {
  std::copy(input.bytes.begin() + static_cast<std::ptrdiff_t>(count), input.bytes.end(),
            input.bytes.begin());
  input.count -= count;
}

// ---- Keys ----------------------------------------------------------------------------------

// One character or one sequence at the most: a pipe that pours sequences which are no keys must not
// hold the one who asks for a key.
std::optional<Key> NextByteKey() {
  Deadline deadline(input.count > 0 ? kEscapeLook : Milliseconds{0});
  bool silent = false;
  for (;;) {
    const KeyDecoding decoding = DecodeKey({input.bytes.data(), input.count}, silent);
    if (decoding.used > 0) {
      DropBytes(decoding.used);
      return decoding.key;
    }
    const bool first = input.count == 0;
    silent = !TakeByte(deadline);
    if (silent && first) return {};
    if (first) deadline = Deadline(kEscapeLook);
  }
}

bool IsExtendedKey(int code) {
  constexpr ExtendedKey kKeys[] = {
      ExtendedKey::Up,       ExtendedKey::Down,        ExtendedKey::Left,
      ExtendedKey::Right,    ExtendedKey::Home,        ExtendedKey::End,
      ExtendedKey::Insert,   ExtendedKey::Delete,      ExtendedKey::PageUp,
      ExtendedKey::PageDown, ExtendedKey::CtrlLeft,    ExtendedKey::CtrlRight,
      ExtendedKey::CtrlUp,   ExtendedKey::CtrlDown,    ExtendedKey::CtrlPageUp,
      ExtendedKey::CtrlTab,  ExtendedKey::CtrlPageDown};
  return std::ranges::any_of(kKeys, [=](ExtendedKey key) { return static_cast<int>(key) == code; });
}

// A key that is no character comes as two codes, the first 0 or 0xE0.
std::optional<Key> NextConsoleKey() {
  constexpr int kPrefix = 0xE0;
  constexpr int kRubout = 0x7F;  // Ctrl-Backspace
  if (!::_kbhit()) return {};
  const int code = ::_getch();
  if (code != 0 && code != kPrefix) return Key{code == kRubout ? '\b' : code, false};
  const int extended = ::_getch();
  return IsExtendedKey(extended) ? std::optional(Key{extended, true}) : std::nullopt;
}

std::optional<Key> NextKey() {
  if (input.putBackCount > 0) return input.putBack[--input.putBackCount];
  if (!input.open) return {};
  return input.source == Source::Console ? NextConsoleKey() : NextByteKey();
}

// Whether anything waits to be taken, a key or the beginning of one.
bool KeyWaits() {
  if (input.putBackCount > 0 || input.count > 0) return true;
  if (!input.open) return false;
  return input.source == Source::Console ? ::_kbhit() != 0 : ByteWaits();
}

}  // namespace

KeySession::KeySession() {
  const std::lock_guard guard(input.lock);
  owner_ = !input.open;
  if (!owner_) return;
  input.open = true;
  input.handle = ::GetStdHandle(STD_INPUT_HANDLE);
  input.source = SourceOf(input.handle);
}

// A console needs no restoring: its keys are not echoed but by whoever reads a line.
KeySession::~KeySession() {
  if (!owner_) return;
  const std::lock_guard guard(input.lock);
  input.open = false;
  input.count = 0;
  input.putBackCount = 0;
}

std::optional<Key> TakeKey() {
  const std::lock_guard guard(input.lock);
  const std::optional<Key> key = NextKey();
  if (key.has_value()) ++input.taken;
  return key;
}

std::optional<Key> TakeLeftKey(Milliseconds patience) {
  std::uint64_t before = 0;
  {
    const std::lock_guard guard(input.lock);
    if (!KeyWaits()) return {};
    before = input.taken;
  }
  SleepFor(patience);
  const std::lock_guard guard(input.lock);
  return input.taken == before ? NextKey() : std::nullopt;
}

void PushBackKey(Key key) {
  const std::lock_guard guard(input.lock);
  if (input.putBackCount == input.putBack.size()) return;
  input.putBack[input.putBackCount++] = key;
  --input.taken;
}

// ---- Standard output -----------------------------------------------------------------------

namespace {

HANDLE Output() { return ::GetStdHandle(STD_OUTPUT_HANDLE); }

}  // namespace

bool StandardOutputIsTerminal() {
  DWORD mode = 0;
  return ::GetConsoleMode(Output(), &mode) != 0;
}

TerminalSize StandardOutputSize() {
  CONSOLE_SCREEN_BUFFER_INFO about{};
  TerminalSize told;
  if (!::GetConsoleScreenBufferInfo(Output(), &about)) return told;
  const int columns = about.srWindow.Right - about.srWindow.Left + 1;
  const int rows = about.srWindow.Bottom - about.srWindow.Top + 1;
  if (columns > 0) told.columns = columns;
  if (rows > 0) told.rows = rows;
  return told;
}

bool EnableTerminalSequences() {
  DWORD mode = 0;
  return ::GetConsoleMode(Output(), &mode) != 0 &&
         ::SetConsoleMode(Output(), mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

}  // namespace kinetrel
