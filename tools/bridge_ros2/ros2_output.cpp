#include "bridge_ros2/ros2_output.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <utility>

#include "bridge_ros2/dds_participant.h"
#include "bridge_ros2/ros2_messages.h"

namespace kinetrel::bridge {
namespace {

using PoseMessage = geometry_msgs_msg_dds__PoseStamped_;
using TransformMessage = geometry_msgs_msg_dds__TransformStamped_;
using TransformsMessage = tf2_msgs_msg_dds__TFMessage_;

// Of the messages' descriptions, as ROS 2 has calculated them since its release Iron.
constexpr const char* kPoseHash =
    "RIHS01_10f3786d7d40fd2b54367835614bff85d4ad3b5dab62bf8bca0cc232d73b4cd8";
constexpr const char* kTransformsHash =
    "RIHS01_e369d0f05a23ae52508854b66f6aa0437f3449d652e8cbf22d5abe85d020f087";

// As many as ROS 2's own publishers keep for a reader that missed some.
constexpr int kPosesKept = 10;
constexpr int kTransformsKept = 100;

constexpr std::size_t kLongestName = 200;  // of a topic; ROS takes 255 less its own prefix
constexpr std::int64_t kNsPerSecond = 1'000'000'000;

// The message only points at the text; the library copies it and changes nothing.
std_msgs_msg_dds__Header_ HeaderOf(const Pose& pose, const std::string& frame) {
  std_msgs_msg_dds__Header_ header{};
  header.stamp_.sec_ = static_cast<std::int32_t>(pose.utcNs / kNsPerSecond);
  header.stamp_.nanosec_ = static_cast<std::uint32_t>(pose.utcNs % kNsPerSecond);
  header.frame_id_ = const_cast<char*>(frame.c_str());
  return header;
}

template <typename Point>
Point PointOf(const Pose& pose) {
  return {pose.position[0], pose.position[1], pose.position[2]};
}

geometry_msgs_msg_dds__Quaternion_ QuaternionOf(const Pose& pose) {
  const Quaternion& turn = pose.orientation;
  return {turn.x, turn.y, turn.z, turn.w};
}

bool IsRosName(std::string_view text) {
  while (true) {
    const std::size_t slash = text.find('/');
    if (!IsRosToken(text.substr(0, slash))) return false;
    if (slash == std::string_view::npos) return true;
    text.remove_prefix(slash + 1);
  }
}

bool IsFrameName(std::string_view text) {
  return !text.empty() && text.front() != '/' && std::ranges::all_of(text, [](unsigned char c) {
    return std::isalnum(c) != 0 || c == '_' || c == '-' || c == '.' || c == '/';
  });
}

// ---- A tracker ----------------------------------------------------------------------------------

// What one feed publishes. Used by the thread of its slot.
struct Tracker {
  struct Sensor {
    std::string topic;  // as ROS names it
    std::string frame;
    std::unique_ptr<DdsWriter> writer;  // from its first pose on
  };

