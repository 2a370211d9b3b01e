// One publication as the sampling thread does it, and its handing over to clients.
#pragma once

#include <memory>

#include "bench/handover.h"
#include "publish/shared_track_reader.h"
#include "publish/shared_track_writer.h"

namespace kinetrel::bench {

inline constexpr int kBin = 0;
inline constexpr int kLonelyBin = 1;  // no client waits there

// Publishes a sample of one sensor.
void PublishSample(SharedTrackWriter& writer, int bin, int sensor);

// From the writer to clients that wait for its frames and copy the block.
class Publication final : public Handover {
 public:
  void OpenGiver() override;
  void OpenTaker() override;
  void CloseGiver() override;
  void Give() override;
  void Rehearse() override;
  void CatchUp() override;
  void Take() override;

 private:
  std::unique_ptr<SharedTrackWriter> writer_;
  std::unique_ptr<SharedTrackReader> reader_;
  SharedTrackBlock copy_{};
};

int FrameCount(SharedTrackReader& reader);

// Waits until `atLeast` frames are published; throws std::runtime_error if they do not come.
void AwaitFrames(SharedTrackReader& reader, int atLeast);

// A writer of both bins of the benchmarks' device number, and a reader of the first. Throw
// std::runtime_error with the cause when they cannot be opened.
std::unique_ptr<SharedTrackWriter> OpenWriter();
std::unique_ptr<SharedTrackReader> OpenReader();

}  // namespace kinetrel::bench
