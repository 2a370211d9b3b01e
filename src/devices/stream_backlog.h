// Drops the old records of a streaming device. They came while this process did not run, and would
// be published with the time of their reading. Some lines hold few records, so their number alone
// does not tell how old they are: the time between two calls counts too.
//
// Threads  the sampling thread.
#pragma once

#include <cstddef>
#include <cstdint>

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

  // Call it before each frame. Waits at most 100 ms for a byte. If records of more than half a
  // second wait, or if several wait and the last call is that long ago, drops all of them, and says
  // how many on the console and in `log`; that takes at most 100 ms. Looks at the input queue four
  // times a second. Allocates only the log entry. True if it dropped records.
  bool DropOld(SerialPort& port, RecordWindow& window, const Stream& stream, StatusLog* log);

 private:
  bool WasAway();

  Deadline nextLook_{Milliseconds(0)};
  std::int64_t lastCall_ = 0;  // ticks; 0: none
};

}  // namespace kinetrel
