#include "bridge/osc.h"

#include <utility>

#include "bridge/text.h"

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

char TypeOf(const OscArgument& argument) { return "ifs"[argument.index()]; }

void Append(PacketWriter& packet, const OscArgument& argument) {
  if (const auto* number = std::get_if<std::int32_t>(&argument)) {
    packet.U32Be(static_cast<std::uint32_t>(*number));
  } else if (const auto* real = std::get_if<float>(&argument)) {
    packet.F32Be(*real);
  } else {
    AppendText(packet, std::get<std::string_view>(argument));
  }
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

Packet OscMessage(std::string_view address, std::span<const OscArgument> arguments) {
  PacketWriter packet;
  AppendText(packet, address);
  std::string types = ",";
  for (const OscArgument& argument : arguments) types += TypeOf(argument);
  AppendText(packet, types);
  for (const OscArgument& argument : arguments) Append(packet, argument);
  return packet.Take();
}

Packet OscMessage(std::string_view address, std::initializer_list<OscArgument> arguments) {
  return OscMessage(address, std::span(arguments.begin(), arguments.size()));
}

std::uint64_t OscTimeTag(std::int64_t utcNs) {
  const auto seconds = static_cast<std::uint64_t>(utcNs / kSecond + kFrom1900To1970);
  const auto part = static_cast<std::uint64_t>(utcNs % kSecond);
  return seconds << 32 | (part << 32) / kSecond;
}

void OscBundler::Add(const Packet& message) {
  if (present_.size() > 0 && present_.size() + 4 + message.size() > kLargestPacket) {
    done_.push_back(present_.Take());
  }
  if (present_.size() == 0) present_.Text(kBundle).U64Be(timeTag_);
  present_.U32Be(static_cast<std::uint32_t>(message.size())).Bytes(message);
}

std::vector<Packet> OscBundler::Take() {
  if (present_.size() > 0) done_.push_back(present_.Take());
  return std::exchange(done_, {});
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
