#include "emulate/fastrak_models.h"

#include <numbers>

namespace kinetrel {
namespace {

constexpr double kFar = 300;                                 // cm
constexpr double kNear = 65.48 * 2.54;                       // cm
constexpr double kFourRadians = 4 * 180 / std::numbers::pi;  // degrees

// A host knows the model by the version's dot, and by what stands around it.
constexpr FastrakModelRow kModels[] = {
    {"fastrak", "FasTRAK", 4, 120, true, true, kFar, 180, "3.02  ", "Polhemus 3SPACE FASTRAK"},
    {"insidetrak", "InsideTRAK", 2, 30, false, true, kFar, 180, " 50.12", "Polhemus InsideTRAK"},
    {"isotrak", "IsoTRAK", 1, 30, false, false, kNear, kFourRadians, "V 2011", "3SPACE ISOTRAK"},
    {"isotrak2", "IsoTRAK2", 2, 60, false, false, kNear, kFourRadians, "V 3013",
     "3SPACE ISOTRAK II"},
    {"is300", "IS-300", 4, 150, true, true, kFar, 180, "  2.41", "IS300 InterSense tracker"},
    {"is600", "IS-600", 4, 150, true, true, kFar, 180, "  2.41", "IS600 InterSense tracker"},
};

}  // namespace

std::span<const FastrakModelRow> FastrakModels() { return kModels; }

}  // namespace kinetrel
