// One run of sampling: reads the device frame by frame and publishes every mapping's pose.
//
// A sample's road is the body of Pass: read, then for each mapping lock, write, publish, unlock.
// Nothing on it allocates. The loop leaves the engine lock while it reads or polls the device, naps
// or backs off, so control calls run between two publications. A bin whose mutex another program
// holds is skipped.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "devices/optional_interfaces.h"
#include "engine/engine_state.h"
#include "engine/recovery.h"
#include "engine/stream_publisher.h"
#include "publish/shared_track_writer.h"

namespace kinetrel {

class SampleLoop {
 public:
  // `stop` ends the run between two publications, or after the device's read time.
  SampleLoop(std::shared_ptr<EngineState> state, const StopEvent& stop);

  void Run();  // on the sampling thread

 private:
  // The device's settings, read once a frame.
  struct Header {
    unsigned sensors = 0;     // mask
    unsigned components = 0;  // mask, low four bits
    unsigned units = 0;

    std::uint32_t Flags() const;
  };

  // The result of one read.
  struct Frame {
    unsigned updated = 0;     // mask of sensors
    double sampleTime = 0.0;  // seconds since the writer's start
    bool buttonsValid = false;
    bool atOnce = false;  // the read did not wait
  };

  void RaisePriority();
  void ChooseMode() REQUIRES(state_->mutex);
  bool OpenSharedMemory() REQUIRES(state_->mutex);
  void OpenStream() REQUIRES(state_->mutex);
  void ReportHeader();
  void ReportSlowLine();
  void WriteBinHeaders() REQUIRES(state_->mutex);
  void WriteHeader(SharedTrackBlock& block);  // of the current bin, locked
  void BeginDevice(EngineLock& lock) REQUIRES(state_->mutex);

  // This run was abandoned in the device, and a newer one samples: all is the newer one's now.
  bool Superseded() const REQUIRES(state_->mutex) { return state_->samplingRun != run_; }

  void Pass(EngineLock& lock) REQUIRES(state_->mutex);
  void GiveWay() const EXCLUDES(state_->mutex);
  Frame ReadFrame(EngineLock& lock) REQUIRES(state_->mutex);
  void Poll(EngineLock& lock) REQUIRES(state_->mutex);
  void StartContinuous();
  void PublishFrame(EngineLock& lock, const Frame& frame) REQUIRES(state_->mutex);
  bool PublishMapping(const MappingKey& key, Mapping& mapping, const Frame& frame)
      REQUIRES(state_->mutex);
  bool WritePose(SharedTrackBlock& block, std::size_t slot, int sensor) REQUIRES(state_->mutex);
  void WriteFilteredPose(SharedTrackBlock& block, std::size_t slot, const PoseSample& sample)
      REQUIRES(state_->mutex);
  ButtonBits::Buttons JoystickButtons(const Frame& frame) const;
  void WriteButtons(SharedTrackBlock& block, const Frame& frame);
  void KeepStatistics(Mapping& mapping, double sampleTime);
  void Nap(EngineLock& lock) REQUIRES(state_->mutex);

  // The current bin's mutex. False: another program holds it. Each says what it found out.
  bool EnterBin();
  void LeaveBin();
  void ReportNews();

  void Blink();
  void NoteSuccess();
  void NoteFailure(EngineLock& lock, const Frame& frame) REQUIRES(state_->mutex);
  void LogFailure();

  void End(EngineLock& lock) REQUIRES(state_->mutex);
  void CloseSharedMemory() REQUIRES(state_->mutex);

  Header ReadHeader();
  int MaxBin() const REQUIRES(state_->mutex);

  const std::shared_ptr<EngineState> state_;
  const StopEvent stop_;

  // The sampling thread's own.
  std::shared_ptr<TrackerDevice> device_;
  const ButtonBits* ownButtons_ = nullptr;  // the device once more; null: it has none
  PackedRecords* packed_ = nullptr;         // the same
  std::shared_ptr<DAQControl> joystick_;    // as it was when the frame was read
  std::optional<SharedTrackWriter> writer_;
  std::optional<StreamPublisher> stream_;
  std::optional<Recovery> recovery_;
  Header header_;
  unsigned run_ = 0;
  bool streaming_ = false;
  int rate_ = 0;                // Hz
  int nap_ = 0;                 // ms after each publication
  std::uint32_t namesDue_ = 0;  // bins whose block does not name the device yet
  bool inError_ = false;
  unsigned runLength_ = 0;  // passes since good turned to failed or back
};

}  // namespace kinetrel
