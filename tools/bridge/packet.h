// Builds and reads the bytes of a packet, in the byte order that each format has.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace kinetrel::bridge {

using Packet = std::vector<std::byte>;

// What a packet may carry so that no network splits it: 1500 bytes of Ethernet less the headers of
// IP and UDP.
inline constexpr std::size_t kLargestPacket = 1472;

class PacketWriter {
 public:
  PacketWriter() { bytes_.reserve(64); }

  PacketWriter& U8(std::uint32_t value) {
    bytes_.push_back(static_cast<std::byte>(value & 0xFF));
    return *this;
  }
  PacketWriter& U16Be(std::uint32_t value) {
    return Number<std::endian::big, std::uint16_t>(value);
  }
  PacketWriter& U32Be(std::uint32_t value) {
    return Number<std::endian::big, std::uint32_t>(value);
  }
  PacketWriter& U64Be(std::uint64_t value) {
    return Number<std::endian::big, std::uint64_t>(value);
  }
  PacketWriter& U32Le(std::uint32_t value) {
    return Number<std::endian::little, std::uint32_t>(value);
  }
  PacketWriter& U64Le(std::uint64_t value) {
    return Number<std::endian::little, std::uint64_t>(value);
  }
  PacketWriter& F32Be(double value) { return U32Be(std::bit_cast<std::uint32_t>(AsFloat(value))); }
  PacketWriter& F32Le(double value) { return U32Le(std::bit_cast<std::uint32_t>(AsFloat(value))); }
  PacketWriter& F64Le(double value) { return U64Le(std::bit_cast<std::uint64_t>(value)); }
  // The low 24 bits.
  PacketWriter& U24Be(std::uint32_t value) { return U8(value >> 16).U8(value >> 8).U8(value); }

  PacketWriter& Text(std::string_view text) {
    return Bytes(std::as_bytes(std::span(text.data(), text.size())));
  }
  PacketWriter& Bytes(std::span<const std::byte> bytes) {
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    return *this;
  }
  PacketWriter& Fill(std::size_t count, std::byte with) {
    bytes_.insert(bytes_.end(), count, with);
    return *this;
  }
  PacketWriter& Zeros(std::size_t count) { return Fill(count, std::byte{0}); }

  // Writes over bytes from `at` on, which are there already.
  void SetU16Be(std::size_t at, std::uint32_t value) {
    Put<std::endian::big>(at, static_cast<std::uint16_t>(value));
  }
  void SetU32Be(std::size_t at, std::uint32_t value) { Put<std::endian::big>(at, value); }
  void SetU32Le(std::size_t at, std::uint32_t value) { Put<std::endian::little>(at, value); }

  std::span<const std::byte> bytes() const { return bytes_; }
  std::size_t size() const { return bytes_.size(); }
  Packet Take() { return std::move(bytes_); }
  void Clear() { bytes_.clear(); }  // and keeps the memory

 private:
  // A double beyond a float's range would become an infinity, which receivers do not expect.
  static float AsFloat(double value) {
    constexpr double kMost = std::numeric_limits<float>::max();
    return static_cast<float>(std::clamp(value, -kMost, kMost));
  }

  template <std::endian Order, typename Value>
  void Put(std::size_t at, Value value) {
    for (std::size_t i = 0; i < sizeof(Value); ++i) {
      const std::size_t shift = 8 * (Order == std::endian::big ? sizeof(Value) - 1 - i : i);
      bytes_[at + i] = static_cast<std::byte>(value >> shift & 0xFF);
    }
  }

  template <std::endian Order, typename Value>
  PacketWriter& Number(std::uint64_t value) {
    const std::size_t at = bytes_.size();
    bytes_.resize(at + sizeof(Value));
    Put<Order>(at, static_cast<Value>(value));
    return *this;
  }

  Packet bytes_;
};

// The packets of a frame, one behind the other in memory that the next frame uses again.
class PacketBatch {
 public:
  // Writes the present packet, which begins at start().
  PacketWriter& writer() { return writer_; }
  std::size_t start() const { return packets_.empty() ? 0 : packets_.back().end; }
  std::size_t sizeOfPresent() const { return writer_.size() - start(); }

  // Ends the present packet.
  // lastByte  of the receiver's address, for a format with a multicast group for each sensor; 0: as
  //           the operator gave it.
  void End(std::uint8_t lastByte = 0) { packets_.push_back({writer_.size(), lastByte}); }

  std::size_t size() const { return packets_.size(); }
  std::span<const std::byte> operator[](std::size_t i) const {
    const std::size_t begin = i == 0 ? 0 : packets_[i - 1].end;
    return writer_.bytes().subspan(begin, packets_[i].end - begin);
  }
  std::uint8_t LastByteOf(std::size_t i) const { return packets_[i].lastByte; }

  void Clear() {
    packets_.clear();
    writer_.Clear();
  }

 private:
  struct Ended {
    std::size_t end = 0;
    std::uint8_t lastByte = 0;
  };

  PacketWriter writer_;
  std::vector<Ended> packets_;
};

// Reads a packet. Past its end it returns zeros, and Ok() stays false.
class PacketReader {
 public:
  PacketReader() = default;
  explicit PacketReader(std::span<const std::byte> bytes) : rest_(bytes) {}

  unsigned U8() { return Number<std::endian::big, std::uint8_t>(); }
  unsigned U16Be() { return Number<std::endian::big, std::uint16_t>(); }
  std::uint32_t U32Be() { return Number<std::endian::big, std::uint32_t>(); }
  std::uint32_t U32Le() { return Number<std::endian::little, std::uint32_t>(); }
  std::uint64_t U64Le() { return Number<std::endian::little, std::uint64_t>(); }
  float F32Be() { return std::bit_cast<float>(U32Be()); }
  float F32Le() { return std::bit_cast<float>(U32Le()); }
  double F64Le() { return std::bit_cast<double>(U64Le()); }

  // The next `count` bytes; empty if fewer are left.
  std::span<const std::byte> Bytes(std::size_t count) {
    if (count > rest_.size()) {
      Spoil();
      return {};
    }
    const auto taken = rest_.first(count);
    rest_ = rest_.subspan(count);
    return taken;
  }

  void Spoil() {  // the packet is not what its reader expects
    rest_ = {};
    ok_ = false;
  }

  std::span<const std::byte> rest() const { return rest_; }
  bool Ok() const { return ok_; }
  bool AtEnd() const { return ok_ && rest_.empty(); }

 private:
  template <std::endian Order, typename Value>
  Value Number() {
    std::uint64_t value = 0;
    const auto bytes = Bytes(sizeof(Value));
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      const std::size_t at = Order == std::endian::big ? i : bytes.size() - 1 - i;
      value = value << 8 | std::to_integer<std::uint64_t>(bytes[at]);
    }
    return static_cast<Value>(value);
  }

  std::span<const std::byte> rest_;
  bool ok_ = true;
};

// `value` as a whole number of `bits` bits in two's complement; rounded, and limited to the range.
inline std::int32_t RoundedToBits(double value, int bits) {
  const double limit = std::ldexp(1.0, bits - 1);
  return static_cast<std::int32_t>(std::clamp(std::round(value), -limit, limit - 1));
}

}  // namespace kinetrel::bridge