  const Feed* feed = nullptr;
  std::string frame;
  bool poses = true;
  bool transforms = true;
  std::vector<Sensor> sensors;  // by Pose::place
  std::vector<TransformMessage> message;
};

Tracker::Sensor SensorOf(const std::string& prefix, const std::string& frame,
                         const std::string& name) {
  return {"/" + prefix + "/" + name + "/pose", frame + "_" + name, nullptr};
}

// Reads the feed's options; what is wrong with them stays there.
Tracker ReadTracker(Feed& feed) {
  const OutputAddress& address = feed.options.address();
  if (!address.host.empty() || address.port != 0 || !address.path.empty()) {
    feed.options.Complain("ros2 takes no address; ROS finds its nodes by their domain");
  }
  std::string prefix = "kinetrel";
  if (feed.slot != 1) prefix += "/slot" + std::to_string(feed.slot);
  prefix = feed.options.Text("prefix", prefix);
  std::string frame = prefix;
  std::ranges::replace(frame, '/', '_');
  Tracker tracker;
  tracker.feed = &feed;
  tracker.frame = feed.options.Text("frame", frame);
  tracker.poses = feed.options.Flag("poses", true);
  tracker.transforms = feed.options.Flag("tf", true);
  if (!tracker.poses && !tracker.transforms)
    feed.options.Complain("with poses=no and tf=no nothing is sent");
  if (!IsRosName(prefix)) {
    feed.options.Complain("prefix=" + prefix +
                          ": ROS names hold letters, digits and _, and / between them");
  }
  if (!IsFrameName(tracker.frame)) {
    feed.options.Complain("frame=" + tracker.frame +
                          ": frames hold letters, digits, _ - . and /, and no / first");
  }
  for (std::size_t place = 0; place < feed.selector.sensors().size(); ++place) {
    const std::string& name = feed.selector.NameOf(place);
    if (!IsRosToken(name)) {
      feed.options.Complain("name=" + name +
                            ": a ROS name holds letters, digits and _, no digit first");
    }
    tracker.sensors.push_back(SensorOf(prefix, tracker.frame, name));
    if (std::max(tracker.sensors.back().topic.size(), tracker.sensors.back().frame.size()) >
        kLongestName) {
      feed.options.Complain("names of more than " + std::to_string(kLongestName) + " bytes");
    }
  }
  return tracker;
}

// Complains of a sensor that two feeds publish under one name.
void RefuseSharedNames(const std::vector<Tracker>& trackers, const std::vector<Feed*>& feeds) {
  std::map<std::string, std::size_t> owners;
  for (std::size_t i = 0; i < trackers.size(); ++i) {
    for (const Tracker::Sensor& sensor : trackers[i].sensors) {
      for (const std::string& name : {sensor.topic, sensor.frame}) {
        if (owners.try_emplace(name, i).first->second == i) continue;
        feeds[i]->options.Complain("another output has " + name +
                                   " already; set prefix= and frame=, or name=");
      }
    }
  }
}

// ---- The output ---------------------------------------------------------------------------------

class Ros2Output final : public Output {
 public:
  Ros2Output(const OutputContext& context, const std::vector<Feed*>& feeds)
      : context_(context), environment_(ReadRosEnvironment()) {
    int domain = -1;
    for (Feed* const feed : feeds) {
      trackers_.push_back(ReadTracker(*feed));
      const int wanted =
          feed->options.Integer("domain", domain, -1, static_cast<int>(kLargestDomain));
      if (domain >= 0 && wanted != domain)
        feed->options.Complain("domain= must be the same for all trackers");
      domain = wanted;
    }
    RefuseSharedNames(trackers_, feeds);
    if (domain >= 0) environment_.domain = static_cast<std::uint32_t>(domain);
  }

  std::string Open() override {
    if (!environment_.complaint.empty()) return environment_.complaint;
    if (context_.dryRun) return {};
    const char* const user = std::getenv("CYCLONEDDS_URI");
    std::string complaint;
    participant_ = DdsParticipant::Join({.domain = environment_.domain,
                                         .thisMachineOnly = environment_.thisMachineOnly,
                                         .userConfiguration = user == nullptr ? "" : user,
                                         .say = context_.say},
                                        complaint);
    if (!participant_) return complaint;
    if (std::ranges::any_of(trackers_, &Tracker::transforms)) {
      transforms_ = participant_->CreateWriter(tf2_msgs_msg_dds__TFMessage__desc, "rt/tf",
                                               kTransformsHash, kTransformsKept);
    }
    counts().clients = 0;
    return {};
  }

  void Publish(const Feed& feed, std::span<const Pose> poses) override {
    Tracker& tracker = *std::ranges::find(trackers_, &feed, &Tracker::feed);
    bool sent = false;
    if (tracker.poses) {
      for (const Pose& pose : poses) sent |= pose.Seen() && PublishPose(tracker, pose);
    }
    if (tracker.transforms) sent |= PublishTransforms(tracker, poses);
    if (sent) ++counts().frames;
  }

  void Tick(const Feed&, std::int64_t) override {
    if (participant_) counts().clients = participant_->Subscribers();
  }

  void Close() override {
    // What --once sent is to arrive before the readers are told that the writer has gone.
    const dds_time_t until = dds_time() + DDS_MSECS(500);  // for all of them together
    if (transforms_) transforms_->AwaitAcknowledgements(until);
    for (Tracker& tracker : trackers_) {
      for (Tracker::Sensor& sensor : tracker.sensors) {
        if (sensor.writer) sensor.writer->AwaitAcknowledgements(until);
      }
    }
  }

  std::string Place() const override { return "domain " + std::to_string(environment_.domain); }

