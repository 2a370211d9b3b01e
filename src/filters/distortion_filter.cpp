#include "filters/distortion_filter.h"

#include <charconv>

namespace kinetrel {
namespace {

enum Row : std::size_t { Outside, Error, TurnError };

constexpr auto kReadOnly = FilterParameter::Access::ReadOnly;
constexpr FilterParameter kTable[] = {
    {"outside", 1, 0.0, 1e18, {}, nullptr, kReadOnly},
    {"error-m", 1, 0.0, 1e18, {}, nullptr, kReadOnly},
    {"error-deg", 1, 0.0, 1e18, {}, nullptr, kReadOnly},
};

constexpr double kCalmAfter =
    1.0;  // s inside the box; a sensor that trembles on its border logs no more
constexpr int kHighestDegree = 4;

}  // namespace

DistortionFilter::DistortionFilter() : TunedFilter(FilterType::Distortion, "map", kTable) {}

std::unique_ptr<Filter> DistortionFilter::Clone() const {
  return std::make_unique<DistortionFilter>(*this);
}

std::string DistortionFilter::Describe() const { return map_ != nullptr ? map_->Summary() : ""; }

// ---- Making it -----------------------------------------------------------------------------

std::string DistortionFilter::NamesOfParameters() const { return " file model degree"; }

bool DistortionFilter::SetByName(std::string_view name, std::string_view value,
                                 std::string& error) {
  if (name == "file") {
    file_ = value;
    return true;
  }
  if (name == "model") {
    model_ = value == "polynomial" ? MapModel::Polynomial : MapModel::Multiquadric;
    if (value == "polynomial" || value == "multiquadric") return true;
    error = "model must be one of multiquadric|polynomial.";
    return false;
  }
  if (name != "degree") return TunedFilter::SetByName(name, value, error);
  const auto [end, failure] = std::from_chars(value.data(), value.data() + value.size(), degree_);
  const bool whole = failure == std::errc{} && end == value.data() + value.size();
  if (whole && degree_ >= 1 && degree_ <= kHighestDegree) return true;
  error = "degree must be 1, 2, 3 or 4.";
  return false;
}

bool DistortionFilter::Complete(std::string& error) {
  if (file_.empty()) {
    error = "map needs a file: map:file=points.csv";
    return false;
  }
  PosePairTable table;
  if (ReadPosePairFile(file_, PoseColumns::MeasuredAndTrue, table, error)) {
    map_ = DistortionMap::Fit(table, model_, degree_, error);
  }
  if (map_ == nullptr) {
    error = file_ + ": " + error + '.';
    return false;
  }
  SetMeasured(Error, map_->report().leftOut);
  SetMeasured(TurnError, map_->report().leftOutTurn * kDegreesPerRadian);
  return true;
}

// ---- Samples -------------------------------------------------------------------------------

const char* DistortionFilter::Work(PoseSample& sample, const Step& step) {
  if (map_ == nullptr) return "it has no map";
  if (!sample.hasPosition)
    return sample.hasOrientation ? "without a position it has no place in the map" : nullptr;
  const DistortionMap::Correction correction = map_->At(sample.position);
  sample.position = sample.position + correction.shift;
  if (sample.hasOrientation) {
    sample.orientation = AtUnitLength(FromTurn(correction.turn) * sample.orientation);
  }
  CountOutside(sample, correction.inside, step);
  return nullptr;
}

void DistortionFilter::CountOutside(const PoseSample& sample, bool inside, const Step& step) {
  if (inside) {
    insideSeconds_ += step.seconds;
    return;
  }
  SetMeasured(Outside, Value(Outside) + 1.0);
  if (insideSeconds_ >= kCalmAfter && statusLog_ != nullptr) {
    statusLog_->SetStatusF(StatusCode::Refused,
                           "Sensor %d is outside the volume of its distortion map and is corrected "
                           "as at the border.",
                           sample.sensor + 1);
  }
  insideSeconds_ = 0.0;
}

}  // namespace kinetrel
