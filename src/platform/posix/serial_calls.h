// The system calls of a serial line, each with its endings: done, nothing yet, gone, failed. None
// blocks beyond the time it is given.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>

#include "platform/clock.h"
#include "platform/status.h"

namespace kinetrel {

using Microseconds = std::chrono::microseconds;

// ---- Names ---------------------------------------------------------------------------------

// The path of a serial line's device. "COM<n>" means what the environment variable KINETREL_COM<n>
// names, or else the machine's own line /dev/ttyS<n-1>. Any other name is already a path. Empty:
// COM0 without the variable.
std::string SerialDevicePath(const std::string& name);

// The group whose members may use the device. Empty: no group may, or only root's own.
std::string GroupThatMayUse(const std::string& path);

// ---- Opening -------------------------------------------------------------------------------

// Invalid: there is something of that name, but no character device. NotFound also for a path that
// leads nowhere. Asked before the device is opened, as opening a directory or a pipe would tell
// less.
Status CheckIsCharacterDevice(const std::string& path);

// Never waits for a carrier. NotFound also for a name without hardware behind it.
Result<int> OpenSerialDevice(const std::string& path);

// Makes the open line this program's alone until it is closed. Busy: another has it.
Status ClaimLine(int fd);
void ReleaseExclusiveMode(int fd);

// Asks the driver to hand over bytes as they come: USB adapters otherwise hold them back for up to
// 16 ms. Returns the driver's flags as they were, for RestoreLatency; none where there are none.
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

// What `bytes` need on the line at 10 bits each, between the two above: a shorter nap is dearer
// than it is worth, and the rate of an adapter or a pseudo-terminal may mean nothing.
void NapForBytes(std::size_t bytes, unsigned baud);

}  // namespace kinetrel
