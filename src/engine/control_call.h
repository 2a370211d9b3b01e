// One call of the control interface. It holds the engine lock for the whole call and logs why a
// call is refused.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>

#include "engine/engine_state.h"

namespace kinetrel {

class SCOPED_CAPABILITY ControlCall {
 public:
  // name  the first word of each message of the call; a constant.
  ControlCall(EngineState& state, const char* name) ACQUIRE(state.mutex);

  EngineLock& lock() { return lock_; }
  EngineState& state() { return state_; }
  TrackerDevice& device() {
    lock_.AssertHolds(state_.mutex);
    return *state_.device;
  }

  // Each logs the reason before it returns false or null.
  bool IsOpen();
  bool IsGiven(const void* pointer, const char* argument);  // false for null
  Mapping* FindMapping(const int key[3]);

  // The filters of a mapping. The call holds their lock from here to its end.
  FilterChain& UseFilters(const int key[3]);
  FilterChain* FindFilters(const int key[3]);  // null: no such mapping
  Filter* FindFilter(const int key[3], int index);

  bool Refuse(const char* reason,
              StatusCode code = StatusCode::Refused);  // logs "name: reason"; false

  // Takes the device from the sampling thread, which releases it after each frame, until the call
  // ends. False, and logged, if the thread does not release it within two seconds.
  bool UseDevice();

  ~ControlCall() RELEASE();
  ControlCall(const ControlCall&) = delete;
  ControlCall& operator=(const ControlCall&) = delete;

 private:
  static constexpr Milliseconds kDevicePatience{2000};

  // Tells the sampling thread that a call waits.
  class Pending {
   public:
    explicit Pending(std::atomic<int>& calls) : calls_(calls) { ++calls_; }
    ~Pending() { --calls_; }
    Pending(const Pending&) = delete;
    Pending& operator=(const Pending&) = delete;

   private:
    std::atomic<int>& calls_;
  };

  EngineState& state_;
  const char* const name_;
  const Pending pending_;
  EngineLock lock_;
  std::shared_ptr<TrackerDevice> used_;  // this call holds its inUse()
  bool usesFilters_ = false;             // this call holds the filters' lock
};

// A key as hosts pass it: device, bin, pose index.
inline MappingKey KeyFrom(const int key[3]) { return {key[0], key[1], key[2]}; }

// The row of an attribute table with that number; null if there is none.
template <typename Row, std::size_t Count>
const Row* FindRow(const Row (&rows)[Count], int id) {
  for (const Row& row : rows) {
    if (static_cast<int>(row.id) == id) return &row;
  }
  return nullptr;
}

}  // namespace kinetrel
