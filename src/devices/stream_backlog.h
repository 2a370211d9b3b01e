// Drops the old records of a streaming device. They came while this process did not run, and would
// be published with the time of their reading.
//
// Threads  the sampling thread.
#pragma once

#include <cstddef>

#include "devices/record_window.h"
#include "devices/status_log.h"
#include "platform/clock.h"

namespace kinetrel {

class StreamBacklog {
 public:
  struct Stream {
    const char* device;      // its name, for the message
    std::size_t recordSize;  // bytes
    int recordsPerSecond;
  };

  // If records of more than half a second wait, drops all of them, and says how many on the console
  // and in `log`. Looks at the input queue four times a second; takes at most 100 ms. Allocates
  // only the log entry. True if it dropped records.
  bool DropOld(SerialPort& port, RecordWindow& window, const Stream& stream, StatusLog* log);

 private:
  Deadline nextLook_{Milliseconds(0)};
};

}  // namespace kinetrel
