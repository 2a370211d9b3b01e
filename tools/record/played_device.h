// A recording in the place of a tracker: the engine samples it, so a slot gets all that a tracker
// publishes.
//
// Gaps of the recording are gaps again, so that clients see the state that they would have seen.
#pragma once

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>

#include "devices/tracker_device.h"
#include "recording/paced_frames.h"

namespace kinetrel::record {

// What the player and its program share. The program sets the first two before it starts.
struct Playback {
  RecordedFrames frames;
  Pace pace;
  std::atomic<bool> ended{false};
  std::atomic<std::uint64_t> played{0};  // frames
};

class PlayedDevice final : public TrackerDevice {
 public:
  explicit PlayedDevice(std::shared_ptr<Playback> playback);

  // Both ignore the arguments and open the simulated port.
  int OpenPort(const char* name, int baud) override;
  int OpenPortNumber(int number, int baud) override;

  BootResult Boot(int reset) override;
  int QueryStatus(char* text, int size) override;

  // Waits until the next frame of the recording is due, for half a second at most. Reads the file,
  // so it may allocate.
  unsigned ReadFrame(double* sampleTime) override;

  void Poll() override {}             // frames need no request
  void StartContinuous() override {}  // likewise

  int SetUnits(int units) override;  // metres always

 private:
  unsigned TakeFrame(const RecordedFrame& frame);

  std::shared_ptr<Playback> playback_;
  PacedFrames paced_;
  std::string name_;
};

}  // namespace kinetrel::record
