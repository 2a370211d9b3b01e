// Reading and writing the fields of a message.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace kinetrel::rpc {

// Each message tells the byte order of its sender. We send little-endian messages.
enum class ByteOrder { Little, Big };

// Reads a message. Past its end it returns zeros, and Ok() stays false.
class OctetReader {
 public:
  OctetReader(std::span<const std::byte> bytes, ByteOrder order) : rest_(bytes), order_(order) {}

  std::uint8_t Byte() { return static_cast<std::uint8_t>(Number(1)); }
  std::uint16_t Half() { return static_cast<std::uint16_t>(Number(2)); }
  std::uint32_t Word() { return static_cast<std::uint32_t>(Number(4)); }
  std::int32_t Integer() { return static_cast<std::int32_t>(Word()); }
  float Float() { return std::bit_cast<float>(Word()); }
  void Skip(std::size_t count) { Take(count); }

  std::span<const std::byte> rest() const { return rest_; }
  bool Ok() const { return ok_; }

 private:
  std::span<const std::byte> Take(std::size_t count) {
    if (count > rest_.size()) {
      ok_ = false;
      rest_ = {};
      return {};
    }
    const auto taken = rest_.first(count);
    rest_ = rest_.subspan(count);
    return taken;
  }

  std::uint64_t Number(std::size_t size) {
    const auto taken = Take(size);
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < taken.size(); ++i) {
      const std::size_t at = order_ == ByteOrder::Big ? i : taken.size() - 1 - i;
      value = value << 8 | static_cast<std::uint64_t>(taken[at]);
    }
    return value;
  }

  std::span<const std::byte> rest_;
  ByteOrder order_;
  bool ok_ = true;
};

// Writes a message. A value that does not fit is not written, and Ok() stays false.
class OctetWriter {
 public:
  explicit OctetWriter(std::span<std::byte> into) : into_(into) {}

  void Byte(std::uint8_t value) { Number(value, 1); }
  void Half(std::uint16_t value) { Number(value, 2); }
  void Word(std::uint32_t value) { Number(value, 4); }
  void Integer(std::int32_t value) { Word(static_cast<std::uint32_t>(value)); }
  void Float(float value) { Word(std::bit_cast<std::uint32_t>(value)); }
  void Bytes(std::span<const std::byte> bytes) {
    if (!HasRoom(bytes.size())) return;
    std::memcpy(into_.data() + size_, bytes.data(), bytes.size());
    size_ += bytes.size();
  }
  void PadTo(std::size_t multiple) {
    while (size_ % multiple != 0 && ok_) Byte(0);
  }

  std::size_t size() const { return size_; }
  std::span<std::byte> written() const { return into_.first(size_); }
  bool Ok() const { return ok_; }

 private:
  bool HasRoom(std::size_t count) {
    if (count > into_.size() - size_) ok_ = false;
    return ok_ && count > 0;
  }

  void Number(std::uint32_t value, std::size_t size) {
    if (!HasRoom(size)) return;
    for (std::size_t i = 0; i < size; ++i) {
      into_[size_++] = static_cast<std::byte>(value >> (8 * i) & 0xFF);
    }
  }

  std::span<std::byte> into_;
  std::size_t size_ = 0;
  bool ok_ = true;
};

}  // namespace kinetrel::rpc
