#include "bridge/opentrack.h"

#include "bridge/udp_output.h"

namespace kinetrel::bridge {
namespace {

// The format knows one head: the first of the chosen sensors.
class OpentrackOutput final : public UdpOutput {
 public:
  OpentrackOutput(const OutputContext& context, Feed& feed)
      : UdpOutput(context, feed, DescribeOpentrack) {
    if (feed.selector.ChosenByOperator() && feed.selector.sensors().size() > 1) {
      feed.options.Complain("opentrack takes one sensor, as in sensors=1");
    }
  }

  void Publish(const Feed&, std::span<const Pose> poses) override {
    for (const Pose& pose : poses) {
      if (pose.place != 0 || !pose.Seen()) continue;
      const auto& [x, y, z] = pose.position;
      const auto& [azimuth, elevation, roll] = pose.angles;
      EncodeOpentrack(packets().writer(),
                      {x, y, z, Degrees(azimuth), Degrees(elevation), -Degrees(roll)});
      packets().End();
      SendFrame();
    }
  }
};

}  // namespace

std::unique_ptr<Output> MakeOpentrack(const OutputContext& context, const Feeds& feeds) {
  return std::make_unique<OpentrackOutput>(context, *feeds.front());
}

}  // namespace kinetrel::bridge
