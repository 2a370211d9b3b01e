#include <algorithm>

#include "bridge/freed.h"
#include "bridge/udp_output.h"

namespace kinetrel::bridge {
namespace {

constexpr int kHighestCamera = 255;
constexpr int kMostOf24Bits = 0xFFFFFF;
constexpr std::array<std::string_view, 6> kNumbers = {"pan", "tilt", "roll", "x", "y", "height"};

// Camera numbers: the sensor's own, or counted from option camera=N in the order of the chosen
// sensors. Options zoom=N and focus=N are raw. flip=pan,x turns the sign of these numbers round,
// for receivers that have them their own way.
class FreeDOutput final : public UdpOutput {
 public:
  FreeDOutput(const OutputContext& context, Feed& feed)
      : UdpOutput(context, feed, DescribeFreeD),
        camera_(feed.options.Integer("camera", -1, 0, kHighestCamera)),
        zoom_(feed.options.Integer("zoom", 0, 0, kMostOf24Bits)),
        focus_(feed.options.Integer("focus", 0, 0, kMostOf24Bits)) {
    RefuseNumbersPast(feed, "camera", camera_, kHighestCamera);
    signs_.fill(1);
    ReadFlips(feed.options);
  }

  void Publish(const Feed&, std::span<const Pose> poses) override {
    for (const Pose& pose : poses) {
      const unsigned camera =
          camera_ < 0 ? pose.sensor + 1 : static_cast<unsigned>(camera_) + pose.place;
      if (pose.Seen() && camera <= kHighestCamera) AddPacket(pose, camera);
    }
    SendFrame();
  }

 private:
  void ReadFlips(OutputOptions& options) {
    std::string rest = options.Text("flip", "");
    while (!rest.empty()) {
      const std::size_t comma = std::min(rest.find(','), rest.size());
      const auto* const found = std::find(kNumbers.begin(), kNumbers.end(), rest.substr(0, comma));
      if (found == kNumbers.end()) {
        options.Complain(
            "option flip needs some of pan, tilt, roll, x, y, height, as in flip=pan,x");
        return;
      }
      signs_[static_cast<std::size_t>(found - kNumbers.begin())] = -1;
      rest.erase(0, comma + 1);
    }
  }

  void AddPacket(const Pose& pose, unsigned camera) {
    EncodeFreeD(packets().writer(), {.camera = static_cast<std::uint8_t>(camera),
                                     .pan = signs_[0] * Degrees(pose.angles.azimuth),
                                     .tilt = signs_[1] * Degrees(pose.angles.elevation),
                                     .roll = signs_[2] * Degrees(pose.angles.roll),
                                     .x = signs_[3] * pose.position[0],
                                     .y = signs_[4] * pose.position[1],
                                     .height = signs_[5] * pose.position[2],
                                     .zoom = static_cast<std::uint32_t>(zoom_),
                                     .focus = static_cast<std::uint32_t>(focus_)});
    packets().End();
  }

  const int camera_;  // of the first chosen sensor; -1: not given
  const int zoom_;
  const int focus_;
  std::array<double, 6> signs_{};  // as kNumbers
};

}  // namespace

std::unique_ptr<Output> MakeFreeD(const OutputContext& context, const Feeds& feeds) {
  return std::make_unique<FreeDOutput>(context, *feeds.front());
}

}  // namespace kinetrel::bridge
