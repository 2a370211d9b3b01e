// One call of the control interface: the engine lock held for all of it, and the refusals in words.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>

#include "engine/engine_state.h"

namespace kinetrel {

class ControlCall {
 public:
  // `name` begins every message of the call; a text that lives for ever.
  ControlCall(EngineState& state, const char* name);

  EngineLock& lock() { return lock_; }
  EngineState& state() { return state_; }
  TrackerDevice& device() { return *state_.device; }

  // Each says why when it answers false or null.
  bool Open();
  bool Given(const void* pointer, const char* whatIsNull);
  Mapping* Find(const int key[3]);
  Filter* FindFilter(Mapping& mapping, int index);
  Filter* FindFilter(const int key[3], int index);

  bool Refuse(const char* reason, int code = -1);  // logs "name: reason"; false

  // Takes the device from the sampling thread, which gives it up after each frame, for the rest of
  // the call. False, and said, when it does not within two seconds: it hangs in the device.
  bool UseDevice();

  ~ControlCall();
  ControlCall(const ControlCall&) = delete;
  ControlCall& operator=(const ControlCall&) = delete;

 private:
  static constexpr Milliseconds kDevicePatience{2000};

  // Tells the sampling thread that somebody waits.
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
  std::shared_ptr<TrackerDevice> used_;  // whose inUse() we hold
};

// A key as hosts pass it: device, bin, pose index.
inline MappingKey KeyFrom(const int key[3]) { return {key[0], key[1], key[2]}; }

// The row of a table of attributes that has the number; null where none has.
template <typename Row, std::size_t Count>
const Row* FindRow(const Row (&rows)[Count], int id) {
  for (const Row& row : rows) {
    if (static_cast<int>(row.id) == id) return &row;
  }
  return nullptr;
}

}  // namespace kinetrel
