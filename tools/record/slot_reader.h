// Takes every record of some slots, from a thread of its own, so that a slow disk loses none.
//
// It looks 50 times a second: a stream keeps the records of at least a second of the largest
// tracker. What waits for the disk is bounded; what does not fit is counted as lost.
#pragma once

#include <kinetrel/stream.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/annotations.h"
#include "platform/mutex.h"
#include "platform/thread.h"

namespace kinetrel::record {

// One thing that was read of a slot, in the order in which it happened.
struct Item {
  enum class Kind { Record, Run, State, Log };
  Kind kind = Kind::Record;
  int slot = 1;
  std::int64_t timeNs = 0;  // kinetrel_now_ns(), of State and Log: when it was seen
  kinetrel_record record{};
  kinetrel_device_pose devicePose{};  // of Record, if the record was filtered
  std::shared_ptr<const kinetrel_run>
      run;  // of Run: a writer was found; for its records from here on
  kinetrel_state state = kinetrel_state_unknown;
  int code = 0;      // of Log
  std::string text;  // of State and Log
};

class SlotReader {
 public:
  static constexpr std::size_t kMostWaiting = std::size_t{1} << 16;

  explicit SlotReader(const std::vector<int>& slots);
  ~SlotReader();  // waits for the thread
  SlotReader(const SlotReader&) = delete;
  SlotReader& operator=(const SlotReader&) = delete;

  bool Start();  // false: no thread

  // Replaces the content of `into` by what has come since the last call.
  void Take(std::vector<Item>& into);

  std::uint64_t lost() const { return shared_->lost.load(); }

 private:
  struct Slot {
    int number = 1;
    kinetrel_stream stream{};
    bool open = false;
    bool wasAbsent = false;  // at an earlier look
    bool awaitsRun = false;  // a writer was found whose run cannot be read yet
    int unfinished = 0;      // looks in a row that found what is not a stream yet
    std::uint64_t told = 0;  // of the stream's lost records
    kinetrel_state state = kinetrel_state_unknown;
    std::string text;
    std::uint64_t logLine = 0;  // the newest that was taken
  };
  // Owned by the thread too: it may outlive the object in a stuck system.
  struct Shared {
    Mutex mutex;
    std::vector<Item> waiting GUARDED_BY(mutex);
    std::atomic<std::uint64_t> lost{0};
    std::atomic<bool> stop{false};
  };

  static void Loop(Shared& shared, std::vector<Slot>& slots);
  static void Look(Shared& shared, Slot& slot, std::vector<Item>& found);
  static void TakeState(Slot& slot, kinetrel_state state, const std::string& text,
                        std::vector<Item>& found);
  static void LookAtState(Slot& slot, std::vector<Item>& found);
  static void HandOver(Shared& shared, std::vector<Item>& found);

  std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
  std::vector<Slot> slots_;
  std::optional<Thread> thread_;
};

}  // namespace kinetrel::record
