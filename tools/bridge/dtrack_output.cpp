#include <algorithm>

#include "bridge/dtrack.h"
#include "bridge/frame_gatherer.h"
#include "bridge/text.h"
#include "bridge/udp_output.h"

namespace kinetrel::bridge {
namespace {

std::string DescribeDTrack(std::span<const std::byte> packet) {
  std::string text(AsText(packet));
  std::erase(text, '\r');
  if (text.ends_with('\n')) text.pop_back();
  return text;
}

// Body numbers: from 0 in the order of the chosen sensors. A body that a packet leaves out counts
// as lost, so each packet holds a whole frame of the device.
class DTrackOutput final : public UdpOutput {
 public:
  DTrackOutput(const OutputContext& context, Feed& feed)
      : UdpOutput(context, feed, DescribeDTrack),
        frame_(feed, [this](std::span<const Pose> poses) { Send(poses); }) {}

  void Publish(const Feed&, std::span<const Pose> poses) override { frame_.Add(poses); }

  void Tick(const Feed&, std::int64_t nowNs) override { frame_.Tick(nowNs); }

  // A tracker that delivers nothing: one frame without bodies.
  void OnState(const Feed&, const SourceState& state) override {
    frame_.SetState(state);
    if (state.Delivers() || lastUtcNs_ == 0) return;
    SendBodies(lastUtcNs_, {});
    lastUtcNs_ = 0;
  }

 private:
  void Send(std::span<const Pose> poses) {
    bodies_.clear();
    for (const Pose& pose : poses) {
      known_ = std::max(known_, pose.place + 1);
      if (!pose.Seen()) continue;
      const Matrix m = MatrixOf(pose.orientation);
      bodies_.push_back(
          {pose.place,
           pose.position,
           {m[0][0], m[0][1], m[0][2], m[1][0], m[1][1], m[1][2], m[2][0], m[2][1], m[2][2]}});
    }
    lastUtcNs_ = poses[0].utcNs;
    SendBodies(lastUtcNs_, bodies_);
  }

  void SendBodies(std::int64_t utcNs, std::span<const DTrackBody> bodies) {
    EncodeDTrack(packets().writer(), number_++, utcNs, known_, bodies);
    packets().End();
    SendFrame();
  }

  FrameGatherer frame_;
  std::vector<DTrackBody> bodies_;  // of the present frame
  std::uint32_t number_ = 1;
  unsigned known_ = 0;          // the highest body's number plus 1
  std::int64_t lastUtcNs_ = 0;  // of the last frame; 0: none since the tracker was lost
};

}  // namespace

std::unique_ptr<Output> MakeDTrack(const OutputContext& context, const Feeds& feeds) {
  return std::make_unique<DTrackOutput>(context, *feeds.front());
}

}  // namespace kinetrel::bridge
