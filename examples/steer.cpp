// The same host in C++, with the engine's own classes.
//
//   find_package(Kinetrel REQUIRED)
//   target_link_libraries(steer PRIVATE Kinetrel::kinetrel_shared)

#include <array>
#include <cstdio>
#include <cstdlib>

#include "engine/tracker_engine.h"

int main(int count, char** arguments) {
  kinetrel::TrackerEngine tracker;
  const int slot = count > 1 ? std::atoi(arguments[1]) : 1;
  tracker.Configure([&](kinetrel::StartConfig& config) {
    config.deviceType = 8;  // simulated
    config.streaming = 0;
    config.shmDevice = slot - 1;
    return true;
  });
  if (tracker.Open(8, 1, false) != kinetrel::OpenResult::Opened) return 1;

  const std::array<int, 3> secondBin = {slot - 1, 1, 0};
  tracker.SetMapping(secondBin.data(), 0);
  tracker.StartSampling();
  tracker.WaitSampling(kinetrel::Milliseconds(1000));
  tracker.ZeroAzimuth();
  tracker.WaitSampling(kinetrel::Milliseconds(100));

  const auto read = [&](kinetrel::MappingAttribute id) {
    std::array<float, 4> values{};
    tracker.GetFilterAttributeFloatArray(secondBin.data(), -1, static_cast<int>(id), 4,
                                         values.data());
    return values;
  };
  const auto rate = read(kinetrel::MappingAttribute::FrameRate);
  const auto latency = read(kinetrel::MappingAttribute::Latency);
  std::printf("\n%.1f Hz (%.1f to %.1f), %.3f ms late\n", static_cast<double>(rate[0]),
              static_cast<double>(rate[2]), static_cast<double>(rate[3]),
              1000.0 * static_cast<double>(latency[0]));
  return rate[0] > 0 ? 0 : 1;
}
