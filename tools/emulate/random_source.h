// Chance that is the same in every run with the same seed, whatever the standard library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>

namespace kinetrel {

class RandomSource {
 public:
  explicit RandomSource(std::uint64_t seed) : engine_(seed) {}

  std::byte Byte() { return static_cast<std::byte>(engine_() >> 56); }
  std::size_t Below(std::size_t limit) { return limit == 0 ? 0 : engine_() % limit; }
  bool Happens(double probability) {
    return static_cast<double>(engine_() >> 11) * 0x1p-53 < probability;
  }

 private:
  std::mt19937_64 engine_;
};

}  // namespace kinetrel
