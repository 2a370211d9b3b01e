// How metal bends the poses of a magnetic tracker, learnt from measured and true poses: a smooth
// function of the measured position gives the correction of the position and of the orientation.
//
// The true poses may be in another frame than the tracker's; corrected poses are in that frame.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "filters/pose_pairs.h"

namespace kinetrel {

class DistortionModel;

enum class MapModel { Multiquadric, Polynomial };

class DistortionMap {
 public:
  struct Correction {
    Vector3 shift{};     // m; is added to the position
    Vector3 turn{};      // rad; the orientation is turned by it, about the axes of the true frame
    bool inside = true;  // the position lies in the box of the measured points
  };

  // What is known of the map's errors. A value is left out of the fit and foretold from the rest.
  struct Report {
    double without = 0.0;         // rms in m, with a turn and a shift in place of the map
    double leftOut = 0.0;         // rms in m of the points, each left out in its turn
    double leftOutTurn = 0.0;     // rms in rad
    std::vector<Vector3> rigid;   // m, of each point: what is left with the turn and the shift
    std::vector<Vector3> points;  // m, of each point, left out
    double largest = 0.0;         // m, of these
    int worstLine = 0;            // in the file, of the point with the largest error
  };

  // Fits a map. Takes up to a few seconds.
  //
  // degree   1 to 4, of a polynomial.
  // error    receives a sentence for the user if the result is null: too few points, points in a
  //          plane, or a map that would not make the poses better.
  static std::shared_ptr<const DistortionMap> Fit(const PosePairTable& table, MapModel model,
                                                  int degree, std::string& error);

  // A position outside the box gets the correction of the nearest place on its border. Allocates
  // nothing.
  Correction At(const Vector3& position) const;

  const Report& report() const { return report_; }
  std::string Summary() const;  // "200 points; error 0.61 mm rms, 5.20 mm without the map; ..."

 private:
  DistortionMap() = default;

  bool PlaceBox(const PosePairTable& table, std::string& error);
  bool Judge(const PosePairTable& table, std::string& error);

  std::shared_ptr<const DistortionModel> model_;
  Vector3 centre_{};
  Vector3 half_{};      // m
  double scale_ = 1.0;  // m; the longest of them
  Report report_;
};

}  // namespace kinetrel
