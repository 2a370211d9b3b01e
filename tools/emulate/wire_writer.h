// Builds the bytes that a device sends.
#pragma once

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace kinetrel::emulate {

class WireWriter {
 public:
  WireWriter& U8(std::uint32_t value) {
    bytes_.push_back(static_cast<std::byte>(value & 0xFF));
    return *this;
  }
  WireWriter& U16Le(std::uint32_t value) { return U8(value).U8(value >> 8); }
  WireWriter& U16Be(std::uint32_t value) { return U8(value >> 8).U8(value); }
  WireWriter& U32Le(std::uint32_t value) { return U16Le(value).U16Le(value >> 16); }
  WireWriter& U32Be(std::uint32_t value) { return U16Be(value >> 16).U16Be(value); }
  WireWriter& F32Le(double value) { return U32Le(Bits(value)); }
  WireWriter& F32Be(double value) { return U32Be(Bits(value)); }
  WireWriter& Text(std::string_view text) {
    for (const char letter : text) U8(static_cast<unsigned char>(letter));
    return *this;
  }

  std::span<const std::byte> bytes() const { return bytes_; }

 private:
  static std::uint32_t Bits(double value) {
    return std::bit_cast<std::uint32_t>(static_cast<float>(value));
  }

  std::vector<std::byte> bytes_;
};

// `value` in parts of `fullScale`, as a two's-complement number of `bits` bits. Rounded, and
// limited to the range.
inline std::int32_t Scaled(double value, double fullScale, int bits) {
  const double half = std::ldexp(1.0, bits - 1);
  const double raw = std::round(value / fullScale * half);
  if (!(raw > -half)) return static_cast<std::int32_t>(-half);
  return static_cast<std::int32_t>(raw < half - 1 ? raw : half - 1);
}

inline std::span<const std::byte> AsBytes(std::string_view text) {
  return std::as_bytes(std::span(text.data(), text.size()));
}

}  // namespace kinetrel::emulate
