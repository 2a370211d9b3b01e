#include "platform/key_source.h"

#include <conio.h>
#include <windows.h>

#include <algorithm>

namespace kinetrel {
namespace {

constexpr Milliseconds kPipeLook{5};

// What standard input is. A console delivers keys. A pipe (also that of a terminal emulator) and a
// file deliver bytes, as a terminal sends them.
enum class Kind { None, Console, Pipe, File };

struct Source {
  Kind kind = Kind::None;
  HANDLE handle = nullptr;
};
Source source;

Kind KindOf(HANDLE handle) {
  DWORD mode = 0;
  if (handle == nullptr || handle == INVALID_HANDLE_VALUE) return Kind::None;
  if (::GetConsoleMode(handle, &mode)) return Kind::Console;
  switch (::GetFileType(handle)) {
    case FILE_TYPE_PIPE:
      return Kind::Pipe;
    case FILE_TYPE_DISK:
      return Kind::File;
    default:
      return Kind::None;  // "nul", and devices whose reads would block
  }
}

// ---- Bytes of a pipe or a file ----------------------------------------------------------------

// Whether a read would return at once. A pipe whose other end is closed has no more bytes.
bool HasByte() {
  if (source.kind == Kind::File) return true;
  if (source.kind != Kind::Pipe) return false;
  DWORD waiting = 0;
  if (!::PeekNamedPipe(source.handle, nullptr, 0, nullptr, &waiting, nullptr)) {
    source.kind = Kind::None;
  }
  return waiting > 0;
}

// A pipe cannot be waited for.
bool AwaitByte(const Deadline& deadline) {
  while (!HasByte()) {
    if (source.kind == Kind::None || deadline.Passed()) return false;
    SleepFor(std::min(kPipeLook, deadline.Remaining()));
  }
  return true;
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

}  // namespace

void KeySource::Open() {
  const HANDLE handle = ::GetStdHandle(STD_INPUT_HANDLE);
  source = {KindOf(handle), handle};
}

// A console needs no restoring: it echoes keys only while a program reads a line.
void KeySource::Close() {}

bool KeySource::HasInput() { return HasWholeKeys() ? ::_kbhit() != 0 : HasByte(); }

bool KeySource::HasWholeKeys() { return source.kind == Kind::Console; }

// A key without a character comes as two codes, the first 0 or 0xE0.
std::optional<Key> KeySource::TakeKey() {
  constexpr int kPrefix = 0xE0;
  constexpr int kRubout = 0x7F;  // Ctrl-Backspace
  if (!::_kbhit()) return {};
  const int code = ::_getch();
  if (code != 0 && code != kPrefix) return Key{code == kRubout ? '\b' : code, false};
  const int extended = ::_getch();
  return IsExtendedKey(extended) ? std::optional(Key{extended, true}) : std::nullopt;
}

std::optional<std::uint8_t> KeySource::TakeByte(const Deadline& deadline) {
  if (!AwaitByte(deadline)) return {};
  std::uint8_t byte = 0;
  DWORD got = 0;
  const BOOL read = ::ReadFile(source.handle, &byte, 1, &got, nullptr);
  if (read && got == 1) return byte;
  source.kind = Kind::None;
  return {};
}

}  // namespace kinetrel
