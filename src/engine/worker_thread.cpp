#include "engine/worker_thread.h"

#include <utility>

namespace kinetrel {

std::shared_ptr<WorkerThread::Run> WorkerThread::Current() const {
  const Lock held(lock_);
  return run_;
}

bool WorkerThread::Start(Entry entry) {
  const Lock held(lock_);
  if (run_ != nullptr && !run_->thread.Wait(Milliseconds(0))) return true;
  const StopEvent stop;
  Result<Thread> thread = Thread::Start([stop, entry = std::move(entry)] { entry(stop); });
  if (!thread.Ok()) return false;
  const bool overlaps = ending_ != nullptr && !ending_->thread.Wait(Milliseconds(0));
  run_ = std::make_shared<Run>(Run{stop, std::move(*thread), overlaps ? ending_ : nullptr});
  return true;
}

bool WorkerThread::Stop(bool wait) {
  std::shared_ptr<Run> run;
  {
    const Lock held(lock_);
    if (run_ != nullptr) ending_ = std::exchange(run_, nullptr);
    run = ending_;
  }
  if (run == nullptr) return true;
  run->stop.Set();
  if (!wait || run->thread.IsCurrent()) return true;
  const Deadline deadline(kStopPatience);
  bool ended = true;
  for (const Run* each = run.get(); each != nullptr; each = each->before.get()) {
    ended = each->thread.Wait(deadline.Remaining()) && ended;
  }
  const Lock held(lock_);
  if (ending_ == run) ending_ = nullptr;
  return ended;
}

bool WorkerThread::Exists() const { return Current() != nullptr; }

bool WorkerThread::IsRunning() const { return !Wait(Milliseconds(0)); }

bool WorkerThread::Wait(Milliseconds timeout) const {
  const std::shared_ptr<Run> run = Current();
  return run == nullptr || run->thread.Wait(timeout);
}

}  // namespace kinetrel
