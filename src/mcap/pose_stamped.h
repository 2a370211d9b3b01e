// The message in which recordings carry poses: geometry_msgs/PoseStamped of ROS 2, little-endian
// CDR.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "mcap/mcap_format.h"

namespace kinetrel::mcap {

// Position in metres; orientation as a unit quaternion w, x, y, z, which the message carries as
// x, y, z, w. The axes are those of the frame.
struct PoseStamped {
  std::uint64_t utcNs = 0;  // since 1970; up to the year 2038
  std::string frame;
  std::array<double, 3> position{};
  std::array<double, 4> orientation{1, 0, 0, 0};
};

Schema PoseStampedSchema();

// The channel of one sensor's poses. `schema` is the id of PoseStampedSchema.
Channel PoseStampedChannel(std::uint16_t schema, std::string topic);

// Replaces the content of `into`, which allocates only until it is large enough.
void EncodePoseStamped(const PoseStamped& pose, std::vector<std::byte>& into);

// Empty: not such a message.
std::optional<PoseStamped> DecodePoseStamped(std::span<const std::byte> bytes);

}  // namespace kinetrel::mcap
