// Reads a recording of kinetrel-record back as frames: the poses of one slot that belong together.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "mcap/mcap_reader.h"
#include "mcap/recording.h"

namespace kinetrel::record {

struct RecordedPose {
  int sensor = 1;                        // from 1
  std::uint64_t sampleUtcNs = 0;         // since 1970
  std::array<double, 3> position{};      // m; NaN: not valid
  std::array<double, 4> orientation{};   // w, x, y, z; NaN: not valid
  std::optional<std::uint32_t> buttons;  // as last known
};

struct RecordedMarker {
  std::uint64_t utcNs = 0;
  std::string text;
};

struct RecordedFrame {
  std::uint32_t number = 0;             // the device's own count
  std::uint64_t utcNs = 0;              // of its first pose
  std::vector<RecordedPose> poses;      // at most one of a sensor, in the order in which they came
  std::vector<RecordedMarker> markers;  // set since the frame before
};

class RecordedFrames {
 public:
  // slot     0: the first one that has poses.
  // Returns  empty, or a sentence for the user, also for a file without poses of ours.
  std::string Open(const std::filesystem::path& path, int slot);

  // The next frame; false at the end of the recording.
  bool Next(RecordedFrame& frame);

  // Those after the last frame, once Next has answered false.
  const std::vector<RecordedMarker>& lateMarkers() const { return nextMarkers_; }

  void Rewind();
  void Seek(std::uint64_t utcNs);

  int slot() const { return slot_; }
  // Of which there may be poses; sorted.
  const std::vector<int>& sensors() const { return sensors_; }
  // Of other trackers that have poses in the file; sorted.
  const std::vector<int>& otherSlots() const { return otherSlots_; }
  std::string DeviceName();
  double NominalRate();  // Hz of each sensor, as the device stated it; 0: not known
  bool whole() const { return reader_.whole(); }
  std::uint64_t damaged() const { return reader_.damaged(); }

 private:
  std::string Text(const char* key);

  mcap::McapReader reader_;
  int slot_ = 0;
  std::vector<int> sensors_;
  std::vector<int> otherSlots_;
  std::array<std::optional<std::uint32_t>, 33> buttons_;  // of sensor 1 to 32
  std::optional<RecordedPose> next_;                      // begins the next frame ...
  std::uint32_t nextNumber_ = 0;                          // ... of this number
  std::vector<RecordedMarker> nextMarkers_;
};

}  // namespace kinetrel::record
