// The poses of one sensor, for calibration: without the azimuth zero, which comes after all
// filters.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "bridge_front/stream_source.h"
#include "calibrate/pivot_fit.h"

namespace kinetrel::calibrate {

enum class WhichPose { Device, Filtered };  // the device's own one, or after the filters that run

// Where a sensor rested while it was measured.
struct Rest {
  SensorPose pose;      // the mean
  double spread = 0.0;  // m, rms distance of the positions from their mean
  int poses = 0;
};

class SensorReader {
 public:
  // sensor  from 0.
  SensorReader(int slot, unsigned sensor, WhichPose which);

  // Reads for so many seconds, from the first pose on. Waits up to 5 s for that one.
  //
  // Returns  empty, or a sentence for the operator: no tracker, no valid pose of the sensor, or it
  //          was lost meanwhile.
  std::string Read(double seconds, std::vector<SensorPose>& poses);

  const std::string& deviceName() const { return deviceName_; }

 private:
  bool PoseOf(const kinetrel_record& record, SensorPose& pose);
  std::string Complaint() const;

  bridge::StreamSource source_;
  unsigned sensor_;
  WhichPose which_;
  std::string deviceName_;
};

Rest RestOf(const std::vector<SensorPose>& poses);  // at least one

}  // namespace kinetrel::calibrate
