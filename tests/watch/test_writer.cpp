// A writer in a process of its own, which a test may kill:
//   kinetrel-test-writer DEVICE PERIOD_MS
// Publishes one sensor in bin 0 each period, until it is ended. Period 0: once, and then dies with
// the mutex in its hands.

#include <cstdlib>

#include "publish/shared_track_writer.h"
#include "tests/support/peer_world.h"

namespace {

void PublishSensor(kinetrel::SharedTrackWriter& writer) {
  if (!writer.Lock(kinetrel::kForever)) return;
  kinetrel::SharedTrackBlock& block = *writer.block();
  kinetrel::SetDeviceName(block, "Test writer");
  block.sensorMask = 1;
  block.flags = 1 | kinetrel::TrackFlags::kPosition | kinetrel::TrackFlags::kEuler;
  writer.Publish(0);
  writer.Unlock();
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 3) return 2;
  kinetrel::SharedTrackWriter writer(std::atoi(arguments[1]), 1);
  if (!writer.OpenAll()) return 1;
  const int period = std::atoi(arguments[2]);
  for (;;) {
    PublishSensor(writer);
    if (period == 0 && writer.Lock(kinetrel::kForever)) kinetrel::test::DieAtOnce();
    kinetrel::SleepFor(kinetrel::Milliseconds(period));
  }
}
