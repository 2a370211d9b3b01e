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

template <typename... Values>
std::array<OscArgument, sizeof...(Values)> Floats(Values... values) {
  return {F(values)...};
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
    EncodeOsc(packets().writer(), address, arguments);
    packets().End();
  }
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
        buttonsAddress_(RootOf(feed) + "buttons"),
        frameAddress_(RootOf(feed) + "frame"),
        timed_(feed.options.Flag("time", false)) {
    for (std::size_t place = 0; place < feed.selector.sensors().size(); ++place) {
      const std::string address = RootOf(feed) + AsPartOfAddress(feed.selector.NameOf(place));
      sensors_[feed.selector.sensors()[place]] = {address + "/pose", address + "/lost"};
    }
  }

  void Publish(const Feed&, std::span<const Pose> poses) override {
    {
      OscBundler bundler(packets(), timed_ ? OscTimeTag(poses[0].utcNs) : kOscAtOnce);
      for (const Pose& pose : poses) {
        AddPose(bundler, pose);
        AddButtons(bundler, pose);
      }
      AddNumber(bundler, frameAddress_, poses[0].frame & kMostOfInt32);
    }
    SendFrame();
  }

  void OnState(const Feed&, const SourceState& state) override {
    if (state.Delivers() || seen_ == 0) return;
    {
      OscBundler bundler(packets(), kOscAtOnce);
      for (unsigned sensor = 0; sensor < kinetrel_stream_sensors; ++sensor) {
        AddLost(bundler, sensor);
      }
    }
    SendFrame();
  }

 private:
  struct Addresses {
    std::string pose;
    std::string lost;
  };

  static std::string RootOf(const Feed& feed) {
    return "/kinetrel/" + std::to_string(feed.slot) + "/";
  }

  static void AddNumber(OscBundler& bundler, const std::string& address, std::uint64_t number) {
    const OscArgument argument = static_cast<std::int32_t>(number);
    bundler.Add(address, std::span(&argument, 1));
  }

  void AddPose(OscBundler& bundler, const Pose& pose) {
    if (!pose.Seen()) {
      AddLost(bundler, pose.sensor);
      return;
    }
    const auto& [x, y, z] = pose.position;
    const Quaternion& q = pose.orientation;
    bundler.Add(sensors_[pose.sensor].pose, Floats(x, y, z, q.x, q.y, q.z, q.w));
    seen_ |= 1U << pose.sensor;
  }

  void AddLost(OscBundler& bundler, unsigned sensor) {
    if ((seen_ >> sensor & 1U) == 0) return;
    bundler.Add(sensors_[sensor].lost, {});
    seen_ &= ~(1U << sensor);
  }

  void AddButtons(OscBundler& bundler, const Pose& pose) {
    if (pose.buttonsKnown == 0) return;
    const std::uint32_t buttons =
        (buttons_ & ~pose.buttonsKnown) | (pose.buttons & pose.buttonsKnown);
    if (buttonsTold_ && buttons == buttons_) return;
    buttons_ = buttons;
    buttonsTold_ = true;
    AddNumber(bundler, buttonsAddress_, buttons);
  }

  const std::string buttonsAddress_;
  const std::string frameAddress_;
  std::array<Addresses, kinetrel_stream_sensors> sensors_;  // of the chosen ones
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
      : OscOutput(context, feed), head_(ReadChosenSensor(feed, "head")) {
    for (std::size_t i = 0; i < trackers_.size(); ++i) {
      trackers_[i] = AddressesOf(std::to_string(i + 1));
    }
  }

  void Publish(const Feed&, std::span<const Pose> poses) override {
    for (const Pose& pose : poses) {
      const bool isHead = static_cast<int>(pose.sensor) + 1 == head_;
      if (!pose.Seen() || (!isHead && pose.place >= trackers_.size())) continue;
      const Addresses& to = isHead ? headAddresses_ : trackers_[pose.place];
      if (pose.hasPosition) {
        Add(to.position, Floats(pose.position[0], pose.position[1], pose.position[2]));
      }
      if (pose.hasOrientation) {
        const auto& [azimuth, elevation, roll] = pose.angles;
        Add(to.rotation, Floats(-Degrees(elevation), Degrees(azimuth), -Degrees(roll)));
      }
    }
    SendFrame();
  }

 private:
  struct Addresses {
    std::string position;
    std::string rotation;
  };

  static Addresses AddressesOf(const std::string& tracker) {
    const std::string address = "/tracking/trackers/" + tracker;
    return {address + "/position", address + "/rotation"};
  }

  std::array<Addresses, 8> trackers_;  // by Pose::place
  const Addresses headAddresses_ = AddressesOf("head");
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
      const std::array<OscArgument, 8> arguments = {pose.name, F(x),   F(y),   F(z),
                                                    F(q.x),    F(q.y), F(q.z), F(q.w)};
      Add("/VMC/Ext/Tra/Pos", arguments);
      sending_ = true;
    }
    SendFrame();
  }

  void OnState(const Feed&, const SourceState& state) override {
    if (!state.Delivers()) sending_ = false;
  }

  // That we are there, once a second.
  void Tick(const Feed&, std::int64_t nowNs) override {
    if (!sending_ || nowNs < nextNs_) return;
    nextNs_ = nowNs + kSecondNs;
    const OscArgument isThere = 1;
    Add("/VMC/Ext/OK", std::span(&isThere, 1));
    Add("/VMC/Ext/T", Floats(static_cast<double>(nowNs - startNs_) / kSecondNs));
    SendAside();
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
    for (std::size_t place = 0; place < feed.selector.sensors().size(); ++place) {
      const std::string object =
          "/adm/obj/" + std::to_string(first_ + static_cast<int>(place)) + "/";
      objects_.push_back({object + "xyz", object + "aed", object + "dmax"});
    }
  }

  void Publish(const Feed&, std::span<const Pose> poses) override {
    for (const Pose& pose : poses) {
      if (static_cast<int>(pose.sensor) + 1 == listener_) {
        AddListener(pose);
      } else if (pose.hasPosition) {
        AddObject(pose);
      }
    }
    SendFrame();
  }

 private:
  struct Addresses {
    std::string xyz;
    std::string aed;
    std::string dmax;
  };

  std::array<OscArgument, 3> PlaceOf(const Pose& pose) const {
    const auto part = [&](std::size_t i) {
      return std::clamp((pose.position[i] - centre_[i]) / extent_[i], -1.0, 1.0);
    };
    return Floats(part(0), part(1), part(2));
  }

  void AddObject(const Pose& pose) {
    const Addresses& to = objects_[pose.place];
    if (!polar_) {
      Add(to.xyz, PlaceOf(pose));
      return;
    }
    const double x = pose.position[0] - centre_[0];
    const double y = pose.position[1] - centre_[1];
    const double z = pose.position[2] - centre_[2];
    const double distance = std::hypot(x, y, z);
    const double elevation = distance > 0 ? std::asin(std::clamp(z / distance, -1.0, 1.0)) : 0;
    Add(to.aed,
        Floats(Degrees(std::atan2(-x, y)), Degrees(elevation), std::min(distance / reach_, 1.0)));
    Add(to.dmax, Floats(reach_));
  }

  void AddListener(const Pose& pose) {
    if (pose.hasPosition) Add("/adm/lis/xyz", PlaceOf(pose));
    if (!pose.hasOrientation) return;
    const auto& [azimuth, elevation, roll] = pose.angles;
    Add("/adm/lis/ypr", Floats(-Degrees(azimuth), Degrees(elevation), Degrees(roll)));
  }

  const int first_;
  const int listener_;  // from 1; 0: none
  const bool polar_;
  std::vector<Addresses> objects_;  // by Pose::place
  std::vector<double> extent_;      // m
  std::vector<double> centre_;      // m
  double reach_ = 1;                // m that the distance 1 stands for
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
