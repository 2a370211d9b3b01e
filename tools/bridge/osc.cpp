#include "bridge/osc.h"

#include "bridge/text.h"
#include "program/program.h"

namespace kinetrel::bridge {
namespace {

constexpr std::string_view kBundle{"#bundle\0", 8};
constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kFrom1900To1970 = 2208988800;  // s

// Texts end with at least one zero byte.
std::size_t Padding(std::size_t length) { return 4 - length % 4; }

void AppendText(PacketWriter& packet, std::string_view text) {
  packet.Text(text).Zeros(Padding(text.size()));
}

unsigned char TypeOf(const OscArgument& argument) {
  constexpr std::string_view kTypes = "ifs";
  return static_cast<unsigned char>(kTypes[argument.index()]);
}

void Append(PacketWriter& packet, const OscArgument& argument) {
  if (const auto* number = std::get_if<std::int32_t>(&argument)) {
    packet.U32Be(static_cast<std::uint32_t>(*number));
  } else if (const auto* real = std::get_if<float>(&argument)) {
    packet.F32Be(*real);
  } else {
    AppendText(packet, std::get<std::string_view>(argument));
  }
}

std::size_t SizeOfText(std::size_t length) { return length + Padding(length); }

std::size_t SizeOf(std::string_view address, std::span<const OscArgument> arguments) {
  std::size_t size = SizeOfText(address.size()) + SizeOfText(1 + arguments.size());
  for (const OscArgument& argument : arguments) {
    const auto* const text = std::get_if<std::string_view>(&argument);
    size += text == nullptr ? 4 : SizeOfText(text->size());
  }
  return size;
}

// ---- Reading ----

// A text that ends in `reader`; takes its padding too.
std::string_view TakeText(PacketReader& reader) {
  std::string_view all = AsText(reader.rest());
  const std::size_t length = all.find('\0');
  if (length == std::string_view::npos) {
    reader.Spoil();
    return {};
  }
  (void)reader.Bytes(length + Padding(length));
  return all.substr(0, length);
}

std::string TakeArgument(PacketReader& reader, char type) {
  switch (type) {
    case 'i':
      return std::to_string(static_cast<std::int32_t>(reader.U32Be()));
    case 'f':
      return Fixed(reader.F32Be(), 6);
    case 's':
      return '"' + Printable(TakeText(reader)) + '"';
    default:
      reader.Spoil();  // of a kind that we do not send
      return {};
  }
}

std::string DescribeMessage(PacketReader& reader) {
  std::string text = Printable(TakeText(reader));
  const std::string_view types = TakeText(reader);
  if (!text.starts_with('/') || !types.starts_with(',')) reader.Spoil();
  for (const char type : types.substr(reader.Ok() ? 1 : types.size())) {
    text.append(" ").append(TakeArgument(reader, type));
  }
  return text;
}

std::string DescribeTime(PacketReader& reader) {
  const auto seconds = reader.U32Be();
  const auto part = reader.U32Be();
  if (seconds == 0 && part == kOscAtOnce) return "at once";
  return Fixed(seconds + part / 4294967296.0 - static_cast<double>(kFrom1900To1970), 6) + " s";
}

}  // namespace

void EncodeOsc(PacketWriter& packet, std::string_view address,
               std::span<const OscArgument> arguments) {
  AppendText(packet, address);
  packet.Text(",");
  for (const OscArgument& argument : arguments) packet.U8(TypeOf(argument));
  packet.Zeros(Padding(1 + arguments.size()));
  for (const OscArgument& argument : arguments) Append(packet, argument);
}

std::uint64_t OscTimeTag(std::int64_t utcNs) {
  const auto seconds = static_cast<std::uint64_t>(utcNs / kSecond + kFrom1900To1970);
  const auto part = static_cast<std::uint64_t>(utcNs % kSecond);
  return seconds << 32 | (part << 32) / kSecond;
}

OscBundler::~OscBundler() {
  if (packets_.sizeOfPresent() > 0) packets_.End();
}

void OscBundler::Add(std::string_view address, std::span<const OscArgument> arguments) {
  const std::size_t size = 4 + SizeOf(address, arguments);
  if (packets_.sizeOfPresent() > 0 && packets_.sizeOfPresent() + size > kLargestPacket) {
    packets_.End();
  }
  PacketWriter& packet = packets_.writer();
  if (packets_.sizeOfPresent() == 0) packet.Text(kBundle).U64Be(timeTag_);
  packet.U32Be(static_cast<std::uint32_t>(size - 4));
  EncodeOsc(packet, address, arguments);
}

std::string DescribeOsc(std::span<const std::byte> packet) {
  PacketReader reader(packet);
  std::string text;
  if (!AsText(packet).starts_with(kBundle)) {
    text = DescribeMessage(reader);
  } else {
    (void)reader.Bytes(kBundle.size());
    text = "bundle, " + DescribeTime(reader) + ":";
    while (reader.Ok() && !reader.rest().empty()) {
      const auto size = reader.U32Be();
      const std::span<const std::byte> element = reader.Bytes(size);
      PacketReader inner(element);
      text.append("\n  ").append(DescribeMessage(inner));
      if (!inner.AtEnd()) reader.Spoil();
    }
  }
  return reader.AtEnd() ? text : "damaged OSC packet";
}

}  // namespace kinetrel::bridge
