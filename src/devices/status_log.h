// The engine's time-stamped list of status messages, written by the engine, its drivers and their
// threads.
//
// Codes    negative: a failure (-1 refused or not open, -2 not allowed, -3 a port or setting
//          failed, -4 boot, -5 joystick, -10 shared memory, -16 a device at its error limit);
//          0: a vendor library's report; positive: progress (1 start and recovery, 2 port open,
//          3 boot and configuration, 5 counts and timings, 6 closing).
// Threads  any; every operation takes the log's own lock, which is never held around another.
// Memory   an entry allocates its text; so nothing that runs every frame may log.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

namespace kinetrel {

struct StatusEntry {
  std::time_t when = 0;  // seconds since 1970, when the entry was added
  int code = 0;
  std::string text;
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

  bool SetStatus(int code, const char* text);  // always true

  // Formats as printf does; text past kLongestFormatted characters is cut. Always true.
  [[gnu::format(printf, 3, 4)]] bool SetStatusF(int code, const char* format, ...);

  // The newest entry's text, empty when there is none. Valid until the next entry is added: for a
  // caller that may be overtaken, Newest() copies.
  const char* CurrentStatusText() const;

  StatusEntry Newest() const;
  std::vector<StatusEntry> Entries() const;  // a copy, oldest first

 private:
  friend bool Announce(StatusLog&, const char*, int, const char*, ...);
  friend bool Post(StatusLog*, int, const char*, ...);

  // With the lock held.
  void Append(int code, std::string text);
  [[gnu::format(printf, 3, 0)]] void AppendFormatted(int code, const char* format,
                                                     std::va_list arguments);

  mutable std::mutex lock_;
  std::vector<StatusEntry> entries_;
  std::vector<char> formatBuffer_;
};

// Prints `prefix` and the formatted text on the standard error stream and logs the text: the one
// way to say a thing in both places. Always true.
[[gnu::format(printf, 4, 5)]] bool Announce(StatusLog& log, const char* prefix, int code,
                                            const char* format, ...);

// SetStatusF for a device that may have been given no log: with null, nothing. Always true.
[[gnu::format(printf, 3, 4)]] bool Post(StatusLog* log, int code, const char* format, ...);

}  // namespace kinetrel
