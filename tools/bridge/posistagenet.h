// PosiStageNet 2.03: where the things on a stage are, for lights, sound and cameras.
//
// Little-endian. A packet is one chunk; a chunk is 32 bits (0-15 its id, 16-30 the length of what
// follows, 31 set if it holds chunks) and its content. A DATA packet holds poses, an INFO packet
// names. Source: the PosiStageNet protocol description v2.03. It does not say in which sense an
// orientation turns in its left-handed frame; we turn it as the frame itself is turned.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "bridge/packet.h"

namespace kinetrel::bridge {

struct PsnPose {
  std::uint16_t tracker = 1;            // its number, from 1
  std::array<double, 3> position{};     // m: x right, y up, z away from the audience
  std::array<double, 3> orientation{};  // rad: the axis of the rotation times its angle
  bool valid = true;
  std::uint64_t sampleUs = 0;  // on the clock of the header
};

struct PsnName {
  std::uint16_t tracker = 1;
  std::string_view name;
};

// Append the packets of one frame: several if they do not fit in one, each whole by itself.
//
// timeUs  since the server started.
// frame   one more with each frame, modulo 256; DATA and INFO count apart.
void EncodePsnData(PacketBatch& packets, std::uint64_t timeUs, std::uint8_t frame,
                   std::span<const PsnPose> poses);
void EncodePsnInfo(PacketBatch& packets, std::uint64_t timeUs, std::uint8_t frame,
                   std::string_view system, std::span<const PsnName> names);

// The packet as text. Text that says so if the packet is damaged. For any bytes.
std::string DescribePsn(std::span<const std::byte> packet);

}  // namespace kinetrel::bridge
