// What a calibration found: figures, residuals, a verdict, and the filter that follows from it.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "filters/rigid_math.h"

namespace kinetrel::calibrate {

enum class Grade { Good, Usable, Bad };  // of a bad one no filter is written

// What remains at one point.
struct Residual {
  std::string name;
  Vector3 place{};      // m
  Vector3 off{};        // m
  double before = 0.0;  // m, without the calibration; 0: means nothing here
};

struct Finding {
  std::string title;  // "Tip of the tool"
  Grade grade = Grade::Bad;
  std::string verdict;  // sentences for the operator: what is good or bad, and what to do
  std::vector<std::pair<std::string, std::string>> figures;  // what, value with unit
  std::vector<Residual> residuals;
  std::string filter;   // for --filter, without the sensors
  unsigned sensor = 0;  // counted from 1, that the filter is for; 0: for all
};

inline const char* GradeWord(Grade grade) {
  return grade == Grade::Good ? "good" : grade == Grade::Usable ? "usable" : "bad";
}

}  // namespace kinetrel::calibrate
