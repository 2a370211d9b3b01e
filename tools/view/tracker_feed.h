// Follows the stream of one slot on a thread of its own while it has viewers, and keeps the
// newest messages for the viewers.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "view/tracker_snapshot.h"

namespace kinetrel::view {

using Message = std::shared_ptr<const std::string>;  // one text for all viewers

// The newest of each kind; null: none yet. A message that has changed is another object.
struct FeedNews {
  Message status;
  Message frame;
  std::shared_ptr<const TrackerSnapshot> log;  // its run and log lines count
};

class TrackerFeed {
 public:
  // slot     1 to 16.
  // changed  called on the feed's thread after each change of the news; must not wait.
  TrackerFeed(int slot, std::function<void()> changed);
  ~TrackerFeed();  // waits for the thread, at most about 100 ms
  TrackerFeed(const TrackerFeed&) = delete;
  TrackerFeed& operator=(const TrackerFeed&) = delete;

  // Any thread. Unwatched, the thread sleeps, the stream is closed and there are no news.
  void SetWatched(bool watched);
  FeedNews News() const;

 private:
  using Clock = std::chrono::steady_clock;

  void Run();
  void Follow();
  void LookAtRun(TrackerStream& stream);
  void TellFrame();
  void TellProblem(kinetrel_stream_result result);
  bool IsFollowed() const;
  bool IsFollowedLocked() const;
  void Rest(Clock::time_point end);  // ends early with the visit

  template <typename Change>
  void Tell(Change change);

  const int slot_;
  const std::function<void()> changed_;

  // The feed's thread only.
  TrackerSnapshot now_;
  Clock::time_point nextFrame_;                          // at the earliest
  Clock::time_point nextStatus_;                         // at the latest
  kinetrel_stream_result problem_ = kinetrel_stream_ok;  // that was told in this visit
  Clock::time_point nextLook_;                           // at the run
  std::uint64_t followed_ = 0;                           // visit

  mutable std::mutex lock_;
  std::condition_variable woken_;
  bool watched_ = false;
  std::uint64_t visit_ = 0;  // from the first viewer to the last; the next one starts anew
  bool ended_ = false;
  FeedNews news_;

  std::thread thread_;
};

}  // namespace kinetrel::view
