// What a tracker of the FASTRAK family sends, and what it means: pure functions over bytes in
// memory.
//
// A station record, binary values little-endian:
//   offset  size  field         meaning
//   0       1     '0'
//   1       1     station       '1' + station index
//   2       1     error         ' ' none, else the code of a built-in test (BIT) error
//   3       n     values        position, Euler angles, quaternion, each only when selected
//   3 + n   2     tail          CR LF, only when asked for
//
// A value is, by format:
//   32 bit  IEEE single; positions in the unit asked for (centimetres for metres), angles in
//           degrees
//   16 bit  signed integer, times the channel's scale
//   14 bit  two bytes of 7 bits, low first, times the channel's scale; bit 7 is set in the first
//           byte of the values and in no other
//
// The status record (the answer to 'S') is text: '2', a digit, 'S', then fields at fixed places;
// see ParseFastrakStatus.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "devices/device_names.h"
#include "devices/pose.h"
#include "devices/tracker_device.h"

namespace kinetrel {

// ---- Models --------------------------------------------------------------------------------

enum class FastrakFormat { Bits14, Bits16, Bits32 };

// What the protocol setting asks the unit for.
enum class FastrakProtocol : int { Bits14 = 1, Bits16 = 2, Bits32 = 3 };

// Bits of the status word; its low half is the model code.
inline constexpr std::uint32_t kFastrakParsed = 0x200;        // a status record was understood
inline constexpr std::uint32_t kFastrakFromStart = 1U << 16;  // and nothing came before it
inline constexpr std::uint32_t kFastrakClass = 1U << 0;  // the FASTRAK command set; else IsoTRAK's
inline constexpr std::uint32_t kFastrakInterSense = 1U << 3;
inline constexpr std::uint32_t kFastrakProper = 0x201;  // the one model with 14-bit records

struct FastrakProduct {
  std::uint32_t code;
  DeviceName name;
  int stations;
  int frameRate;  // Hz, over all stations together
  FastrakProtocol protocol;
  FastrakFormat format;  // of the values, unless the 14-bit protocol is set
};

// The model of that code; an unknown code is taken for the simplest of the family, an IsoTRAK.
const FastrakProduct& FindFastrakProduct(std::uint32_t code);

// ---- Station records -----------------------------------------------------------------------

inline constexpr std::size_t kFastrakHeadSize = 3;
inline constexpr std::size_t kFastrakTailSize = 2;

// Which values a record carries, and how.
struct FastrakLayout {
  FastrakFormat format = FastrakFormat::Bits32;
  unsigned components = kPositionComponent | kEulerComponent;
  bool crLf = false;

  int ValueCount() const {
    const unsigned groups = components;
    return static_cast<int>(3 * (groups & 1) + 3 * (groups >> 1 & 1) + 4 * (groups >> 2 & 1));
  }
  std::size_t BodySize() const {  // of the values
    const auto count = static_cast<std::size_t>(ValueCount());
    return format == FastrakFormat::Bits32 ? 4 * count : 2 * count;
  }
  std::size_t Size() const {  // of the record
    return kFastrakHeadSize + BodySize() + (crLf ? kFastrakTailSize : 0);
  }
};

// In channel order: x, y, z; azimuth, elevation, roll; w, x, y, z.
using FastrakChannels = std::array<ChannelScale, 10>;

// Beside the number of values: some 32-bit value lay outside what the family measures, and was
// put to 0 (below 1e-8 in magnitude) or to a bound of +-360.
inline constexpr int kFastrakTiny = 0x10000;
inline constexpr int kFastrakAbove = 0x20000;
inline constexpr int kFastrakBelow = 0x40000;

// Whether the marks of a 14-bit record are where they belong. The other formats have none.
bool MarksInPlace(std::span<const std::byte> body);
inline bool FastrakInStep(const FastrakLayout& layout, std::span<const std::byte> body) {
  return layout.format != FastrakFormat::Bits14 || MarksInPlace(body);
}

// Decodes the values of a record and adds the station's mounting offset. A sensor that is mounted
// upside down (a roll offset of half a turn) has its quaternion turned too.
//
// units       bit 1: positions to metres. Only the 32-bit format needs to be told.
// channels    scales of the 14 and 16-bit formats; their raw readings are stored.
// pose, quaternion  what the layout leaves out stays as it is.
// Returns     ValueCount() with the flags above; fewer, and nothing changed, when the body is
//             short or a value is not a number.
int DecodeFastrakBody(const FastrakLayout& layout, std::span<const std::byte> body, int units,
                      FastrakChannels& channels, const Pose& offset, Pose& pose,
                      Quaternion& quaternion);

// Full scales of the command set, for positions in `units` and angles in radians.
void SetFastrakScales(bool fastrakClass, int units, FastrakFormat format,
                      FastrakChannels& channels);

// ---- Replies -------------------------------------------------------------------------------

// Whether the first answer to a request for a record comes from this family: kBooted,
// kNoSensors (an active-station list without an active station) or kUnknownFailure.
BootResult JudgeFastrakReply(std::string_view reply);

enum class FastrakStatusFault : int { None = 0, NotFastrak = 4 };

struct FastrakStatusRecord {
  bool found = false;
  FastrakStatusFault fault = FastrakStatusFault::None;  // of a record that was there
  std::uint32_t word = 0;  // model code in the low half; bits 16 to 20 for diagnosis
  int bitError = 0;        // 0: none
};

// Finds the status record in the reply to 'S' and reads it.
FastrakStatusRecord ParseFastrakStatus(std::string_view reply);

// The active stations in the reply to 'l': a mask of the first `stations`. False when the reply is
// no such list, or a short one.
bool ParseActiveStations(std::string_view reply, int stations, unsigned& active);

// ---- Built-in test errors ------------------------------------------------------------------

inline constexpr int kFirstBitError = 65;
inline constexpr int kLastBitError = 122;

const char* BitErrorText(int code);

}  // namespace kinetrel
