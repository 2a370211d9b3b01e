// The trackers that speak the FASTRAK command language, and what they send: records and replies.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "emulate/motion.h"
#include "emulate/wire_writer.h"

namespace kinetrel::emulate {

enum class FastrakModel { Fastrak, InsideTrak, IsoTrak, IsoTrak2, Is300, Is600 };

struct FastrakModelRow {
  std::string_view option;
  std::string_view name;
  unsigned stations;
  double recordsPerSecond;    // over all active stations together
  bool floats;                // plain binary values are 32-bit floats, else 16-bit words
  bool interSense;            // has the command M and the items 21 to 23
  bool stationInLists;        // O and l name the station they are about
  double fullScale;           // cm, of the words
  double fullAngle;           // degrees, of the words
  std::string_view version;   // 6 characters of the status record
  std::string_view identity;  // up to 32
};

// In the order of FastrakModel.
std::span<const FastrakModelRow> FastrakModels();

inline const FastrakModelRow& RowOf(FastrakModel model) {
  return FastrakModels()[static_cast<std::size_t>(model)];
}

// Items of an output list. Any other number adds nothing to a record.
enum class FastrakItem : int {
  Space = 0,
  CrLf = 1,
  Position = 2,
  Euler = 4,
  Quaternion = 11,
  Stylus = 16,
  ShortPosition = 18,
  ShortEuler = 19,
  ShortQuaternion = 20,
  TimeStamp = 21,  // this and the next two: InterSense models only
  Buttons = 22,
  Joystick = 23,
};

// The name of an item for people; null for an item that this unit does not know.
const char* NameOf(FastrakItem item);

struct FastrakRecord {
  unsigned station = 0;  // from 0
  char error = ' ';
  MotionPose pose;
  std::vector<FastrakItem> items;
  bool binary = false;
  bool metric = false;        // centimetres, else inches
  std::uint32_t buttons = 0;  // bit i: button i is pressed; the stylus has button 0
  double time = 0;            // ms, since the host set it to zero or power came on
};

// A header of '0', the station's digit and the error character, and then the items in their order:
//   ASCII      7 characters per number: 2 decimals, 4 for the quaternion
//   floats     32 bits, little-endian
//   words      16 bits, little-endian, of the model's full scale
//   short      on models whose plain values are floats: 14 bits as two 7-bit bytes, low first; else
//              words. Bit 7 is set in the first byte of the first value only
//   stylus     a blank and '0' or '1', in binary records too; InterSense models leave out the blank
//   time       32-bit float, or 14 characters
//   buttons    a byte, or 3 digits
//   joystick   two bytes, or 3 digits each: left to right, back to front; 127 is the middle
WireWriter EncodeRecord(const FastrakRecord& record, const FastrakModelRow& model);

struct FastrakStatus {
  int error = 0;  // 0: none
  bool binary = false;
  bool metric = false;
  bool continuous = false;
};

// 55 characters: "21S", flags (3), error (3), blanks (6), version (6), identity (32), CR LF.
std::string StatusRecord(const FastrakStatus& status, const FastrakModelRow& model);

}  // namespace kinetrel::emulate
