// OpenTrackIO 1.0.1: a header of 16 bytes, and a sample as JSON or CBOR.
//
//   offset  size  field
//   0       4     "OTrk"
//   4       1     0
//   5       1     encoding: 1 JSON, 2 CBOR
//   6       2     sequence number, one more with each packet
//   8       4     offset of the segment; 0: the sample is whole
//   12      2     bit 15: the last segment; bits 0-14: bytes of payload
//   14      2     Fletcher-16 modulo 256 over bytes 0 to 13 and the payload
//
// Big-endian. Source: SMPTE RIS OSVP, CamDKit: documentation, schema and reference parser.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "bridge/packet.h"

namespace kinetrel::bridge {

enum class OpenTrackIoEncoding : std::uint8_t { Json = 1, Cbor = 2 };

struct OpenTrackIoSample {
  std::string_view sampleId;  // "urn:uuid:" and a UUID of its own
  std::string_view sourceId;  // the same for a whole run
  unsigned sourceNumber = 1;  // 1 to 200
  bool seen = true;           // false: without a pose, status "lost"
  double rate = 0;            // Hz; 0: not known, left out
  std::int64_t utcNs = 0;     // since 1970
  std::uint32_t sequence = 0;
  std::array<double, 3> position{};  // m: x right, y forward, z up
  double pan = 0;                    // degree, positive to the left
  double tilt = 0;                   // degree, positive up
  double roll = 0;                   // degree, positive clockwise, seen from behind
  std::string_view make;             // of the tracker; empty: make and model are left out
  std::string_view model;
};

// Appends header and payload. The header's sequence number is the low half of the sample's.
// leastSize  of a packet in JSON, which is filled with spaces before its last brace. Packets of one
//            length are cheaper to send.
void EncodeOpenTrackIo(PacketWriter& packet, const OpenTrackIoSample& sample,
                       OpenTrackIoEncoding encoding, std::size_t leastSize = 0);

// Writes the header of a packet that begins at `start`: 16 bytes of any kind, and then its payload,
// at most 32767 bytes.
void SetOpenTrackIoHeader(PacketWriter& packet, std::size_t start, std::uint16_t sequence,
                          OpenTrackIoEncoding encoding);

// The packet as text: sequence number and the sample as JSON. Text that says so if the packet is
// damaged. For any bytes.
std::string DescribeOpenTrackIo(std::span<const std::byte> packet);

}  // namespace kinetrel::bridge
