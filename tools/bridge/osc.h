// Open Sound Control 1.0: messages and bundles.
//
// Everything is big-endian and a multiple of 4 bytes long. A message is its address, a comma with
// one letter for each argument, and the arguments: i (32-bit number), f (32-bit float), s (text).
// Source: the OSC 1.0 specification.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "bridge/packet.h"

namespace kinetrel::bridge {

using OscArgument = std::variant<std::int32_t, float, std::string_view>;

// address  begins with '/'.
Packet OscMessage(std::string_view address, std::span<const OscArgument> arguments);
Packet OscMessage(std::string_view address, std::initializer_list<OscArgument> arguments);

// The tag with which receivers act at once.
inline constexpr std::uint64_t kOscAtOnce = 1;

// An NTP time: seconds since 1900 in the high 32 bits, parts of a second in the low ones.
// utcNs  since 1970.
std::uint64_t OscTimeTag(std::int64_t utcNs);

// Joins messages to packets that no network splits. A packet of several messages is a bundle.
class OscBundler {
 public:
  // timeTag  of every bundle: OscTimeTag() or kOscAtOnce.
  explicit OscBundler(std::uint64_t timeTag) : timeTag_(timeTag) {}

  // A message that has no room in the present packet begins the next one.
  void Add(const Packet& message);
  std::vector<Packet> Take();

 private:
  void Begin();

  std::uint64_t timeTag_;
  std::vector<Packet> done_;
  PacketWriter present_;
};

// The packet as text: for each message its address and arguments; a bundle begins with its time.
// Text that says so if the packet is damaged. For any bytes.
std::string DescribeOsc(std::span<const std::byte> packet);

}  // namespace kinetrel::bridge
