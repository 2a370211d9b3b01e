#include "mcap/mcap_format.h"

namespace kinetrel::mcap {
namespace {

constexpr std::array<std::uint32_t, 256> MakeCrcTable() {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t byte = 0; byte < table.size(); ++byte) {
    std::uint32_t rest = byte;
    for (int bit = 0; bit < 8; ++bit) rest = rest >> 1 ^ (rest & 1U ? 0xEDB88320U : 0U);
    table[byte] = rest;
  }
  return table;
}
constexpr auto kCrcTable = MakeCrcTable();

}  // namespace

std::uint32_t Crc32(std::span<const std::byte> bytes, std::uint32_t before) {
  std::uint32_t crc = ~before;
  for (const std::byte byte : bytes) {
    crc = crc >> 8 ^ kCrcTable[(crc ^ static_cast<std::uint32_t>(byte)) & 0xFFU];
  }
  return ~crc;
}

void ByteSink::Bytes(std::span<const std::byte> bytes) {
  into_.insert(into_.end(), bytes.begin(), bytes.end());
}

void AppendSchema(std::vector<std::byte>& into, std::uint16_t id, const Schema& schema) {
  ByteSink sink(into);
  const std::size_t begin = sink.BeginRecord(Opcode::Schema);
  sink.U16(id);
  sink.Text(schema.name);
  sink.Text(schema.encoding);
  sink.Text(schema.text);
  sink.EndRecord(begin);
}

void AppendChannel(std::vector<std::byte>& into, std::uint16_t id, const Channel& channel) {
  ByteSink sink(into);
  const std::size_t begin = sink.BeginRecord(Opcode::Channel);
  sink.U16(id);
  sink.U16(channel.schema);
  sink.Text(channel.topic);
  sink.Text(channel.encoding);
  sink.Texts(channel.metadata);
  sink.EndRecord(begin);
}

}  // namespace kinetrel::mcap
