// What makes a bridge of tools/bridge this program: its name, and the one protocol that it speaks.
#include <array>

#include "bridge_ros2/ros2_output.h"

namespace kinetrel::bridge {
namespace {

constexpr std::array kProtocols = {Protocol{
    .scheme = "ros2",
    .port = 0,
    .host = "",
    .axes = "ros",
    .angles = "quaternion x y z w",
    .name = "sensor",
    .server = true,
    .help = "PoseStamped for each sensor, and /tf; options prefix, frame, poses, tf, domain",
    .make = &MakeRos2Output,
}};

constexpr Program kProgram = {
    .name = "kinetrel-bridge-ros2",
    .example = "--slot 1 'ros2?sensors=1,3&name=head,hand&prefix=lab' --slot 2 ros2",
    .output = "ros2",
    .listens = false,
};

}  // namespace

std::span<const Protocol> Protocols() { return kProtocols; }

const Program& ThisProgram() { return kProgram; }

}  // namespace kinetrel::bridge
