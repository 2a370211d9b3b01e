// Free-D, message D1: pose and lens of a camera in 29 bytes.
//
//   offset  size  field      unit, meaning
//   0       1     0xD1
//   1       1     camera     its number; 255: any
//   2       3     pan        degree x 32768; positive to the right
//   5       3     tilt       degree x 32768; positive up
//   8       3     roll       degree x 32768; positive clockwise, seen from behind
//   11      3     x          mm x 64, horizontal, right
//   14      3     y          mm x 64, horizontal, along pan 0
//   17      3     height     mm x 64
//   20      3     zoom       without a unit
//   23      3     focus      without a unit
//   26      2     of the maker; 0
//   28      1     checksum   all bytes add up to 0x40
//
// Big-endian, two's complement. Source: Vinten Radamec free-d installation manual, appendices A and
// B. The document knows serial lines only; that a datagram holds one message is the makers' habit.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "bridge/packet.h"

namespace kinetrel::bridge {

struct FreeDPose {
  std::uint8_t camera = 1;
  double pan = 0;  // degree
  double tilt = 0;
  double roll = 0;
  double x = 0;  // mm
  double y = 0;
  double height = 0;
  std::uint32_t zoom = 0;   // 24 bits
  std::uint32_t focus = 0;  // 24 bits
};

// Appends the message. Rounds, and limits angles to +-180 degrees and lengths to +-131072 mm.
void EncodeFreeD(PacketWriter& packet, const FreeDPose& pose);

// The packet as text. Text that says so if the packet is damaged. For any bytes.
std::string DescribeFreeD(std::span<const std::byte> packet);

}  // namespace kinetrel::bridge
