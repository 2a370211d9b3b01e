// The presets of OSC: plain, VRChat, VMC and ADM.
#include <algorithm>
#include <cmath>

#include "bridge/osc.h"
#include "bridge/udp_output.h"

namespace kinetrel::bridge {
namespace {

constexpr std::int64_t kSecondNs = 1'000'000'000;
constexpr std::uint64_t kMostOfInt32 = 0x7FFFFFFF;

float F(double value) { return static_cast<float>(value); }

std::vector<OscArgument> Floats(std::initializer_list<double> values) {
  std::vector<OscArgument> arguments;
  for (const double value : values) arguments.emplace_back(F(value));
  return arguments;
}

// A name without the characters that mean something else in an address.
std::string AsPartOfAddress(std::string name) {
  for (char& letter : name) {
    if (std::string_view(" #*,?[]{}").find(letter) != std::string_view::npos) letter = '_';
  }
  return name;
}

// Reads an option that names one of the chosen sensors, from 1. 0: it is not given.
int ReadChosenSensor(Feed& feed, std::string_view key) {
  const int number = feed.options.Integer(key, 0, 0, kinetrel_stream_sensors);
  if (number > 0 && !feed.selector.Chooses(static_cast<unsigned>(number - 1))) {
    feed.options.Complain("option " + std::string(key) + " needs one of the sensors of option " +
                          "sensors");
  }
  return number;
}

class OscOutput : public UdpOutput {
 protected:
  OscOutput(const OutputContext& context, Feed& feed) : UdpOutput(context, feed, DescribeOsc) {}

  // Each message alone, for receivers that know no bundles.
  void Add(std::string_view address, std::span<const OscArgument> arguments) {
    messages_.push_back(OscMessage(address, arguments));
  }
  void SendMessages() {
    SendFrame(messages_);
    messages_.clear();
  }

 private:
  std::vector<Packet> messages_;
};

// ---- Plain ----
//
//   /kinetrel/<slot>/<sensor>/pose  fffffff  x y z, qx qy qz qw
//   /kinetrel/<slot>/<sensor>/lost           once, when the sensor is not seen any more
//   /kinetrel/<slot>/buttons        i        bit i is button i; when they change
//   /kinetrel/<slot>/frame          i        of the poses in this bundle
//
// One bundle for all that comes together. Option time=yes: its time tag is the time of the sample.
class OscPlain final : public UdpOutput {
 public:
  OscPlain(const OutputContext& context, Feed& feed)
      : UdpOutput(context, feed, DescribeOsc),
        root_("/kinetrel/" + std::to_string(feed.slot) + "/"),
        timed_(feed.options.Flag("time", false)) {}

  void Publish(const Feed& feed, std::span<const Pose> poses) override {
    OscBundler bundler(timed_ ? OscTimeTag(poses[0].utcNs) : kOscAtOnce);
    for (const Pose& pose : poses) {
      AddPose(bundler, feed, pose);
      AddButtons(bundler, pose);
    }
    const auto frame = static_cast<std::int32_t>(poses[0].frame & kMostOfInt32);
    bundler.Add(OscMessage(root_ + "frame", {frame}));
    SendFrame(bundler.Take());
  }

  void OnState(const Feed& feed, const SourceState& state) override {
    if (state.Delivers() || seen_ == 0) return;
    OscBundler bundler(kOscAtOnce);
    for (unsigned sensor = 0; sensor < kinetrel_stream_sensors; ++sensor) {
      AddLost(bundler, feed, sensor);
    }
    SendFrame(bundler.Take());
  }

 private:
  void AddPose(OscBundler& bundler, const Feed& feed, const Pose& pose) {
    if (!pose.Seen()) {
      AddLost(bundler, feed, pose.sensor);
      return;
    }
    const auto& [x, y, z] = pose.position;
    const Quaternion& q = pose.orientation;
    bundler.Add(
        OscMessage(AddressOf(feed, pose.sensor) + "/pose", Floats({x, y, z, q.x, q.y, q.z, q.w})));
    seen_ |= 1U << pose.sensor;
  }

