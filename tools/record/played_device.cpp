#include "record/played_device.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace kinetrel::record {
namespace {

constexpr Milliseconds kLongestWait{500};  // the engine looks at stop requests between two reads
constexpr int kMetres = 3;
constexpr unsigned kAllComponents = kPositionComponent | kEulerComponent | kQuaternionComponent;

bool IsValid(const std::array<double, 4>& orientation) {
  return std::ranges::all_of(orientation, [](double value) { return std::isfinite(value); });
}

}  // namespace

PlayedDevice::PlayedDevice(std::shared_ptr<Playback> playback)
    : playback_(std::move(playback)),
      paced_(playback_->frames, playback_->pace),
      name_(playback_->frames.DeviceName()) {
  deviceName_ = name_.c_str();
  units_ = kMetres;
  componentMask_ = kAllComponents;
  AllocateSensors(32);
  const double rate = paced_.Rate();
  totalFrameRate_ =
      static_cast<int>(std::lround(rate * static_cast<double>(playback_->frames.sensors().size())));
}

int PlayedDevice::OpenPort(const char*, int) {
  return SerialPort::OpenPort("~SimulateOpenPort", 115200);
}

int PlayedDevice::OpenPortNumber(int, int) { return OpenPort(nullptr, 0); }

BootResult PlayedDevice::Boot(int) {
  booted_ = true;
  return kBooted;
}

int PlayedDevice::QueryStatus(char*, int) { return 1; }

int PlayedDevice::SetUnits(int) { return units_ = kMetres; }

unsigned PlayedDevice::ReadFrame(double* sampleTime) {
  const RecordedFrame* const frame = paced_.Next(kLongestWait);
  playback_->ended = paced_.ended();
  if (frame == nullptr) return 0;
  playback_->played = paced_.played();
  const double time = ElapsedSeconds();
  if (sampleTime != nullptr) *sampleTime = time;
  const unsigned sensors = TakeFrame(*frame);
  TellRecords(sensors, time);
  return sensors;
}

// A pose without position or orientation keeps what the sensor had before, as a tracker's records
// do.
unsigned PlayedDevice::TakeFrame(const RecordedFrame& frame) {
  unsigned sensors = 0;
  for (const RecordedPose& recorded : frame.poses) {
    const int index = recorded.sensor - 1;
    if (!HasStation(sensorMask_, index)) continue;
    const auto at = static_cast<std::size_t>(index);
    for (std::size_t i = 0; i < 3; ++i) {
      if (std::isfinite(recorded.position[i])) {
        poses_[at][i] = static_cast<float>(recorded.position[i]);
      }
    }
    if (IsValid(recorded.orientation)) {
      for (std::size_t i = 0; i < 4; ++i) {
        quaternions_[at][i] = static_cast<float>(recorded.orientation[i]);
      }
      std::ranges::copy(QuaternionToEuler(quaternions_[at].data()), poses_[at].begin() + 3);
    }
    sensors |= StationBit(index);
  }
  return sensors;
}

}  // namespace kinetrel::record
