// The system calls of a serial line, each with its outcomes: done, nothing yet, gone, failed. None
// blocks longer than its time-out.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>

#include "platform/clock.h"
#include "platform/status.h"

struct stat;  // the system's

namespace kinetrel {

using Microseconds = std::chrono::microseconds;

// ---- Names ---------------------------------------------------------------------------------

// The path of a serial line's device. "COM<n>" means what the environment variable KINETREL_COM<n>
// names, or else the machine's own line /dev/ttyS<n-1>. Any other name is already a path. Empty:
// COM0 without the variable.
std::string SerialDevicePath(const std::string& name);

// `file` is a character device's.
bool IsPseudoTerminal(const struct stat& file);

// The group whose members may use the device. Empty: no group may, or only root's own.
std::string GroupThatMayUse(const std::string& path);

// ---- Opening -------------------------------------------------------------------------------

// Invalid: the name belongs to something other than a character device. NotFound also for a path
// that leads nowhere. Checked before opening, because opening a directory or a pipe reveals less.
Status CheckIsCharacterDevice(const std::string& path);

// Never waits for a carrier. NotFound also for a name without hardware behind it.
Result<int> OpenSerialDevice(const std::string& path);

// Reserves the open line for this program until it is closed. Busy: another has it.
Status ClaimLine(int fd);
void ReleaseExclusiveMode(int fd);

// Asks the driver to deliver bytes as they come: USB adapters otherwise hold them back for up to
// 16 ms. Returns the driver's flags before that, for RestoreLatency; none: the driver has no flags.
std::optional<int> AskForLowLatency(int fd);
void RestoreLatency(int fd, int foundFlags);

// ---- Transfers -----------------------------------------------------------------------------

enum class Ended { Bytes, Nothing, HungUp, Failed };

struct Transfer {
  Ended how = Ended::Nothing;
  std::size_t count = 0;  // with Bytes
  int code = 0;           // errno of the last two
};

Transfer ReadOnce(int fd, std::span<std::byte> into);
Transfer WriteOnce(int fd, std::span<const std::byte> from);

enum class Ready { Nothing, Input, HungUp };

// Nothing: the time is up, or a signal came. HungUp also when bytes are left from before it.
Ready PollInput(int fd, Milliseconds atMost);

// ---- Queues --------------------------------------------------------------------------------

Result<std::size_t> CountUnsent(int fd);  // written, not yet sent
bool SenderIsEmpty(int fd);               // also the hardware's own store

Status DiscardOutput(int fd);

// Unsupported: the driver does not count them.
Result<unsigned> CountFramingErrors(int fd);

// ---- Modem lines ---------------------------------------------------------------------------

enum class ModemLine { Dtr, Rts };

struct ModemLines {
  bool dtr = false;
  bool rts = false;
};

// Unsupported: a line without them. Closed: a name without hardware behind it, or a hang-up.
Result<ModemLines> ReadModemLines(int fd);
Status SetModemLine(int fd, ModemLine line, bool on);

// ---- Naps ----------------------------------------------------------------------------------

inline constexpr Microseconds kShortestNap{50};
inline constexpr Microseconds kLongestNap{1000};

void Nap(Microseconds time);  // a signal may end it early

// Sleeps as long as `bytes` need on the line at 10 bits each, within the two limits above. A
// shorter nap costs more than it gains, and the rate of an adapter or pseudo-terminal may mean
// nothing.
void NapForBytes(std::size_t bytes, unsigned baud);

}  // namespace kinetrel
