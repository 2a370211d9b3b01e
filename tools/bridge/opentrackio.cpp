#include "bridge/opentrackio.h"

#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>

#include "bridge/text.h"

namespace kinetrel::bridge {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::string_view kMark = "OTrk";
constexpr std::size_t kHeadBeforeSum = 14;
constexpr std::uint16_t kLast = 0x8000;
constexpr std::int64_t kSecond = 1'000'000'000;

std::uint16_t Fletcher16(std::span<const std::byte> head, std::span<const std::byte> payload) {
  unsigned first = 0;
  unsigned second = 0;
  for (const std::span<const std::byte> part : {head, payload}) {
    for (const std::byte byte : part) {
      first = (first + std::to_integer<unsigned>(byte)) & 0xFF;
      second = (second + first) & 0xFF;
    }
  }
  return static_cast<std::uint16_t>(second << 8 | first);
}

std::string Number(double value) {
  std::array<char, 32> digits{};
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value);
  return {digits.data(), end.ptr};
}

// Bytes that are not UTF-8 become the character that stands for such.
std::string Quoted(const std::string& text) {
  return Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

// The schema wants a ratio of whole numbers.
std::string RatioOf(double rate) {
  const double whole = std::round(rate);
  const bool isWhole = std::abs(rate - whole) < 1e-6;
  return R"({"num":)" + Number(isWhole ? whole : std::round(rate * 1000)) +
         (isWhole ? R"(,"denom":1})" : R"(,"denom":1000})");
}

std::string TimingOf(const OpenTrackIoSample& sample) {
  std::string text = R"({"mode":"internal",)";
  if (sample.rate > 0) text += R"("sampleRate":)" + RatioOf(sample.rate) + ",";
  text += R"("sampleTimestamp":{"seconds":)" + std::to_string(sample.utcNs / kSecond);
  text += R"(,"nanoseconds":)" + std::to_string(sample.utcNs % kSecond);
  return text + R"(},"sequenceNumber":)" + std::to_string(sample.sequence) + "}";
}

std::string TransformOf(const OpenTrackIoSample& sample) {
  const auto& [x, y, z] = sample.position;
  return R"({"translation":{"x":)" + Number(x) + R"(,"y":)" + Number(y) + R"(,"z":)" + Number(z) +
         R"(},"rotation":{"pan":)" + Number(sample.pan) + R"(,"tilt":)" + Number(sample.tilt) +
         R"(,"roll":)" + Number(sample.roll) + R"(},"id":"Camera"})";
}

// Written as text, since a tree of members for each sample takes ten times as long.
std::string TextOf(const OpenTrackIoSample& sample) {
  std::string text = R"({"protocol":{"name":"OpenTrackIO","version":[1,0,1]},"sampleId":")";
  text += sample.sampleId + R"(","sourceId":")" + sample.sourceId;
  text += R"(","sourceNumber":)" + std::to_string(sample.sourceNumber);
  text += R"(,"tracker":{"status":")" + std::string(sample.seen ? "ok" : "lost");
  text += R"("},"timing":)" + TimingOf(sample);
  if (sample.seen) text += R"(,"transforms":[)" + TransformOf(sample) + "]";
  if (!sample.make.empty()) {
    text += R"(,"static":{"tracker":{"make":)" + Quoted(sample.make);
    text += R"(,"model":)" + Quoted(sample.model) + "}}";
  }
  return text + "}";
}

}  // namespace

Packet OpenTrackIoPacket(std::span<const std::byte> payload, std::uint16_t sequence,
                         OpenTrackIoEncoding encoding) {
  PacketWriter packet;
  packet.Text(kMark).U8(0).U8(static_cast<std::uint8_t>(encoding)).U16Be(sequence).U32Be(0);
  packet.U16Be(kLast | static_cast<std::uint32_t>(payload.size()));
  packet.U16Be(Fletcher16(packet.bytes(), payload)).Bytes(payload);
  return packet.Take();
}

Packet EncodeOpenTrackIo(const OpenTrackIoSample& sample, OpenTrackIoEncoding encoding) {
  const std::string text = TextOf(sample);
  const auto sequence = static_cast<std::uint16_t>(sample.sequence & 0xFFFF);
  if (encoding == OpenTrackIoEncoding::Json) {
    return OpenTrackIoPacket(std::as_bytes(std::span(text)), sequence, encoding);
  }
  const std::vector<std::uint8_t> cbor = Json::to_cbor(Json::parse(text));
  return OpenTrackIoPacket(std::as_bytes(std::span(cbor)), sequence, encoding);
}

std::string DescribeOpenTrackIo(std::span<const std::byte> packet) {
  constexpr const char* kDamaged = "damaged OpenTrackIO packet";
  PacketReader reader(packet);
  const bool marked = AsText(reader.Bytes(kMark.size())) == kMark && reader.U8() == 0;
  const unsigned encoding = reader.U8();
  const unsigned sequence = reader.U16Be();
  const bool whole = reader.U32Be() == 0;
  const unsigned length = reader.U16Be();
  const unsigned sum = reader.U16Be();
  const std::span<const std::byte> payload = reader.Bytes(length & ~unsigned{kLast});
  // Longer ones could nest deeper than the decoder's stack allows.
  if (packet.size() > kLargestPacket || !marked || !whole || !reader.AtEnd() ||
      (length & kLast) == 0 || sum != Fletcher16(packet.first(kHeadBeforeSum), payload)) {
    return kDamaged;
  }
  const std::string_view text = AsText(payload);
  const Json document = encoding == static_cast<unsigned>(OpenTrackIoEncoding::Cbor)
                            ? Json::from_cbor(text.begin(), text.end(), true, false)
                            : Json::parse(text, nullptr, false);
  if (document.is_discarded()) return kDamaged;
  return "sequence " + std::to_string(sequence) + " " +
         document.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace kinetrel::bridge
