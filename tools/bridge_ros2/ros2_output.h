// Output "ros2": poses as messages of ROS 2, for nodes anywhere in the ROS domain. The messages are
//
//     /kinetrel/sensor1/pose   geometry_msgs/msg/PoseStamped, one topic for each sensor
//     /tf                      tf2_msgs/msg/TFMessage, all sensors that arrived together
//
// Options of its own:
//
//     prefix=lab/left    of the topics; default: kinetrel, and kinetrel/slot<N> for slots above 1
//     frame=lab          of the tracker's axes; default: the prefix, with _ for /. A sensor's frame
//                        is <frame>_<name>
//     poses=no           no PoseStamped
//     tf=no              nothing on /tf
//     domain=7           ROS domain, 0 to 232; default: environment variable ROS_DOMAIN_ID, else 0
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "bridge/output.h"

namespace kinetrel::bridge {

// One output for all trackers: they share one place in the ROS domain.
std::unique_ptr<Output> MakeRos2Output(const OutputContext& context,
                                       const std::vector<Feed*>& feeds);

// Whether ROS takes `text` as a part of a name: letters, digits and underscores, no digit first, no
// two underscores in a row.
bool IsRosToken(std::string_view text);

// What the environment says of the ROS domain and of how far ROS is to reach.
struct RosEnvironment {
  std::uint32_t domain = 0;
  bool thisMachineOnly = false;
  std::string complaint;  // empty: all of it makes sense
};
RosEnvironment ReadRosEnvironment();

}  // namespace kinetrel::bridge