  void AddLost(OscBundler& bundler, const Feed& feed, unsigned sensor) {
    if ((seen_ >> sensor & 1U) == 0) return;
    bundler.Add(OscMessage(AddressOf(feed, sensor) + "/lost", {}));
    seen_ &= ~(1U << sensor);
  }

  void AddButtons(OscBundler& bundler, const Pose& pose) {
    if (pose.buttonsKnown == 0) return;
    const std::uint32_t buttons =
        (buttons_ & ~pose.buttonsKnown) | (pose.buttons & pose.buttonsKnown);
    if (buttonsTold_ && buttons == buttons_) return;
    buttons_ = buttons;
    buttonsTold_ = true;
    bundler.Add(OscMessage(root_ + "buttons", {static_cast<std::int32_t>(buttons)}));
  }

  std::string AddressOf(const Feed& feed, unsigned sensor) const {
    const auto sensors = feed.selector.sensors();
    const auto place = std::find(sensors.begin(), sensors.end(), sensor) - sensors.begin();
    return root_ + AsPartOfAddress(feed.selector.NameOf(static_cast<std::size_t>(place)));
  }

  const std::string root_;
  const bool timed_;
  std::uint32_t seen_ = 0;  // bit i: the receiver has a pose of sensor i
  std::uint32_t buttons_ = 0;
  bool buttonsTold_ = false;
};

// ---- VRChat ----
//
// The chosen sensors are trackers 1 to 8. Option head=N: sensor N is the head, by which VRChat
// brings its room and the tracker's into line.
class OscVrchat final : public OscOutput {
 public:
  OscVrchat(const OutputContext& context, Feed& feed)
      : OscOutput(context, feed), head_(ReadChosenSensor(feed, "head")) {}

  void Publish(const Feed& feed, std::span<const Pose> poses) override {
    for (const Pose& pose : poses) {
      const std::string number = NumberOf(pose);
      if (!pose.Seen() || number.empty()) continue;
      const std::string address = "/tracking/trackers/" + number;
      if (pose.hasPosition) {
        Add(address + "/position", Floats({pose.position[0], pose.position[1], pose.position[2]}));
      }
      if (pose.hasOrientation) {
        const Angles angles = AnglesIn(feed, pose);
        Add(address + "/rotation",
            Floats({-Degrees(angles.elevation), Degrees(angles.azimuth), -Degrees(angles.roll)}));
      }
    }
    SendMessages();
  }

 private:
  static constexpr unsigned kMostTrackers = 8;

  std::string NumberOf(const Pose& pose) const {
    if (static_cast<int>(pose.sensor) + 1 == head_) return "head";
    return pose.place < kMostTrackers ? std::to_string(pose.place + 1) : "";
  }

  const int head_;  // from 1; 0: none
};

// ---- VMC ----

class OscVmc final : public OscOutput {
 public:
  OscVmc(const OutputContext& context, Feed& feed)
      : OscOutput(context, feed), startNs_(kinetrel_now_ns()) {}

  void Publish(const Feed&, std::span<const Pose> poses) override {
    for (const Pose& pose : poses) {
      if (!pose.Seen()) continue;
      const auto& [x, y, z] = pose.position;
      const Quaternion& q = pose.orientation;
      std::vector<OscArgument> arguments = Floats({x, y, z, q.x, q.y, q.z, q.w});
      arguments.insert(arguments.begin(), pose.name);
      Add("/VMC/Ext/Tra/Pos", arguments);
      sending_ = true;
    }
    SendMessages();
  }

  void OnState(const Feed&, const SourceState& state) override {
    if (!state.Delivers()) sending_ = false;
  }

  // That we are there, once a second.
  void Tick(const Feed&, std::int64_t nowNs) override {
    if (!sending_ || nowNs < nextNs_) return;
    nextNs_ = nowNs + kSecondNs;
    (void)sender().Send(OscMessage("/VMC/Ext/OK", {1}));
    const double seconds = static_cast<double>(nowNs - startNs_) / kSecondNs;
    (void)sender().Send(OscMessage("/VMC/Ext/T", {F(seconds)}));
  }

