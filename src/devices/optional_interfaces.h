// What a tracker may implement beside TrackerDevice. The engine asks each device once for these
// interfaces and so names no driver class.
//
// Ownership  devices are owned as TrackerDevice, never through one of these.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kinetrel {

// A tracker with buttons of its own: the engine publishes them with every frame.
class ButtonBits {
 public:
  struct Buttons {
    std::uint32_t known;  // the bits that belong to this device; the others stay as they are
    std::uint32_t bits;
  };

  // The buttons of the last record.
  //
  // Threads  the sampling thread, after ReadFrame. Allocates nothing.
  virtual Buttons OwnButtons() const = 0;

 protected:
  ~ButtonBits() = default;
};

// A tracker with a connection of its own in place of the serial port. When the connection is lost,
// the engine opens and boots the device again.
class OwnConnection {
 public:
  // Threads  the sampling thread, after a failed ReadFrame. Allocates nothing.
  virtual bool ConnectionLost() = 0;

  // False: silence is normal for this device, and the engine never starts it anew.
  virtual bool MayBeRestarted() const { return true; }

 protected:
  ~OwnConnection() = default;
};

// A tracker whose records are packed: record 0 is the first active sensor, record 1 the next one.
// With gaps in the sensor mask the number of a sensor differs from that of its record.
class PackedRecords {
 public:
  // The number that the record getters expect for `sensor` (from 0); -1 if it is not active.
  //
  // Threads  the sampling thread, after ReadFrame. Allocates nothing.
  virtual int RecordOf(int sensor) = 0;

 protected:
  ~PackedRecords() = default;
};

// A tracker whose line may be too slow for all that it measures: it then sends fewer records.
class SerialRecords {
 public:
  // Bytes of a record of one sensor, as it is sent with the present settings.
  virtual std::size_t RecordSize() const = 0;

 protected:
  ~SerialRecords() = default;
};

}  // namespace kinetrel
