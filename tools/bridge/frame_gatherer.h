#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <utility>
#include <vector>

#include "bridge/output.h"

namespace kinetrel::bridge {

// Gathers the poses of one device frame, for a protocol in which a sensor that a packet leaves out
// counts as lost. The stream does not wait for a whole frame: a device of four stations sends each
// record when it has it. A first frame of which only the end came is left out.
class FrameGatherer {
 public:
  using Finish = std::function<void(std::span<const Pose> poses)>;

  // finish  is given each frame, once.
  FrameGatherer(const Feed& feed, Finish finish) : feed_(feed), finish_(std::move(finish)) {}

  // Which sensors make a frame whole. Without a tracker that delivers, what it holds is left out.
  void SetState(const SourceState& state);
  // Finishes the frame when its last sensor has come, or the first one of the next frame.
  void Add(std::span<const Pose> poses);
  // Finishes a frame that has been waiting for too long.
  void Tick(std::int64_t nowNs);

 private:
  void Flush(std::int64_t nowNs);
  void Clear();
  bool IsWhole() const { return expected_ != 0 && (expected_ & ~present_) == 0; }

  const Feed& feed_;
  Finish finish_;
  std::uint32_t expected_ = 0;  // bit i: sensor i
  std::uint32_t present_ = 0;
  bool joined_ = false;  // false: the present frame may have begun before we came
  std::vector<Pose> poses_;
};

}  // namespace kinetrel::bridge
