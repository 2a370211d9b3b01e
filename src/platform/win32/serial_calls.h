// The system calls of a serial line, each with its outcomes. Only WaitForEvent, and a read whose
// time-out says so, block for more than a second.
#pragma once

#include <windows.h>

#include <cstddef>
#include <span>
#include <string>

#include "platform/serial_line.h"
#include "platform/status.h"
#include "platform/win32/os.h"

namespace kinetrel {

// ---- Names ---------------------------------------------------------------------------------

// The path of a serial line: "\\\\.\\" and its name, which also reaches the ports above COM9. The
// environment variable KINETREL_COM<n> may name another port for "COM<n>".
std::string SerialDevicePath(const std::string& name);

// ---- Opening -------------------------------------------------------------------------------

// For this program alone. NotFound: no such device. Invalid: it is not a character device.
Result<Handle> OpenSerialDevice(const std::string& path);

// Tells the system to report received bytes, for WaitForEvent.
Status WatchReceivedBytes(HANDLE line);

Result<COMMPROP> ReadProperties(HANDLE line);

// The port's stored configuration: its rate and all other settings.
Result<DCB> ReadConfiguration(HANDLE line);

// ---- Time-outs -----------------------------------------------------------------------------

Status ReadTimes(HANDLE line, COMMTIMEOUTS& times);
Status WriteTimes(HANDLE line, const COMMTIMEOUTS& times);

// ---- Transfers -----------------------------------------------------------------------------

Result<std::size_t> ReadOnce(HANDLE line, std::span<std::byte> into);
Result<std::size_t> WriteOnce(HANDLE line, std::span<const std::byte> from);

// Waits until a byte comes, or another call changes what is waited for.
//
// events  what happened. Must outlive the line: where the call returns before an event (Wine's
//         does), the system fills it in later.
Status WaitForEvent(HANDLE line, DWORD& events);

// ---- Queues --------------------------------------------------------------------------------

struct Queued {
  std::size_t received = 0;  // not yet read
  std::size_t unsent = 0;    // written, not yet sent
};

// Also clears the line's errors.
Result<Queued> CountQueued(HANDLE line);

Status DiscardInput(HANDLE line);
Status DiscardOutput(HANDLE line);
Status FlushHardware(HANDLE line);  // waits until the hardware's own store is sent

// ---- Modem lines ---------------------------------------------------------------------------

Status SetModemLine(HANDLE line, DWORD function);  // SETDTR, CLRDTR, SETRTS, CLRRTS

}  // namespace kinetrel
