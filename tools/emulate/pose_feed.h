// Feeds a device with the poses of a live source, from a thread of its own.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "emulate/live_motion.h"
#include "platform/clock.h"
#include "platform/status.h"
#include "platform/thread.h"
#include "recording/paced_frames.h"

namespace kinetrel::emulate {

// Where the poses come from. One thread at a time.
class PoseSource {
 public:
  virtual ~PoseSource() = default;

  // Waits for new poses, at most `patience`, and puts them into the motion. Returns the stations
  // that have new ones; bit i is station i.
  virtual std::uint32_t Next(Milliseconds patience) = 0;

  // Its sensors are known.
  virtual bool IsKnown() const = 0;

  // A line for a person about what has changed; empty: nothing has.
  virtual std::string TakeNews() = 0;
};

// The tracker that publishes in this slot, now or later. A station has no pose while its sensor
// delivers none: the tracker has stopped, is lost or searched for, has no such sensor, or has sent
// no record of it for a second (or three of its periods).
std::unique_ptr<PoseSource> MakeSlotSource(int slot, std::shared_ptr<LiveMotion> motion);

// A recording of kinetrel-record, or the poses of a capture of kinetrel, from now on at its own
// pace. A station has no pose in a gap of a second, and after the end.
//
// slot  of the recording; 0: the first one that has poses
struct MadeSource {
  std::unique_ptr<PoseSource> source;  // null: see complaint
  std::string complaint = {};
};
MadeSource MakeRecordingSource(const std::string& file, int slot, record::Pace pace,
                               std::shared_ptr<LiveMotion> motion);

class PoseFeed {
 public:
  // The stations that have new poses, as bits. Called by the feed's thread.
  using Arrived = std::function<void(std::uint32_t stations)>;

  explicit PoseFeed(std::unique_ptr<PoseSource> source);
  ~PoseFeed();  // `arrived` is not called any more
  PoseFeed(const PoseFeed&) = delete;
  PoseFeed& operator=(const PoseFeed&) = delete;

  // Before Start: reads until the sensors of the source are known. False: not within `patience`.
  bool Await(Milliseconds patience);

  Status Start(Arrived arrived);

  // Lines for a person about what has changed. Any thread.
  std::vector<std::string> TakeNews();

 private:
  struct Shared {
    std::unique_ptr<PoseSource> source;
    std::atomic<bool> stop{false};
    std::mutex mutex;
    std::vector<std::string> news;  // under the mutex

    std::uint32_t Step(Milliseconds patience);
  };

  std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
  std::optional<Thread> thread_;
};

}  // namespace kinetrel::emulate
