// One thread that is asked to stop by an event and waited for, but not for ever.
//
// Threads  any may call; each run of the thread has an event of its own, so that a run that was
//          abandoned stays told to stop when the next one starts.
#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "platform/thread.h"
#include "publish/stop_event.h"

namespace kinetrel {

class WorkerThread {
 public:
  // Runs on the thread; returns soon after the event is set. It must own what it uses.
  using Entry = std::function<void(const StopEvent&)>;
  static constexpr Milliseconds kStopPatience{10000};

  WorkerThread() = default;
  ~WorkerThread() { Stop(true); }
  WorkerThread(const WorkerThread&) = delete;
  WorkerThread& operator=(const WorkerThread&) = delete;

  // Starts a thread unless one runs. False: the system refused it.
  bool Start(Entry entry);

  // Asks the thread to stop and lets go of it; with `wait`, unless called by the thread itself,
  // waits up to kStopPatience for its end, and for the end of those that were told before and that
  // nobody has waited for since; one that has not ended by then is abandoned.
  void Stop(bool wait);

  bool Exists() const;                    // started, and no stop since
  bool IsRunning() const;                 // exists and has not ended
  bool Wait(Milliseconds timeout) const;  // true: none exists, or it ended within the time-out

 private:
  struct Run {
    StopEvent stop;
    Thread thread;
    std::shared_ptr<Run> before;  // one that was still ending when this began
  };
  std::shared_ptr<Run> Current() const;

  mutable std::mutex lock_;  // a leaf, held for a look at the pointer
  std::shared_ptr<Run> run_;
  std::shared_ptr<Run> ending_;  // the last that was told to stop, until it has been waited for
};

}  // namespace kinetrel
