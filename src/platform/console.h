// The console of this process: single keys without echo, and where the output goes.
//
// Threads  any number may take and push back keys; each key is taken once. The lock between them is
//          a leaf and is never held while waiting for a person.
// State    one per process, like the console. The session below owns it.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/clock.h"

namespace kinetrel {

// One key. A character key has its character code (Ctrl-A 1, ESC 27, Enter 13, Backspace 8, Tab 9).
// Any other key has `extended` set and a code from the list below.
struct Key {
  int code = 0;
  bool extended = false;

  bool operator==(const Key&) const = default;
};

// Codes of the keys without a character.
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

// While a session lives, keys come one at a time and without echo, from standard input.
//
// It puts a terminal into key-at-a-time mode and restores it on every way out: the destructor,
// exit, a suspension, and each signal that ends the process except SIGKILL. It does not touch the
// terminal while the process is in the background. A pipe or file as standard input is read as keys
// until it ends; after that, and when standard input is closed, no key comes.
//
// Sessions do not nest: the second session of a process does nothing.
class KeySession {
 public:
  KeySession();
  ~KeySession();
  KeySession(const KeySession&) = delete;
  KeySession& operator=(const KeySession&) = delete;

 private:
  bool owner_;
};

// Returns the next key: one that was put back, or during a session one that was typed. Returns
// nothing when no key waits, and once for each unknown key or reply of the terminal. Never waits
// for a key. After ESC and within a key sequence it waits 30 ms for the next byte, to tell the ESC
// key from the start of a sequence.
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

// Whether TakeKey would find a key, or the beginning of one.
bool IsKeyWaiting();

// Puts a key back: the next TakeKey of any thread gets it first. At most 16 keys wait so, until the
// session ends; further ones are lost.
void PushBackKey(Key key);

// Opens the standard streams that are missing when the process starts, so that they lead nowhere.
// Call it before anything else is opened. Otherwise the next opened file takes the place of a
// missing stream: printed text would go into a published block or to a tracker, and the bytes of a
// tracker would be taken for keys.
void HoldStandardStreams();

// Print as printf does: on standard error, or on standard output, which is then flushed.
[[gnu::format(printf, 1, 2)]] void PrintError(const char* format, ...);
[[gnu::format(printf, 1, 2)]] void PrintOutput(const char* format, ...);

// Switches the two functions above and the transient output off, or on again. One switch for the
// process, as its streams are.
void SwitchPrinting(bool on);
bool PrintingIsOn();

// ---- The system's journal ------------------------------------------------------------------

// What the journal files a line under. The numbers are those of syslog.
enum class JournalLevel : int { Error = 3, Warning = 4, Notice = 5, Information = 6 };

// From now on, what is printed goes to standard error as whole lines for the journal. The two
// functions above print each line that is not empty as information. No transient output.
void PrintForJournal();
bool PrintsForJournal();

// Prints PlainLine(text) with its level in front.
void PrintJournalLine(JournalLevel level, std::string_view text);

// `text` as one line: without control characters, and without blanks around it.
std::string PlainLine(std::string_view text);

bool StandardOutputIsTerminal();

struct TerminalSize {
  int columns = 80;
  int rows = 24;
};
// Of the terminal on standard output; 80 x 24 when the terminal does not report it.
TerminalSize StandardOutputSize();

// Lets the terminal on standard output interpret control sequences. False: it cannot.
bool EnableTerminalSequences();

// ---- What a time-critical thread may print -------------------------------------------------

// Whether standard output takes a line now. A stopped terminal or a full pipe would hold the thread
// that writes. Windows does not tell: true there. False while printing is switched off.
bool OutputTakesLine();

// Writes a few bytes to standard output if it takes them at once, and drops them otherwise. Never
// allocates, never waits.
void ShowTransient(const char* text);

// Switches these few bytes off, or on again.
void SwitchTransient(bool on);
bool TransientIsOn();

}  // namespace kinetrel
