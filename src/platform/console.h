// The console of this process: single keys without echo, and what the output streams lead to.
//
// Threads  any number may take and push back keys; each key is taken once. The lock that keeps
//          them apart is a leaf and never held while waiting for a person.
// State    one per process, as the console is: the session below is its owner.
#pragma once

#include <optional>
#include <string_view>

#include "platform/clock.h"

namespace kinetrel {

// A key as a program takes it. Character keys carry their code (Ctrl-A 1, ESC 27, Enter 13,
// Backspace 8, Tab 9); the others carry `extended` and the code below.
struct Key {
  int code = 0;
  bool extended = false;

  bool operator==(const Key&) const = default;
};

// Codes of the keys that are no characters.
enum class ExtendedKey : int {
  Up = 0x48,
  Down = 0x50,
  Left = 0x4B,
  Right = 0x4D,
  Home = 0x47,
  End = 0x4F,
  Insert = 0x52,
  Delete = 0x53,
  PageUp = 0x49,
  PageDown = 0x51,
  CtrlLeft = 0x73,
  CtrlRight = 0x74,
  CtrlUp = 0x8D,
  CtrlDown = 0x91,
  CtrlPageUp = 0x86,
  CtrlPageDown = 0x76,
  CtrlTab = 0x94,
};

// While one lives, keys come one at a time and without echo, from standard input.
//
// A terminal is put into key-at-a-time mode and is as it was after every way out: the destructor,
// exit, a signal that ends the process (but SIGKILL), a suspension. It is left alone while the
// process is in the background. Standard input that is no terminal is read as keys until it ends,
// and is then silent; a closed one is silent from the start.
//
// Nesting is refused: the second session of a process does nothing.
class KeySession {
 public:
  KeySession();
  ~KeySession();
  KeySession(const KeySession&) = delete;
  KeySession& operator=(const KeySession&) = delete;

 private:
  bool owner_;
};

// The next key: one that was put back, else, during a session, one that was typed. Nothing when
// none waits, and once for each key or terminal's reply that is none of the keys above. Never waits
// for a key; after an ESC byte, and after each byte of a key sequence, the next is awaited for 30
// ms, to tell the ESC key from the start of a sequence.
std::optional<Key> TakeKey();

// While one lives, its owner takes the keys with TakeKey. Other readers leave them alone.
class KeyClaim {
 public:
  KeyClaim();
  ~KeyClaim();
  KeyClaim(const KeyClaim&) = delete;
  KeyClaim& operator=(const KeyClaim&) = delete;
};

// As TakeKey, but while a KeyClaim lives it takes the next key only if that is one of `characters`.
std::optional<Key> TakeUnclaimedKey(std::string_view characters);

// Puts a key back: the next TakeKey of any thread gets it first. At most 16 wait so, until the
// session ends; more are lost.
void PushBackKey(Key key);

// Has the standard streams that the process was started without lead nowhere. Called before
// anything is opened, for what is opened takes the place of a missing stream: what is printed would
// go into a published block or to a tracker, and what a tracker sends would be taken for keys.
void HoldStandardStreams();

// Print as printf does: on standard error, or on standard output, which is then flushed.
[[gnu::format(printf, 1, 2)]] void PrintError(const char* format, ...);
[[gnu::format(printf, 1, 2)]] void PrintOutput(const char* format, ...);

// Switches the two functions above and the transient output off, or on again. One switch for the
// process, as its streams are.
void SwitchPrinting(bool on);
bool PrintingIsOn();

bool StandardOutputIsTerminal();

struct TerminalSize {
  int columns = 80;
  int rows = 24;
};
// Of the terminal on standard output; 80 x 24 where it does not tell.
TerminalSize StandardOutputSize();

// Makes the terminal on standard output understand control sequences; false where it cannot.
bool EnableTerminalSequences();

// ---- What a time-critical thread may print -------------------------------------------------

// Whether standard output takes a line now. A stopped terminal or a full pipe would hold the thread
// that writes. Windows does not tell: true there. False while printing is switched off.
bool OutputTakesLine();

// Writes a few bytes to standard output if it takes them at once, and drops them otherwise. Never
// allocates, never waits.
void ShowTransient(const char* text);

}  // namespace kinetrel
