// Open Sound Control 1.0: messages and bundles.
//
// Everything is big-endian and a multiple of 4 bytes long. A message is its address, a comma with
// one letter for each argument, and the arguments: i (32-bit number), f (32-bit float), s (text).
// Source: the published text of OSC 1.0.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "bridge/packet.h"

namespace kinetrel::bridge {

using OscArgument = std::variant<std::int32_t, float, std::string_view>;

// Appends a message.
// address  begins with '/'.
void EncodeOsc(PacketWriter& packet, std::string_view address,
               std::span<const OscArgument> arguments);

// The tag with which receivers act at once.
inline constexpr std::uint64_t kOscAtOnce = 1;

// An NTP time: seconds since 1900 in the high 32 bits, parts of a second in the low ones.
// utcNs  since 1970.
std::uint64_t OscTimeTag(std::int64_t utcNs);

// Joins messages to bundles that no network splits.
class OscBundler {
 public:
  // timeTag  of every bundle: OscTimeTag() or kOscAtOnce.
  OscBundler(PacketBatch& packets, std::uint64_t timeTag) : packets_(packets), timeTag_(timeTag) {}
  ~OscBundler();  // ends the last bundle
  OscBundler(const OscBundler&) = delete;
  OscBundler& operator=(const OscBundler&) = delete;

  // A message that has no room in the present bundle begins the next one.
  void Add(std::string_view address, std::span<const OscArgument> arguments);

 private:
  PacketBatch& packets_;
  const std::uint64_t timeTag_;
};

// The packet as text: for each message its address and arguments; a bundle begins with its time.
// Text that says so if the packet is damaged. For any bytes.
std::string DescribeOsc(std::span<const std::byte> packet);

}  // namespace kinetrel::bridge
