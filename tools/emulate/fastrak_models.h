// The magnetic trackers that speak the FASTRAK command language, and what tells them apart.
#pragma once

#include <span>
#include <string_view>

namespace kinetrel {

enum class FastrakModel { Fastrak, InsideTrak, IsoTrak, IsoTrak2, Is300, Is600 };

struct FastrakModelRow {
  std::string_view option;
  std::string_view name;
  unsigned stations;
  double recordsPerSecond;    // over all active stations together
  bool floats;                // plain binary values are 32-bit floats, else 16-bit words
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

}  // namespace kinetrel
