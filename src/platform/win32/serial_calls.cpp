#include "platform/win32/serial_calls.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

#include "platform/win32/os.h"

namespace kinetrel {
namespace {

DWORD CountOf(std::size_t size) {
  return static_cast<DWORD>(std::min<std::size_t>(size, std::numeric_limits<DWORD>::max()));
}

Status Ended(BOOL done, const char* what) { return done ? Status{} : StatusOfLastError(what); }

std::string ChosenName(const std::string& name) {
  if (!ComNumber(name)) return name;
  const char* const chosen = std::getenv(("KINETREL_" + name).c_str());
  return chosen != nullptr && *chosen != '\0' ? chosen : name;
}

}  // namespace

// ---- Names ---------------------------------------------------------------------------------

std::string SerialDevicePath(const std::string& name) {
  const std::string chosen = ChosenName(name);
  return chosen.starts_with("\\\\") ? chosen : "\\\\.\\" + chosen;
}

// ---- Opening -------------------------------------------------------------------------------

Result<Handle> OpenSerialDevice(const std::string& path) {
  constexpr const char* kWhat = "open the serial line";
  HANDLE const opened = ::CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                      OPEN_EXISTING, 0, nullptr);
  if (opened == INVALID_HANDLE_VALUE) {
    const Status refused = StatusOfLastError(kWhat);
    if (refused.error != Error::Invalid) return refused;
    return Status{Error::Failed, refused.osCode, kWhat};  // a name that no device can have
  }
  Handle line(opened);
  if (!line) return Status{Error::Failed, 0, kWhat};
  if (::GetFileType(opened) != FILE_TYPE_CHAR) return Status{Error::Invalid, 0, kWhat};
  return line;
}

Status WatchReceivedBytes(HANDLE line) {
  return Ended(::SetCommMask(line, EV_RXCHAR), "ask for received bytes");
}

Result<COMMPROP> ReadProperties(HANDLE line) {
  COMMPROP properties{};
  properties.wPacketLength = sizeof properties;
  properties.dwProvSpec1 = COMMPROP_INITIALIZED;
  if (::GetCommProperties(line, &properties)) return properties;
  return StatusOfLastError("read the port's capabilities");
}

Result<DCB> ReadConfiguration(HANDLE line) {
  COMMCONFIG configuration{};
  DWORD size = sizeof configuration;
  configuration.dwSize = size;
  configuration.dcb.DCBlength = sizeof configuration.dcb;
  if (::GetCommConfig(line, &configuration, &size)) return configuration.dcb;
  return StatusOfLastError("read the port's configuration");
}

// ---- Time-outs -----------------------------------------------------------------------------

Status ReadTimes(HANDLE line, COMMTIMEOUTS& times) {
  return Ended(::GetCommTimeouts(line, &times), "read the time-outs");
}

Status WriteTimes(HANDLE line, const COMMTIMEOUTS& times) {
  COMMTIMEOUTS copy = times;
  return Ended(::SetCommTimeouts(line, &copy), "set the time-outs");
}

// ---- Transfers -----------------------------------------------------------------------------

Result<std::size_t> ReadOnce(HANDLE line, std::span<std::byte> into) {
  DWORD got = 0;
  if (::ReadFile(line, into.data(), CountOf(into.size()), &got, nullptr)) return std::size_t{got};
  return StatusOfLastError("read");
}

Result<std::size_t> WriteOnce(HANDLE line, std::span<const std::byte> from) {
  DWORD taken = 0;
  const BOOL done = ::WriteFile(line, from.data(), CountOf(from.size()), &taken, nullptr);
  if (done || taken > 0) return std::size_t{taken};
  return StatusOfLastError("write");
}

Status WaitForEvent(HANDLE line, DWORD& events) {
  events = 0;
  return Ended(::WaitCommEvent(line, &events, nullptr), "wait for input");
}

// ---- Queues --------------------------------------------------------------------------------

Result<Queued> CountQueued(HANDLE line) {
  DWORD errors = 0;
  COMSTAT state{};
  if (!::ClearCommError(line, &errors, &state)) return StatusOfLastError("count queued bytes");
  return Queued{state.cbInQue, state.cbOutQue};
}

Status DiscardInput(HANDLE line) {
  return Ended(::PurgeComm(line, PURGE_RXCLEAR | PURGE_RXABORT), "discard queued bytes");
}

Status DiscardOutput(HANDLE line) {
  return Ended(::PurgeComm(line, PURGE_TXCLEAR | PURGE_TXABORT), "discard queued bytes");
}

Status FlushHardware(HANDLE line) {
  return Ended(::FlushFileBuffers(line), "send what was written");
}

// ---- Modem lines ---------------------------------------------------------------------------

// A pseudo-terminal and some adapters have none. Drivers report that in different ways.
Status SetModemLine(HANDLE line, DWORD function) {
  constexpr const char* kWhat = "set a modem line";
  if (::EscapeCommFunction(line, function)) return {};
  const Status status = StatusOfLastError(kWhat);
  return {status.error == Error::Closed ? Error::Closed : Error::Unsupported, status.osCode, kWhat};
}

}  // namespace kinetrel
