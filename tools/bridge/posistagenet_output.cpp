#include <cmath>

#include "bridge/posistagenet.h"
#include "bridge/udp_output.h"

namespace kinetrel::bridge {
namespace {

constexpr std::int64_t kSecondNs = 1'000'000'000;

// The axis of the rotation times its angle in rad, of the two ways round the shorter one.
Vector RotationVector(const Quaternion& unit) {
  const double sign = unit.w < 0 ? -1 : 1;
  const double length = std::hypot(unit.x, unit.y, unit.z);
  if (length < 1e-9) return {0, 0, 0};
  const double factor = sign * 2 * std::atan2(length, sign * unit.w) / length;
  return {unit.x * factor, unit.y * factor, unit.z * factor};
}

// Tracker numbers: the sensor's own, or counted from option tracker=N in the order of the chosen
// sensors. Option system=TEXT is the name of the server.
class PosiStageNetOutput final : public UdpOutput {
 public:
  PosiStageNetOutput(const OutputContext& context, Feed& feed)
      : UdpOutput(context, feed, DescribePsn),
        first_(feed.options.Integer("tracker", -1, 1, 65'000)),
        system_(FirstBytes(feed.options.Text("system", "kinetrel"))),
        startNs_(kinetrel_now_ns()) {}

  void Publish(const Feed&, std::span<const Pose> poses) override {
    chosen_.clear();
    for (const Pose& pose : poses) {
      last_[pose.sensor] = PoseOf(pose);
      chosen_.push_back(last_[pose.sensor]);
      known_ |= 1U << pose.sensor;
    }
    SendPoses();
  }

  // A tracker that delivers nothing: the places that receivers have are told to be invalid, once.
  void OnState(const Feed&, const SourceState& state) override {
    if (state.Delivers() || known_ == 0) return;
    chosen_.clear();
    for (unsigned sensor = 0; sensor < kinetrel_stream_sensors; ++sensor) {
      if ((known_ >> sensor & 1U) == 0) continue;
      chosen_.push_back(last_[sensor]);
      chosen_.back().valid = false;
    }
    known_ = 0;
    SendPoses();
  }

  // The names, once a second.
  void Tick(const Feed& feed, std::int64_t nowNs) override {
    if (known_ == 0 || nowNs < nextNs_) return;
    nextNs_ = nowNs + kSecondNs;
    std::vector<PsnName> names;
    for (std::size_t place = 0; place < feed.selector.sensors().size(); ++place) {
      const unsigned sensor = feed.selector.sensors()[place];
      if ((known_ >> sensor & 1U) == 0) continue;
      names.push_back({last_[sensor].tracker, FirstBytes(feed.selector.NameOf(place))});
    }
    EncodePsnInfo(packets(), ServerUs(nowNs), infoFrame_++, system_, names);
    SendAside();
  }

 private:
  // Of a name: so many that a packet has room for it.
  static std::string_view FirstBytes(std::string_view name) { return name.substr(0, 200); }

  void SendPoses() {
    EncodePsnData(packets(), ServerUs(kinetrel_now_ns()), dataFrame_++, chosen_);
    SendFrame();
  }

  PsnPose PoseOf(const Pose& pose) const {
    const unsigned tracker =
        first_ < 0 ? pose.sensor + 1 : static_cast<unsigned>(first_) + pose.place;
    return {static_cast<std::uint16_t>(tracker), pose.position, RotationVector(pose.orientation),
            pose.Seen(), ServerUs(pose.sampleNs)};
  }

  // A sample from before the start has the time 0.
  std::uint64_t ServerUs(std::int64_t timeNs) const {
    return timeNs > startNs_ ? static_cast<std::uint64_t>(timeNs - startNs_) / 1000 : 0;
  }

  const int first_;  // of the first chosen sensor; -1: not given
  const std::string system_;
  const std::int64_t startNs_;
  std::array<PsnPose, kinetrel_stream_sensors> last_{};
  std::vector<PsnPose> chosen_;  // of the present frame
  std::uint32_t known_ = 0;      // bit i: sensor i was sent
  std::int64_t nextNs_ = 0;
  std::uint8_t dataFrame_ = 0;
  std::uint8_t infoFrame_ = 0;
};

}  // namespace

std::unique_ptr<Output> MakePosiStageNet(const OutputContext& context, const Feeds& feeds) {
  return std::make_unique<PosiStageNetOutput>(context, *feeds.front());
}

}  // namespace kinetrel::bridge
