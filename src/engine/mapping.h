// Which sensor is published where.
#pragma once

#include <map>
#include <memory>
#include <tuple>

#include "engine/running_stats.h"
#include "publish/shared_track_reader.h"

namespace kinetrel {

// One published destination. Comparison ignores the device number: an engine publishes on one
// device number at a time.
struct MappingKey {
  int shmDevice = 0;
  int bin = 0;
  int poseIndex = 0;

  bool operator<(const MappingKey& other) const {
    return std::tie(bin, poseIndex) < std::tie(other.bin, other.poseIndex);
  }
};

struct Mapping {
  int sensor = -1;                            // none
  std::unique_ptr<SharedTrackReader> reader;  // of this mapping's bin; made at the first use
  bool held = false;                          // another program held that bin at the last read
  RunningStats latency;                       // seconds from sample to publication
  RunningStats rate;                          // Hz between samples
  double lastSampleTime = 0.0;                // seconds; 0: none yet

  void ResetStatistics() {
    latency.Reset();
    rate.Reset();
    lastSampleTime = 0.0;
  }
};

using MappingTable = std::map<MappingKey, Mapping>;

}  // namespace kinetrel
