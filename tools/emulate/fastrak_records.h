// What a FASTRAK-family unit sends: data records and replies.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "emulate/fastrak_models.h"
#include "emulate/motion.h"
#include "emulate/wire_writer.h"

namespace kinetrel {

// Items of an output list. A number that is none of these adds nothing to a record.
enum class FastrakItem : int {
  Space = 0,
  CrLf = 1,
  Position = 2,
  Euler = 4,
  Quaternion = 11,
  ShortPosition = 18,
  ShortEuler = 19,
  ShortQuaternion = 20,
};

// A word for people; null: no item that this unit knows.
const char* NameOf(FastrakItem item);

struct FastrakRecord {
  unsigned station = 0;  // from 0
  char error = ' ';
  MotionPose pose;
  std::vector<FastrakItem> items;
  bool binary = false;
  bool metric = false;  // centimetres, else inches
};

// A header of '0', the station's digit and the error character, and then the items in their order:
//   ASCII      7 characters a number: 2 decimals, 4 for the quaternion
//   floats     32 bits, little-endian
//   words      16 bits, little-endian, of the model's full scale
//   short      14 bits as twice 7, the lower first, where the model's plain values are floats, else
//              words; the first byte of the first one has bit 7 set, no other
WireWriter EncodeRecord(const FastrakRecord& record, const FastrakModelRow& model);

struct FastrakStatus {
  int error = 0;  // 0: none
  bool binary = false;
  bool metric = false;
  bool continuous = false;
};

// 55 characters: "21S", flags (3), error (3), blanks (6), version (6), identity (32), CR LF.
std::string StatusRecord(const FastrakStatus& status, const FastrakModelRow& model);

}  // namespace kinetrel
