// Reads the fields of a wire record one after another.
//
// A record is never cast to a structure: it may arrive cut, shifted or as noise. Past the end the
// reader yields zero and Ok() stays false, so a decoder reads all fields and checks once.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>

namespace kinetrel {

class WireReader {
 public:
  explicit WireReader(std::span<const std::byte> bytes) : rest_(bytes) {}

  std::uint8_t U8() { return Take<std::uint8_t, std::endian::little>(); }
  std::uint16_t U16Le() { return Take<std::uint16_t, std::endian::little>(); }
  std::uint16_t U16Be() { return Take<std::uint16_t, std::endian::big>(); }
  std::int16_t I16Le() { return Take<std::int16_t, std::endian::little>(); }
  std::int16_t I16Be() { return Take<std::int16_t, std::endian::big>(); }
  std::int32_t I32Le() { return Take<std::int32_t, std::endian::little>(); }
  std::int32_t I32Be() { return Take<std::int32_t, std::endian::big>(); }
  std::uint32_t U32Le() { return Take<std::uint32_t, std::endian::little>(); }
  std::uint64_t U64Le() { return Take<std::uint64_t, std::endian::little>(); }
  float F32Le() { return Take<float, std::endian::little>(); }
  float F32Be() { return Take<float, std::endian::big>(); }
  double F64Le() { return Take<double, std::endian::little>(); }
  double F64Be() { return Take<double, std::endian::big>(); }

  // Two bytes of 7 bits each, low first, as a signed number of 14 bits: -8192..8191. Bit 7 of both
  // is ignored: devices mark the start of a record with it.
  std::int16_t I14Pair() {
    const unsigned low = U8() & 0x7FU;
    const unsigned high = U8() & 0x7FU;
    return static_cast<std::int16_t>(static_cast<int>((high << 7 | low) ^ 0x2000U) - 0x2000);
  }

  // The next `count` bytes; empty if fewer are left.
  std::span<const std::byte> Bytes(std::size_t count) {
    if (!Has(count)) return {};
    const std::span<const std::byte> taken = rest_.first(count);
    rest_ = rest_.subspan(count);
    return taken;
  }
  void Skip(std::size_t count) { (void)Bytes(count); }

  std::size_t Remaining() const { return rest_.size(); }
  bool Ok() const { return ok_; }                      // no byte was missing so far
  bool AtEnd() const { return ok_ && rest_.empty(); }  // all bytes were read and none was missing

 private:
  bool Has(std::size_t count) {
    if (count <= rest_.size()) return true;
    rest_ = {};
    ok_ = false;
    return false;
  }

  template <typename Value, std::endian Order>
  Value Take() {
    std::array<std::byte, sizeof(Value)> raw{};
    if (!Has(raw.size())) return Value{};
    std::copy_n(rest_.begin(), raw.size(), raw.begin());
    rest_ = rest_.subspan(raw.size());
    if constexpr (Order != std::endian::native) std::reverse(raw.begin(), raw.end());
    return std::bit_cast<Value>(raw);
  }

  std::span<const std::byte> rest_;
  bool ok_ = true;
};

}  // namespace kinetrel