 private:
  bool PublishPose(Tracker& tracker, const Pose& pose) {
    Tracker::Sensor& sensor = tracker.sensors[pose.place];
    if (context_.dryRun) return Print(sensor.topic, pose, tracker.frame);
    if (!sensor.writer) {
      sensor.writer = participant_->CreateWriter(geometry_msgs_msg_dds__PoseStamped__desc,
                                                 "rt" + sensor.topic, kPoseHash, kPosesKept);
    }
    PoseMessage message{HeaderOf(pose, tracker.frame),
                        {PointOf<geometry_msgs_msg_dds__Point_>(pose), QuaternionOf(pose)}};
    return Write(*sensor.writer, &message);
  }

  bool PublishTransforms(Tracker& tracker, std::span<const Pose> poses) {
    tracker.message.clear();
    for (const Pose& pose : poses) {
      if (!pose.Seen()) continue;
      std::string& child = tracker.sensors[pose.place].frame;
      if (context_.dryRun) Print("/tf", pose, tracker.frame + " " + child);
      tracker.message.push_back(
          {HeaderOf(pose, tracker.frame),
           child.data(),
           {PointOf<geometry_msgs_msg_dds__Vector3_>(pose), QuaternionOf(pose)}});
    }
    if (tracker.message.empty()) return false;
    if (context_.dryRun) return true;
    TransformsMessage message{};
    message.transforms_._buffer = tracker.message.data();
    message.transforms_._length = message.transforms_._maximum =
        static_cast<std::uint32_t>(tracker.message.size());
    return Write(*transforms_, &message);
  }

  // True if it is on its way to at least one subscriber.
  bool Write(DdsWriter& writer, const void* message) {
    switch (writer.Write(message)) {
      case DdsWriter::Outcome::Sent:
        if (counts().Clear()) context_.say("ROS domain: messages go out again");
        return true;
      case DdsWriter::Outcome::Unheard:
        return false;
      case DdsWriter::Outcome::Dropped:
        break;
    }
    ++counts().dropped;
    const std::string trouble = "a message could not be sent: " + writer.Trouble();
    if (counts().Report(trouble)) context_.say(trouble);
    return false;
  }

  bool Print(const std::string& topic, const Pose& pose, const std::string& frames) const {
    const Quaternion& turn = pose.orientation;
    std::array<char, 200> values;
    std::snprintf(values.data(), values.size(),
                  " %lld.%09lld position %.6f %.6f %.6f orientation %.6f %.6f %.6f %.6f",
                  static_cast<long long>(pose.utcNs / kNsPerSecond),
                  static_cast<long long>(pose.utcNs % kNsPerSecond), pose.position[0],
                  pose.position[1], pose.position[2], turn.x, turn.y, turn.z, turn.w);
    context_.print(topic + " " + frames + values.data());
    return true;
  }

  const OutputContext& context_;
  RosEnvironment environment_;
  std::unique_ptr<DdsParticipant> participant_;  // null in a dry run; outlives its writers
  std::vector<Tracker> trackers_;
  std::unique_ptr<DdsWriter> transforms_;
};

}  // namespace

bool IsRosToken(std::string_view text) {
  if (text.empty() || std::isdigit(static_cast<unsigned char>(text.front())) != 0) return false;
  return text.find("__") == std::string_view::npos &&
         std::ranges::all_of(text,
                             [](unsigned char c) { return std::isalnum(c) != 0 || c == '_'; });
}

RosEnvironment ReadRosEnvironment() {
  RosEnvironment environment;
  const auto variable = [](const char* name) {
    const char* const value = std::getenv(name);
    return std::string_view(value == nullptr ? "" : value);
  };
  const std::string_view domain = variable("ROS_DOMAIN_ID");
  if (!domain.empty()) {
    const auto [end, error] =
        std::from_chars(domain.data(), domain.data() + domain.size(), environment.domain);
    if (error != std::errc() || end != domain.data() + domain.size() ||
        environment.domain > kLargestDomain) {
      environment.complaint = "ROS_DOMAIN_ID must be a number from 0 to " +
                              std::to_string(kLargestDomain) + ", not " + std::string(domain);
    }
  }
  const std::string_view range = variable("ROS_AUTOMATIC_DISCOVERY_RANGE");
  environment.thisMachineOnly = range == "LOCALHOST" || variable("ROS_LOCALHOST_ONLY") == "1";
  if (range == "OFF") {
    environment.complaint =
        "ROS_AUTOMATIC_DISCOVERY_RANGE is OFF, so that no node could find this one";
  }
  return environment;
}

std::unique_ptr<Output> MakeRos2Output(const OutputContext& context,
                                       const std::vector<Feed*>& feeds) {
  return std::make_unique<Ros2Output>(context, feeds);
}

}  // namespace kinetrel::bridge
