// The engine's time-stamped list of status messages, written by the engine, its drivers and their
// threads.
//
// Codes    a StatusCode, or the error number of a device as it is: StatusCode{number}.
// Threads  any; each operation takes the log's own lock and takes no other lock inside.
// Memory   an entry allocates its text, so code that runs every frame must not log.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "platform/mutex.h"

namespace kinetrel {

// What an entry is about. Negative codes are failures.
enum class StatusCode : int {
  DeviceErrorLimit = -16,  // a device reported too many errors
  SharedMemory = -10,
  Joystick = -5,
  Boot = -4,
  Port = -3,  // a port or a setting of the device
  NotAllowed = -2,
  Refused = -1,  // a call or a value; also: not open
  Report = 0,    // a vendor library's or a device's own words
  Progress = 1,  // start, recovery, status on demand
  PortOpen = 2,
  Setup = 3,   // boot and configuration
  Counts = 5,  // counts and timings
  Closing = 6,
};

struct StatusEntry {
  std::time_t when = 0;  // seconds since 1970, when the entry was added
  int code = 0;          // a StatusCode, or a device's own error number
  std::string text;
};

// Gets every entry as it is added.
class StatusListener {
 public:
  // Called under the log's lock: takes no other lock and does not log.
  virtual void OnEntry(const StatusEntry& entry) = 0;

 protected:
  ~StatusListener() = default;
};

class StatusLog {
 public:
  // At kTrimAt entries only the newest kKeep stay.
  static constexpr std::size_t kTrimAt = 4096;
  static constexpr std::size_t kKeep = 2048;
  static constexpr std::size_t kLongestFormatted = 4095;  // characters

  StatusLog();
  StatusLog(const StatusLog&) = delete;
  StatusLog& operator=(const StatusLog&) = delete;

  bool SetStatus(StatusCode code, const char* text);  // always true

  // Formats as printf does and cuts the text to kLongestFormatted characters. Always true.
  [[gnu::format(printf, 3, 4)]] bool SetStatusF(StatusCode code, const char* format, ...);

  // The newest entry's text, empty for an empty log. Valid until the next entry is added. If
  // another thread may add one meanwhile, use Newest(), which copies.
  const char* CurrentStatusText() const;

  StatusEntry Newest() const;
  std::vector<StatusEntry> Entries() const;  // a copy, oldest first

  // Copies of the entries that were added after the first `seen`; `seen` then counts them too.
  // Those that were trimmed meanwhile are missing.
  std::vector<StatusEntry> EntriesAfter(std::uint64_t& seen) const;

  // From now on `listener` gets the entries in place of the one before; first those that are there.
  // It must be detached before it ends; Detach does nothing once another one is attached.
  void Attach(StatusListener& listener);
  void Detach(const StatusListener& listener);

 private:
  friend bool Announce(StatusLog&, const char*, StatusCode, const char*, ...);
  friend bool Post(StatusLog*, StatusCode, const char*, ...);

  void Append(StatusCode code, std::string text) REQUIRES(lock_);
  [[gnu::format(printf, 3, 0)]] void AppendFormatted(StatusCode code, const char* format,
                                                     std::va_list arguments) REQUIRES(lock_);

  mutable Mutex lock_;
  std::vector<StatusEntry> entries_ GUARDED_BY(lock_);
  std::uint64_t added_ GUARDED_BY(lock_) = 0;  // since the start, also those that were trimmed
  std::vector<char> formatBuffer_ GUARDED_BY(lock_);
  StatusListener* listener_ GUARDED_BY(lock_) = nullptr;
};

// Prints `prefix` and the formatted text on the standard error stream, and logs the text. Always
// true.
[[gnu::format(printf, 4, 5)]] bool Announce(StatusLog& log, const char* prefix, StatusCode code,
                                            const char* format, ...);

// SetStatusF for a device that may have no log: with null it does nothing. Always true.
[[gnu::format(printf, 3, 4)]] bool Post(StatusLog* log, StatusCode code, const char* format, ...);

}  // namespace kinetrel
