// The records and replies of the FASTRAK family, and how they are decoded: pure functions over
// bytes in memory.
//
// A station record, binary values little-endian:
//   offset  size  field         meaning
//   0       1     '0'
//   1       1     station       '1' + station index
//   2       1     error         ' ' no error, else the code of a built-in test (BIT) error
//   3       n     values        position, Euler angles, quaternion, each only if selected
//   3 + n   2     tail          CR LF, only if selected
//
// A value depends on the format:
//   32 bit  IEEE single; positions in inches or centimetres, as set, angles in degrees
//   16 bit  signed integer, times the channel's scale
//   14 bit  two bytes of 7 bits, low first, times the channel's scale; bit 7 is set only in the
//           first byte of the values
//
// The status record (the answer to 'S') is text: '2', a digit, 'S', then fields at fixed offsets;
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

// The values of the protocol setting.
enum class FastrakProtocol : int { Bits14 = 1, Bits16 = 2, Bits32 = 3 };

// Bits of the status word; its low half is the model code.
inline constexpr std::uint32_t kFastrakParsed = 0x200;        // a status record was understood
inline constexpr std::uint32_t kFastrakFromStart = 1U << 16;  // and it began the reply
inline constexpr std::uint32_t kFastrakClass = 1U << 0;  // the FASTRAK command set; else IsoTRAK's
inline constexpr std::uint32_t kFastrakInterSense = 1U << 3;
inline constexpr std::uint32_t kFastrakProper = 0x201;  // the one model with 14-bit records

struct FastrakProduct {
  std::uint32_t code;
  DeviceName name;
  int stations;
  int frameRate;  // Hz, over all stations together
  FastrakProtocol protocol;
  FastrakFormat format;  // of the values, except with the 14-bit protocol
};

// The model with that code; an unknown code counts as the simplest model, an IsoTRAK.
const FastrakProduct& FindFastrakProduct(std::uint32_t code);

// ---- Station records -----------------------------------------------------------------------

inline constexpr std::size_t kFastrakHeadSize = 3;
inline constexpr std::size_t kFastrakTailSize = 2;
inline constexpr int kFastrakQuietMs = 50;  // a stream never pauses that long

// Which values a record carries, and in which format.
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

// Flags beside the number of values: a 32-bit value was outside the family's range and was set to
// 0 (magnitude below 1e-8) or to +-360.
inline constexpr int kFastrakTiny = 0x10000;
inline constexpr int kFastrakAbove = 0x20000;
inline constexpr int kFastrakBelow = 0x40000;

// Whether the marks of a 14-bit record are in place. The other formats have no marks.
bool AreMarksInPlace(std::span<const std::byte> body);
inline bool IsFastrakInStep(const FastrakLayout& layout, std::span<const std::byte> body) {
  return layout.format != FastrakFormat::Bits14 || AreMarksInPlace(body);
}

// Decodes the values of a record and adds the station's mounting offset. A sensor that is mounted
// upside down (a roll offset of half a turn) has its quaternion turned too.
//
// units       bit 1: positions in metres. Used by the 32-bit format only.
// channels    scales of the 14 and 16-bit formats; their raw readings are stored.
// pose, quaternion  values that the layout leaves out stay as they are.
// Returns     ValueCount() with the flags above; fewer, and nothing changed, if the body is short
//             or a value is not a number.
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
  FastrakStatusFault fault = FastrakStatusFault::None;  // why a record that came does not count
  std::uint32_t word = 0;  // model code in the low half; bits 16 to 20 for diagnosis
  int bitError = 0;        // 0: no error
};

// Finds the status record in the reply to 'S' and reads it.
FastrakStatusRecord ParseFastrakStatus(std::string_view reply);

// Reads the active stations from the reply to 'l': a mask of the first `stations`. False if the
// reply is not such a list, or is too short.
bool ParseActiveStations(std::string_view reply, int stations, unsigned& active);

// ---- Built-in test errors ------------------------------------------------------------------

inline constexpr int kFirstBitError = 65;
inline constexpr int kLastBitError = 122;

const char* BitErrorText(int code);

}  // namespace kinetrel
