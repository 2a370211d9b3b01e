// The same host in C++: the C interface with a handle that closes itself.
//
//   find_package(Kinetrel REQUIRED)
//   target_link_libraries(steer PRIVATE Kinetrel::kinetrel_static)   # or kinetrel_shared

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include <kinetrel/kinetrel.h>

namespace {

struct Destroy {
  void operator()(kinetrel_engine* engine) const { kinetrel_destroy(engine); }
};
using Tracker = std::unique_ptr<kinetrel_engine, Destroy>;

// The statistics of a mapping: mean, deviation, minimum, maximum.
std::array<float, 4> Statistics(const Tracker& tracker, const std::array<int, 3>& mapping,
                                kinetrel_mapping_attribute_id id) {
  std::array<float, 4> values{};
  kinetrel_get_filter_attribute_floats(tracker.get(), mapping.data(), -1, id, 4, values.data());
  return values;
}

}  // namespace

int main(int count, char** arguments) {
  const std::string slot = count > 1 ? arguments[1] : "1";
  const std::string slotOption = "-w" + slot;
  const std::array<const char*, 4> options = {"steer", "-d8", "-z-", slotOption.c_str()};
  const Tracker tracker(kinetrel_create());
  if (!kinetrel_set_options(tracker.get(), static_cast<int>(options.size()), options.data()) ||
      kinetrel_open_configured(tracker.get()) != kinetrel_opened) {
    return 1;
  }

  const std::array<int, 3> secondBin = {std::atoi(slot.c_str()) - 1, 1, 0};
  kinetrel_set_mapping(tracker.get(), secondBin.data(), 0);
  kinetrel_start_sampling(tracker.get());
  kinetrel_wait_sampling(tracker.get(), 1000);
  kinetrel_zero_azimuth(tracker.get());
  kinetrel_wait_sampling(tracker.get(), 100);

  const auto rate = Statistics(tracker, secondBin, kinetrel_mapping_frame_rate);
  const auto latency = Statistics(tracker, secondBin, kinetrel_mapping_latency);
  std::printf("\n%.1f Hz (%.1f to %.1f), %.3f ms late\n", static_cast<double>(rate[0]),
              static_cast<double>(rate[2]), static_cast<double>(rate[3]),
              1000.0 * static_cast<double>(latency[0]));
  return rate[0] > 0 ? 0 : 1;
}
