#include "platform/console.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>

#include "platform/clock.h"
#include "platform/key_decoder.h"
#include "platform/key_source.h"
#include "platform/mutex.h"

namespace kinetrel {
namespace {

constexpr Milliseconds kEscapeLook{30};

// What was typed and not yet taken: one per process, like standard input. Written by the session
// and by every thread that takes or puts back keys, all under the lock.
struct KeyInput {
  Mutex lock;
  bool open GUARDED_BY(lock) = false;
  std::array<std::uint8_t, kLongestKeySequence> bytes
      GUARDED_BY(lock){};  // read, but not yet a whole key
  std::size_t count GUARDED_BY(lock) = 0;
  std::array<Key, 16> putBack GUARDED_BY(lock){};  // the last one is taken first
  std::size_t putBackCount GUARDED_BY(lock) = 0;
  int claims GUARDED_BY(lock) = 0;  // living KeyClaims
};
// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables)
KeyInput input;

// Whether the process prints. Written by its host, read by every thread that prints.
// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables)
std::atomic<bool> printing{true};

// Whether cursor and error marks are shown, and whether lines are the journal's. Written once, by
// the program; read by every thread that prints.
// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables)
std::atomic<bool> transient{true};
// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables)
std::atomic<bool> journal{false};

// Adds the next byte to those that are not yet a key. One byte at a time: what is typed after the
// last key that the program takes is left to the shell.
bool AddByte(const Deadline& deadline) REQUIRES(input.lock) {
  const std::optional<std::uint8_t> byte = KeySource::TakeByte(deadline);
  if (byte) input.bytes[input.count++] = *byte;
  return byte.has_value();
}

void DropBytes(std::size_t count) REQUIRES(input.lock) {
  std::copy(input.bytes.begin() + static_cast<std::ptrdiff_t>(count), input.bytes.end(),
            input.bytes.begin());
  input.count -= count;
}

// Decodes one character or one sequence at most. Otherwise a pipe full of unknown sequences would
// hold the caller.
std::optional<Key> NextKeyOfBytes() REQUIRES(input.lock) {
  Deadline deadline(input.count > 0 ? kEscapeLook : Milliseconds{0});
  bool silent = false;
  for (;;) {
    const KeyDecoding decoding = DecodeKey({input.bytes.data(), input.count}, silent);
    if (decoding.used > 0) {
      DropBytes(decoding.used);
      return decoding.key;
    }
    silent = !AddByte(deadline);
    if (input.count == 0) return {};
    deadline = Deadline(kEscapeLook);
  }
}

std::optional<Key> NextKey() REQUIRES(input.lock) {
  if (input.putBackCount > 0) return input.putBack[--input.putBackCount];
  if (!input.open) return {};
  return KeySource::HasWholeKeys() ? KeySource::TakeKey() : NextKeyOfBytes();
}

void PrintJournalLines(std::string_view text) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    PrintJournalLine(JournalLevel::Information, text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

void Print(std::FILE* stream, const char* format, std::va_list values) {
  if (PrintsForJournal()) {
    std::array<char, 4096> text{};
    std::vsnprintf(text.data(), text.size(), format, values);
    return PrintJournalLines(text.data());
  }
  std::vfprintf(stream, format, values);
  if (stream == stdout) std::fflush(stdout);
}

void PutBack(Key key) REQUIRES(input.lock) {
  if (input.putBackCount < input.putBack.size()) input.putBack[input.putBackCount++] = key;
}

}  // namespace

KeySession::KeySession() {
  const Lock guard(input.lock);
  owner_ = !input.open;
  if (!owner_) return;
  input.open = true;
  KeySource::Open();
}

KeySession::~KeySession() {
  if (!owner_) return;
  const Lock guard(input.lock);
  KeySource::Close();
  input.open = false;
  input.count = 0;
  input.putBackCount = 0;
}

KeyClaim::KeyClaim() {
  const Lock guard(input.lock);
  ++input.claims;
}

KeyClaim::~KeyClaim() {
  const Lock guard(input.lock);
  --input.claims;
}

std::optional<Key> TakeKey() {
  const Lock guard(input.lock);
  return NextKey();
}

std::optional<Key> TakeUnclaimedKey(std::string_view characters) {
  const Lock guard(input.lock);
  const std::optional<Key> key = NextKey();
  if (!key || input.claims == 0) return key;
  const bool wanted =
      !key->extended && characters.find(static_cast<char>(key->code)) != std::string_view::npos;
  if (wanted) return key;
  PutBack(*key);
  return {};
}

bool IsKeyWaiting() {
  const Lock guard(input.lock);
  return input.putBackCount > 0 || input.count > 0 || (input.open && KeySource::HasInput());
}

void PushBackKey(Key key) {
  const Lock guard(input.lock);
  PutBack(key);
}

void PrintError(const char* format, ...) {
  if (!PrintingIsOn()) return;
  std::va_list values;
  va_start(values, format);
  Print(stderr, format, values);
  va_end(values);
}

void PrintOutput(const char* format, ...) {
  if (!PrintingIsOn()) return;
  std::va_list values;
  va_start(values, format);
  Print(stdout, format, values);
  va_end(values);
}

void SwitchPrinting(bool on) { printing = on; }
bool PrintingIsOn() { return printing; }

void SwitchTransient(bool on) { transient = on; }
bool TransientIsOn() { return transient && !journal; }

void PrintForJournal() { journal = true; }
bool PrintsForJournal() { return journal; }

std::string PlainLine(std::string_view text) {
  std::string line(text);
  std::ranges::replace_if(
      line, [](unsigned char c) { return c < ' ' || c == 0x7F; }, ' ');
  line.erase(0, std::min(line.find_first_not_of(' '), line.size()));
  line.erase(line.find_last_not_of(' ') + 1);
  return line;
}

void PrintJournalLine(JournalLevel level, std::string_view text) {
  if (!PrintingIsOn()) return;
  const std::string line = PlainLine(text);
  if (line.empty()) return;
  // In one piece: lines of several threads must not mix.
  std::fprintf(stderr, "<%d>%s\n", static_cast<int>(level), line.c_str());
}

}  // namespace kinetrel