 private:
  const std::int64_t startNs_;
  std::int64_t nextNs_ = 0;
  bool sending_ = false;
};

// ---- ADM ----
//
// The chosen sensors are objects, numbered from option object=1. extent=X,Y,Z is half the room, in
// m to the right, to the front and up; centre=X,Y,Z its middle. aed=yes sends azimuth, elevation
// and distance in place of x, y, z. listener=N: sensor N is the listener's head, and no object.
class OscAdm final : public OscOutput {
 public:
  OscAdm(const OutputContext& context, Feed& feed)
      : OscOutput(context, feed),
        first_(feed.options.Integer("object", 1, 1, 100'000)),
        listener_(ReadChosenSensor(feed, "listener")),
        polar_(feed.options.Flag("aed", false)),
        extent_(feed.options.Numbers("extent", 3)),
        centre_(feed.options.Numbers("centre", 3)) {
    if (extent_.empty() || *std::min_element(extent_.begin(), extent_.end()) <= 0) {
      feed.options.Complain("it needs half the size of the room in m, as in extent=2.5,2.5,1.25");
      extent_ = {1, 1, 1};
    }
    if (centre_.empty()) centre_ = {0, 0, 0};
    reach_ = *std::max_element(extent_.begin(), extent_.end());
  }

  void Publish(const Feed& feed, std::span<const Pose> poses) override {
    for (const Pose& pose : poses) {
      if (static_cast<int>(pose.sensor) + 1 == listener_) {
        AddListener(feed, pose);
      } else if (pose.hasPosition) {
        AddObject(pose);
      }
    }
    SendMessages();
  }

 private:
  std::vector<OscArgument> PlaceOf(const Pose& pose) const {
    std::vector<OscArgument> place;
    for (std::size_t i = 0; i < 3; ++i) {
      place.emplace_back(F(std::clamp((pose.position[i] - centre_[i]) / extent_[i], -1.0, 1.0)));
    }
    return place;
  }

  void AddObject(const Pose& pose) {
    const std::string address =
        "/adm/obj/" + std::to_string(first_ + static_cast<int>(pose.place)) + "/";
    if (!polar_) {
      Add(address + "xyz", PlaceOf(pose));
      return;
    }
    const double x = pose.position[0] - centre_[0];
    const double y = pose.position[1] - centre_[1];
    const double z = pose.position[2] - centre_[2];
    const double distance = std::hypot(x, y, z);
    const double elevation = distance > 0 ? std::asin(std::clamp(z / distance, -1.0, 1.0)) : 0;
    Add(address + "aed",
        Floats({Degrees(std::atan2(-x, y)), Degrees(elevation), std::min(distance / reach_, 1.0)}));
    Add(address + "dmax", Floats({reach_}));
  }

  void AddListener(const Feed& feed, const Pose& pose) {
    if (pose.hasPosition) Add("/adm/lis/xyz", PlaceOf(pose));
    if (!pose.hasOrientation) return;
    const Angles angles = AnglesIn(feed, pose);
    Add("/adm/lis/ypr",
        Floats({-Degrees(angles.azimuth), Degrees(angles.elevation), Degrees(angles.roll)}));
  }

  const int first_;
  const int listener_;  // from 1; 0: none
  const bool polar_;
  std::vector<double> extent_;  // m
  std::vector<double> centre_;  // m
  double reach_ = 1;            // m that the distance 1 stands for
};

template <typename Kind>
std::unique_ptr<Output> Make(const OutputContext& context, const Feeds& feeds) {
  return std::make_unique<Kind>(context, *feeds.front());
}

}  // namespace

std::unique_ptr<Output> MakeOscPlain(const OutputContext& context, const Feeds& feeds) {
  return Make<OscPlain>(context, feeds);
}
std::unique_ptr<Output> MakeOscVrchat(const OutputContext& context, const Feeds& feeds) {
  return Make<OscVrchat>(context, feeds);
}
std::unique_ptr<Output> MakeOscVmc(const OutputContext& context, const Feeds& feeds) {
  return Make<OscVmc>(context, feeds);
}
std::unique_ptr<Output> MakeOscAdm(const OutputContext& context, const Feeds& feeds) {
  return Make<OscAdm>(context, feeds);
}

}  // namespace kinetrel::bridge
