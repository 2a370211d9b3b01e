#include "bridge/opentrackio.h"

#include <cmath>
#include <nlohmann/json.hpp>

#include "bridge/text.h"

namespace kinetrel::bridge {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::uint32_t kMark = 0x4F54726B;  // "OTrk"
constexpr std::size_t kHead = 16;
constexpr std::size_t kHeadBeforeSum = 14;
constexpr std::uint16_t kLast = 0x8000;
constexpr std::int64_t kSecond = 1'000'000'000;

std::uint16_t Fletcher16(std::span<const std::byte> head, std::span<const std::byte> payload) {
  std::uint32_t first = 0;  // modulo 2^32, and so modulo 256 too
  std::uint32_t second = 0;
  for (const std::span<const std::byte> part : {head, payload}) {
    for (const std::byte byte : part) {
      first += std::to_integer<std::uint32_t>(byte);
      second += first;
    }
  }
  return static_cast<std::uint16_t>((second & 0xFF) << 8 | (first & 0xFF));
}

// To six places behind the point, without zeros at its end.
std::string Number(double value) {
  std::string text = Fixed(value, 6);
  text.resize(text.find_last_not_of('0') + 1);
  if (text.back() == '.') text.pop_back();
  return text;
}

// Bytes that are not UTF-8 become the character that stands for such.
std::string Quoted(std::string_view text) {
  return Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

void AppendTiming(PacketWriter& packet, const OpenTrackIoSample& sample) {
  packet.Text(R"({"mode":"internal",)");
  if (sample.rate > 0) {
    // The schema wants a ratio of whole numbers.
    const double whole = std::round(sample.rate);
    const bool isWhole = std::abs(sample.rate - whole) < 1e-6;
    packet.Text(R"("sampleRate":{"num":)");
    packet.Text(Number(isWhole ? whole : std::round(sample.rate * 1000)));
    packet.Text(isWhole ? R"(,"denom":1},)" : R"(,"denom":1000},)");
  }
  packet.Text(R"("sampleTimestamp":{"seconds":)").Text(std::to_string(sample.utcNs / kSecond));
  packet.Text(R"(,"nanoseconds":)").Text(std::to_string(sample.utcNs % kSecond));
  packet.Text(R"(},"sequenceNumber":)").Text(std::to_string(sample.sequence)).Text("}");
}

void AppendTransform(PacketWriter& packet, const OpenTrackIoSample& sample) {
  const auto& [x, y, z] = sample.position;
  packet.Text(R"({"translation":{"x":)").Text(Number(x)).Text(R"(,"y":)").Text(Number(y));
  packet.Text(R"(,"z":)").Text(Number(z)).Text(R"(},"rotation":{"pan":)").Text(Number(sample.pan));
  packet.Text(R"(,"tilt":)").Text(Number(sample.tilt)).Text(R"(,"roll":)");
  packet.Text(Number(sample.roll)).Text(R"(},"id":"Camera"})");
}

// All but the last brace. Written as text, since a tree of members for each sample takes ten times
// as long.
void AppendJson(PacketWriter& packet, const OpenTrackIoSample& sample) {
  packet.Text(R"({"protocol":{"name":"OpenTrackIO","version":[1,0,1]},"sampleId":")");
  packet.Text(sample.sampleId).Text(R"(","sourceId":")").Text(sample.sourceId);
  packet.Text(R"(","sourceNumber":)").Text(std::to_string(sample.sourceNumber));
  packet.Text(R"(,"tracker":{"status":")").Text(sample.seen ? "ok" : "lost");
  packet.Text(R"("},"timing":)");
  AppendTiming(packet, sample);
  if (sample.seen) {
    packet.Text(R"(,"transforms":[)");
    AppendTransform(packet, sample);
    packet.Text("]");
  }
  if (!sample.make.empty()) {
    packet.Text(R"(,"static":{"tracker":{"make":)").Text(Quoted(sample.make));
    packet.Text(R"(,"model":)").Text(Quoted(sample.model)).Text("}}");
  }
}

}  // namespace

void SetOpenTrackIoHeader(PacketWriter& packet, std::size_t start, std::uint16_t sequence,
                          OpenTrackIoEncoding encoding) {
  const std::size_t length = packet.size() - start - kHead;
  packet.SetU32Be(start, kMark);
  packet.SetU16Be(start + 4, static_cast<std::uint32_t>(encoding));
  packet.SetU16Be(start + 6, sequence);
  packet.SetU32Be(start + 8, 0);
  packet.SetU16Be(start + 12, kLast | static_cast<std::uint32_t>(length));
  const auto bytes = packet.bytes().subspan(start);
  packet.SetU16Be(start + kHeadBeforeSum,
                  Fletcher16(bytes.first(kHeadBeforeSum), bytes.subspan(kHead)));
}

void EncodeOpenTrackIo(PacketWriter& packet, const OpenTrackIoSample& sample,
                       OpenTrackIoEncoding encoding, std::size_t leastSize) {
  const std::size_t start = packet.size();
  packet.Zeros(kHead);
  if (encoding == OpenTrackIoEncoding::Json) {
    AppendJson(packet, sample);
    const std::size_t size = packet.size() - start + 1;
    if (size < leastSize) packet.Fill(leastSize - size, std::byte{' '});
    packet.Text("}");
  } else {
    PacketWriter text;
    AppendJson(text, sample);
    text.Text("}");
    const std::vector<std::uint8_t> cbor = Json::to_cbor(Json::parse(AsText(text.bytes())));
    packet.Bytes(std::as_bytes(std::span(cbor)));
  }
  SetOpenTrackIoHeader(packet, start, static_cast<std::uint16_t>(sample.sequence & 0xFFFF),
                       encoding);
}

std::string DescribeOpenTrackIo(std::span<const std::byte> packet) {
  constexpr const char* kDamaged = "damaged OpenTrackIO packet";
  PacketReader reader(packet);
  const bool marked = reader.U32Be() == kMark && reader.U8() == 0;
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
