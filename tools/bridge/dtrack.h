// The ASCII output of DTrack: lines that end with CR LF, numbers with one space between them.
//
//   fr N              frame counter
//   ts S              seconds since 00:00 UTC
//   6dcal N           bodies known: the highest number of a body plus 1
//   6d K [id qu][sx sy sz eta theta phi][b0 ... b8] ...   K tracked bodies; others are left out
//
// Lengths in mm, angles in degrees. b0 to b8 are the columns of the rotation matrix R, one after
// another; R = Rx(eta) Ry(theta) Rz(phi). Source: ART DTrack2 user manual, technical appendix.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "bridge/packet.h"

namespace kinetrel::bridge {

struct DTrackBody {
  unsigned id = 0;                   // from 0
  std::array<double, 3> position{};  // mm
  std::array<double, 9> rotation{};  // the matrix, row by row
};

// Appends the text, which has all bodies, as receivers expect; from some ten bodies on the network
// splits it.
//
// utcNs  since 1970.
// known  the highest number of a body plus 1.
void EncodeDTrack(PacketWriter& packet, std::uint32_t frame, std::int64_t utcNs, unsigned known,
                  std::span<const DTrackBody> bodies);

}  // namespace kinetrel::bridge
