// One run of kinetrel-watch: from the bin to the face, until there is a reason to end.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>

#include "watch/frame_follower.h"
#include "watch/watch_face.h"
#include "watch/watch_options.h"

namespace kinetrel {

class Watcher {
 public:
  // stop  nonzero once the program is to end; must outlive the object.
  Watcher(const WatchOptions& options, const std::atomic<int>& stop);

  // Says why on standard error where it ends with anything but Done.
  ExitCode Run();

 private:
  ExitCode Follow();
  std::optional<ExitCode> EndReason(WriteResult written, const Deadline& frameDeadline) const;
  Milliseconds Timeout() const { return options_.timeout.value_or(kForever); }

  const WatchOptions options_;
  const std::atomic<int>& stop_;
  FrameFollower follower_;
  std::unique_ptr<WatchFace> face_;
  std::uint64_t frames_ = 0;
};

}  // namespace kinetrel
