#include "bridge/opentrackio.h"

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

// The schema wants a ratio of whole numbers.
Json RateOf(double rate) {
  const double whole = std::round(rate);
  if (std::abs(rate - whole) < 1e-6) {
    return {{"num", static_cast<std::int64_t>(whole)}, {"denom", 1}};
  }
  return {{"num", static_cast<std::int64_t>(std::round(rate * 1000))}, {"denom", 1000}};
}

Json TimingOf(const OpenTrackIoSample& sample) {
  Json timing = {{"mode", "internal"}};
  if (sample.rate > 0) timing["sampleRate"] = RateOf(sample.rate);
  timing["sampleTimestamp"] = {{"seconds", sample.utcNs / kSecond},
                               {"nanoseconds", sample.utcNs % kSecond}};
  timing["sequenceNumber"] = sample.sequence;
  return timing;
}

Json TransformOf(const OpenTrackIoSample& sample) {
  const auto& [x, y, z] = sample.position;
  return {{"translation", {{"x", x}, {"y", y}, {"z", z}}},
          {"rotation", {{"pan", sample.pan}, {"tilt", sample.tilt}, {"roll", sample.roll}}},
          {"id", "Camera"}};
}

Json DocumentOf(const OpenTrackIoSample& sample) {
  Json document = {{"protocol", {{"name", "OpenTrackIO"}, {"version", {1, 0, 1}}}}};
  document["sampleId"] = sample.sampleId;
  document["sourceId"] = sample.sourceId;
  document["sourceNumber"] = sample.sourceNumber;
  document["tracker"] = {{"status", sample.seen ? "ok" : "lost"}};
  document["timing"] = TimingOf(sample);
  if (sample.seen) document["transforms"] = Json::array({TransformOf(sample)});
  if (!sample.make.empty()) {
    document["static"] = {{"tracker", {{"make", sample.make}, {"model", sample.model}}}};
  }
  return document;
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
  const Json document = DocumentOf(sample);
  const auto sequence = static_cast<std::uint16_t>(sample.sequence & 0xFFFF);
  if (encoding == OpenTrackIoEncoding::Cbor) {
    const std::vector<std::uint8_t> cbor = Json::to_cbor(document);
    return OpenTrackIoPacket(std::as_bytes(std::span(cbor)), sequence, encoding);
  }
  // Bytes of a name that are not UTF-8 become the character that stands for such.
  const std::string json = document.dump(-1, ' ', false, Json::error_handler_t::replace);
  return OpenTrackIoPacket(std::as_bytes(std::span(json)), sequence, encoding);
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
