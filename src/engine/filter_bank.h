// The filters of all mappings. The sampling thread sends each record through them as soon as the
// device has told it, while control calls change them.
//
// Threads  the sampling thread holds the lock for one record, a control call for one operation. The
//          lock inherits priority and is taken under the engine's lock or alone; under it only the
//          status log's lock is taken. Without a filter the sampling thread takes no lock.
// Memory   the sampling thread allocates nothing, except for a line in the status log.
#pragma once

#include <atomic>
#include <map>
#include <optional>

#include "devices/status_log.h"
#include "engine/mapping.h"
#include "filters/filter_chain.h"
#include "platform/mutex.h"

namespace kinetrel {

// A pose after the filters of a mapping.
struct FilteredPose {
  PoseSample sample;
  bool whole = true;  // false: a filter could not work on it
  double lag = 0.0;   // s; see Filter::Lag
};

class FilterBank {
 public:
  explicit FilterBank(StatusLog& log) : log_(log) {}

  PriorityMutex mutex;

  // ---- Control calls, under the engine's lock ------------------------------------------------

  void SetSensor(const MappingKey& key, int sensor) EXCLUDES(mutex);  // of a mapping, new or not
  void Remove(const MappingKey& key) EXCLUDES(mutex);
  void Clear() EXCLUDES(mutex);

  // The chain of a mapping. A mapping without a chain gets an empty one.
  FilterChain& ChainOf(const MappingKey& key) REQUIRES(mutex);
  void Changed() REQUIRES(mutex);  // call it after filters were added or removed

  // ---- Sampling thread -----------------------------------------------------------------------

  // A run of sampling begins: all filters begin anew, and records of another run are not filtered.
  void Begin(unsigned run) EXCLUDES(mutex);

  bool IsEmpty() const { return filters_.load(std::memory_order_relaxed) == 0; }

  // Sends a device's own pose through the filters of each mapping that shows its sensor.
  //
  // run      of the calling thread; see Begin.
  // Returns  the pose of the first of these mappings that has a filter, in the order of bin and
  //          pose slot; nothing if none has.
  std::optional<FilteredPose> Filter(unsigned run, const PoseSample& own) EXCLUDES(mutex);

  // Fills a gap: works out a pose for a sensor that sends nothing now and has sent before. Only the
  // mappings whose chains bridge gaps do so. A mapping whose pose became invalid waits for the
  // sensor's next record.
  //
  // timeNs   of what the sensor would have sent.
  // Returns  as Filter; nothing as well when the first mapping with a filter bridges no gaps.
  std::optional<FilteredPose> FilterMissing(unsigned run, int sensor, std::int64_t timeNs)
      EXCLUDES(mutex);

  // The newest pose of a mapping; nothing if it has no filter.
  std::optional<FilteredPose> NewestOf(const MappingKey& key) EXCLUDES(mutex);

 private:
  struct Entry {
    int sensor = -1;
    FilterChain chain;
    std::optional<FilteredPose> newest;
    bool gaveUp = false;  // the gap that it bridged lasts longer than its filters go on

    void Work(const PoseSample& own);
  };

  StatusLog& log_;
  std::map<MappingKey, Entry> entries_ GUARDED_BY(mutex);
  unsigned run_ GUARDED_BY(mutex) = 0;
  std::atomic<int> filters_ = 0;  // of all chains
};

}  // namespace kinetrel
