// Any bytes as the table of a calibration's points: refused with a sentence, or read whole and
// written so that it is read again as the same table. A small table is fitted as a map as well.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <sstream>

#include "filters/distortion_map.h"
#include "filters/pose_pairs.h"

namespace {

using namespace kinetrel;

constexpr std::size_t kMostFitted = 100;  // points; a fit grows with the cube of their number

void Require(bool condition) {
  if (!condition) std::abort();
}

// Written with as many digits as a double needs.
void RequireSame(const Vector3& a, const Vector3& b) {
  for (std::size_t i = 0; i < a.size(); ++i) {
    Require(std::isfinite(a[i]) && std::abs(a[i] - b[i]) <= 1e-6 * (1.0 + std::abs(a[i])));
  }
}

bool Read(const std::string& text, PoseColumns needed, PosePairTable& table) {
  std::istringstream from(text);
  std::string error;
  const bool read = ReadPosePairs(from, needed, table, error);
  Require(read == error.empty());
  return read;
}

void ReadAgain(const PosePairTable& table) {
  std::ostringstream text;
  WritePosePairs(text, table);
  PosePairTable again;
  Require(Read(text.str(), PoseColumns::MeasuredAndTrue, again));
  Require(again.pairs.size() == table.pairs.size());
  for (std::size_t i = 0; i < table.pairs.size(); ++i) {
    RequireSame(table.pairs[i].measured, again.pairs[i].measured);
    RequireSame(table.pairs[i].truth, again.pairs[i].truth);
  }
}

// A map that is not refused corrects its own points by numbers.
void FitMap(const PosePairTable& table, std::size_t choice) {
  const MapModel model = choice % 5 == 0 ? MapModel::Multiquadric : MapModel::Polynomial;
  std::string error;
  const auto map = DistortionMap::Fit(table, model, static_cast<int>(choice % 4) + 1, error);
  Require((map != nullptr) == error.empty());
  if (map == nullptr) return;
  for (const PosePair& pair : table.pairs) {
    const DistortionMap::Correction correction = map->At(pair.measured);
    RequireSame(correction.shift, correction.shift);
    RequireSame(correction.turn, correction.turn);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  PosePairTable table;
  Read(text, PoseColumns::TrueAtLeast, table);
  table = {};
  if (!Read(text, PoseColumns::MeasuredAndTrue, table)) return 0;
  ReadAgain(table);
  if (table.pairs.size() <= kMostFitted) FitMap(table, size);
  return 0;
}
