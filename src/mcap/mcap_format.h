// What the writer and the reader of MCAP files share.
//
// MCAP is an open container of timed messages, which the tools of robotics read: magic, header,
// chunks of messages with an index behind each, a summary, footer, magic. A record is an opcode, a
// 64-bit length and that many bytes. All numbers are little-endian. A file that was cut is read up
// to the cut.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kinetrel::mcap {

inline constexpr std::array kMagic{std::byte{0x89}, std::byte{'M'}, std::byte{'C'},
                                   std::byte{'A'},  std::byte{'P'}, std::byte{'0'},
                                   std::byte{'\r'}, std::byte{'\n'}};
inline constexpr std::size_t kRecordHeadSize = 9;                 // opcode and length
inline constexpr std::size_t kFooterSize = kRecordHeadSize + 20;  // the record, without the magic

// Those from 0x80 on are private to their writers. Readers pass over what they do not know.
enum class Opcode : std::uint8_t {
  Header = 0x01,
  Footer = 0x02,
  Schema = 0x03,
  Channel = 0x04,
  Message = 0x05,
  Chunk = 0x06,
  MessageIndex = 0x07,
  ChunkIndex = 0x08,
  Statistics = 0x0B,
  Metadata = 0x0C,
  MetadataIndex = 0x0D,
  SummaryOffset = 0x0E,
  DataEnd = 0x0F,
};

using TextMap = std::map<std::string, std::string>;

// How the bytes of a channel's messages are laid out.
struct Schema {
  std::string name;      // geometry_msgs/msg/PoseStamped
  std::string encoding;  // of the text: ros2msg, jsonschema
  std::string text;
  bool operator==(const Schema&) const = default;
};

struct Channel {
  std::uint16_t schema = 0;  // 0: the messages have none
  std::string topic;
  std::string encoding;  // of the messages: cdr, json
  TextMap metadata;
  bool operator==(const Channel&) const = default;
};

// CRC-32 of `bytes` as zlib computes it, going on from that of the bytes before them.
std::uint32_t Crc32(std::span<const std::byte> bytes, std::uint32_t before = 0);

// Appends the fields of records. Allocates.
class ByteSink {
 public:
  explicit ByteSink(std::vector<std::byte>& into) : into_(into) {}

  void U8(std::uint8_t value) { Number(value); }
  void U16(std::uint16_t value) { Number(value); }
  void U32(std::uint32_t value) { Number(value); }
  void U64(std::uint64_t value) { Number(value); }
  void F64(double value) { Number(std::bit_cast<std::uint64_t>(value)); }
  void Bytes(std::span<const std::byte> bytes);
  void Text(std::string_view text) {
    U32(static_cast<std::uint32_t>(text.size()));
    Bytes(std::as_bytes(std::span(text)));
  }
  void Texts(const TextMap& texts) {
    const std::size_t length = Begin32();
    for (const auto& [key, value] : texts) {
      Text(key);
      Text(value);
    }
    End32(length);
  }

  // A record, or an array whose length in bytes stands before it: Begin, its content, End.
  std::size_t BeginRecord(Opcode opcode) {
    U8(static_cast<std::uint8_t>(opcode));
    U64(0);
    return into_.size();
  }
  void EndRecord(std::size_t begin) { Patch<std::uint64_t>(begin); }
  std::size_t Begin32() {
    U32(0);
    return into_.size();
  }
  void End32(std::size_t begin) { Patch<std::uint32_t>(begin); }

 private:
  template <typename Value>
  void Number(Value value) {
    for (std::size_t i = 0; i < sizeof(Value); ++i) {
      into_.push_back(static_cast<std::byte>(static_cast<std::uint64_t>(value) >> (8 * i) & 0xFF));
    }
  }

  // Writes the number of bytes since `begin` into the field before it.
  template <typename Value>
  void Patch(std::size_t begin) {
    const std::uint64_t length = into_.size() - begin;
    for (std::size_t i = 0; i < sizeof(Value); ++i) {
      into_[begin - sizeof(Value) + i] = static_cast<std::byte>(length >> (8 * i) & 0xFF);
    }
  }

  std::vector<std::byte>& into_;
};

void AppendSchema(std::vector<std::byte>& into, std::uint16_t id, const Schema& schema);
void AppendChannel(std::vector<std::byte>& into, std::uint16_t id, const Channel& channel);

}  // namespace kinetrel::mcap
