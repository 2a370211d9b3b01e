// A writer in a process of its own, which a test may kill:
//   kinetrel-test-writer DEVICE SENSOR_MASK COMPONENT_MASK PERIOD_MS
// Publishes moving poses in bin 0, once per sensor each period, until it is ended. Period 0: once,
// and then dies with the mutex in its hands.

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "publish/shared_track_writer.h"
#include "tests/support/peer_world.h"

namespace {

using kinetrel::SharedTrackBlock;

void WritePose(SharedTrackBlock& block, std::size_t slot, double time) {
  const double phase = time + static_cast<double>(slot);
  const auto swing = [&](double factor) { return static_cast<float>(std::sin(phase * factor)); };
  block.poses[slot] = {10 * swing(1),  10 * swing(0.7), 10 * swing(0.4),
                       3 * swing(0.3), swing(0.5),      swing(0.2)};
  block.quaternions[slot] = {static_cast<float>(std::cos(phase / 2)), 0, 0, swing(0.5)};
}

void PublishSensors(kinetrel::SharedTrackWriter& writer, std::uint32_t sensors,
                    std::uint32_t components, int periodMs) {
  const double time = writer.timer().ElapsedSeconds();
  for (std::size_t slot = 0; slot < kinetrel::kPoseSlots; ++slot) {
    if ((sensors >> slot & 1U) == 0 || !writer.Lock(kinetrel::kForever)) continue;
    SharedTrackBlock& block = *writer.block();
    kinetrel::SetDeviceName(block, "Test writer");
    block.flags = components << 4 | 1U << 8 | (sensors & 0xF) | 1U << 12;
    block.buttons = static_cast<std::uint32_t>(time) & 0x7;
    block.sensorMask = sensors;
    block.frameRate = periodMs > 0 ? 1000.0 / periodMs : 0.0;
    WritePose(block, slot, time);
    writer.Publish(0);
    writer.Unlock();
  }
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 5) return 2;
  kinetrel::SharedTrackWriter writer(std::atoi(arguments[1]), 1);
  if (!writer.OpenAll()) return 1;
  const auto sensors = static_cast<std::uint32_t>(std::stoul(arguments[2], nullptr, 0));
  const auto components = static_cast<std::uint32_t>(std::stoul(arguments[3], nullptr, 0));
  const int period = std::atoi(arguments[4]);
  std::puts("open");
  std::fflush(stdout);
  for (;;) {
    PublishSensors(writer, sensors, components, period);
    if (period == 0 && writer.Lock(kinetrel::kForever)) kinetrel::test::DieAtOnce();
    kinetrel::SleepFor(kinetrel::Milliseconds(period));
  }
}
