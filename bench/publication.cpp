#include "bench/publication.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "bench/machine.h"

namespace kinetrel::bench {
namespace {

constexpr Milliseconds kPatience{1000};

}  // namespace

void PublishSample(SharedTrackWriter& writer, int bin, int sensor) {
  writer.SelectBin(bin);
  if (!writer.Enter()) throw std::runtime_error("the bin cannot be locked");
  SharedTrackBlock& block = *writer.block();
  const auto step = static_cast<float>(block.frameCount);
  std::ranges::copy(std::array{step, step, step, 0.1F, 0.2F, 0.3F}, block.poses[sensor]);
  block.flags = TrackFlags::kPosition | TrackFlags::kEuler | 0x101;
  block.frameRate = 120.0;
  block.sensorMask = 0xFFFFFFFF;
  block.sampleTime = 0.0;
  writer.Publish(0);
  writer.Leave();
}

void Publication::OpenGiver() { writer_ = OpenWriter(); }

void Publication::OpenTaker() { reader_ = OpenReader(); }

void Publication::CloseGiver() { writer_.reset(); }

void Publication::Give() { PublishSample(*writer_, kBin, 0); }

void Publication::Rehearse() { PublishSample(*writer_, kLonelyBin, 0); }

void Publication::CatchUp() { reader_->Copy(copy_, kPatience); }

void Publication::Take() {
  while (!reader_->WaitForFrame(copy_.frameCount, kPatience)) {
  }
  reader_->Copy(copy_, kPatience);
}

int FrameCount(SharedTrackReader& reader) {
  SharedTrackBlock copy{};
  if (!reader.Copy(copy, kPatience)) throw std::runtime_error("the bin cannot be read");
  return copy.frameCount;
}

void AwaitFrames(SharedTrackReader& reader, int atLeast) {
  const Deadline deadline(10 * kPatience);
  for (int count = FrameCount(reader); count < atLeast; count = FrameCount(reader)) {
    if (deadline.Passed()) throw std::runtime_error("too few frames are published");
    reader.WaitForFrame(count, Milliseconds(100));
  }
}

std::unique_ptr<SharedTrackWriter> OpenWriter() {
  auto writer = std::make_unique<SharedTrackWriter>(kBenchDevice, kLonelyBin + 1);
  if (!writer->OpenAll()) throw std::runtime_error(Describe(writer->failure()));
  if (writer->rivalPresent()) throw std::runtime_error("another program writes slot 16");
  return writer;
}

std::unique_ptr<SharedTrackReader> OpenReader() {
  auto reader = std::make_unique<SharedTrackReader>(kBenchDevice);
  if (!reader->OpenOnly(kBin)) throw std::runtime_error(Describe(reader->failure()));
  return reader;
}

}  // namespace kinetrel::bench
