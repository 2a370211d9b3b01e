// What a tracker implements beside TrackerDevice whose records are those of its active sensors
// alone, one after another: with gaps in the sensor mask a sensor's number is not that of its
// record.
#pragma once

namespace kinetrel {

class PackedRecords {
 public:
  // What the getters of records want for `sensor`, from 0; -1 for one that is not active.
  //
  // Threads  the sampling thread, after ReadFrame. Allocates nothing.
  virtual int RecordOf(int sensor) = 0;

 protected:
  ~PackedRecords() = default;  // owned as a device, never as this
};

}  // namespace kinetrel
