// One thread that an event asks to stop. Stopping waits for it, but not for ever.
//
// Threads  any may call. Each run of the thread has its own event, so an abandoned run stays asked
// to
//          stop when the next one starts.
#pragma once

#include <functional>
#include <memory>

#include "platform/mutex.h"
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

  // Asks the thread to stop. With `wait`, also waits up to kStopPatience until it and all earlier
  // runs have ended; a run that has not ended by then is abandoned. The thread itself never waits.
  // Returns false if this call abandoned a run.
  bool Stop(bool wait);

  bool Exists() const;                    // started, and no stop since
  bool IsRunning() const;                 // it exists and has not ended
  bool Wait(Milliseconds timeout) const;  // true: none exists, or it ended within the time-out

 private:
  struct Run {
    StopEvent stop;
    Thread thread;
    std::shared_ptr<Run> before;  // an earlier run that had not ended when this one began
  };
  std::shared_ptr<Run> Current() const;

  mutable Mutex lock_;  // guards the pointers; held for moments
  std::shared_ptr<Run> run_ GUARDED_BY(lock_);
  // The last run that was asked to stop, until it has ended.
  std::shared_ptr<Run> ending_ GUARDED_BY(lock_);
};

}  // namespace kinetrel
