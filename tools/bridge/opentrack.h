// The "UDP over network" input of opentrack: six float64, little-endian, 48 bytes, without a
// header.
//
//   offset  field  unit, meaning
//   0       TX     cm, positive to the left
//   8       TY     cm, positive up
//   16      TZ     cm, positive back, away from the screen
//   24      yaw    degree, positive right
//   32      pitch  degree, positive up
//   40      roll   degree, positive left
//
// Source: opentrack's published source. It ignores a packet with a NaN or an infinity.
#pragma once

#include <array>
#include <span>
#include <string>

#include "bridge/packet.h"

namespace kinetrel::bridge {

// Appends the packet.
// values  in the order of the table.
void EncodeOpentrack(PacketWriter& packet, const std::array<double, 6>& values);

// The packet as text. Text that says so if the packet is damaged. For any bytes.
std::string DescribeOpentrack(std::span<const std::byte> packet);

}  // namespace kinetrel::bridge
