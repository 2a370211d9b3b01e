// What decoding a record costs over the arithmetic of its formulas: the same conversions (clamped,
// scaled, offset added) and one normalisation of angles in a plain loop. It trusts that the record
// is whole and holds numbers.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

#include "bench/harness.h"
#include "drivers/fastrak_wire.h"

namespace kinetrel::bench {
namespace {

constexpr int kCycles = 1000;
constexpr int kBlockSize = 5000;
constexpr std::size_t kRecords = 64;  // in turn, so that no answer can be kept
constexpr std::size_t kLargestBody = 40;

using Body = std::array<std::byte, kLargestBody>;

// Where either side leaves the pose; looked at in the end, so that nothing can be left out.
struct PoseRecord {
  Pose pose{};
  Quaternion quaternion{};
};

Pose offset{1, 2, 3, 0.1F, 0.2F, 0.3F};  // of the sensor; no constant, so that it is loaded

std::int16_t Raw(const std::byte* bytes) {
  std::int16_t raw;
  std::memcpy(&raw, bytes, sizeof raw);
  return raw;
}

float BareFloat(const std::byte* bytes, std::size_t i) {
  constexpr float kRadians = 0.017453292F;
  float value;
  std::memcpy(&value, bytes + 4 * i, sizeof value);
  value = std::fabs(value) < 1e-8F ? 0.0F : std::clamp(value, -360.0F, 360.0F);
  return i >= 3 && i < 6 ? value * kRadians : value;
}

float BareWord(const std::byte* bytes, std::size_t i, const FastrakChannels& channels) {
  return static_cast<float>(Raw(bytes + 2 * i) * channels[i].scale + channels[i].offset);
}

float BareHalf(const std::byte* bytes, std::size_t i, const FastrakChannels& channels) {
  const int low = std::to_integer<int>(bytes[2 * i]) & 0x7F;
  const int high = std::to_integer<int>(bytes[2 * i + 1]);
  const int raw = static_cast<std::int16_t>((high << 7 | low) << 2) >> 2;
  return static_cast<float>(raw * channels[i].scale + channels[i].offset);
}

void Store(std::size_t i, float value, PoseRecord& into) {
  if (i < 6) {
    into.pose[i] = value + offset[i];
  } else {
    into.quaternion[i - 6] = value;
  }
}

template <FastrakFormat Format>
void Bare(const std::byte* bytes, std::size_t values, const FastrakChannels& channels,
          PoseRecord& into) {
  for (std::size_t i = 0; i < values; ++i) {
    if constexpr (Format == FastrakFormat::Bits32) Store(i, BareFloat(bytes, i), into);
    if constexpr (Format == FastrakFormat::Bits16) Store(i, BareWord(bytes, i, channels), into);
    if constexpr (Format == FastrakFormat::Bits14) Store(i, BareHalf(bytes, i, channels), into);
  }
  NormalizeEuler(into.pose.data() + 3);
}

// As the driver does it with a record that has come whole.
void Decode(const FastrakLayout& layout, const Body& body, FastrakChannels& channels,
            PoseRecord& into) {
  const auto bytes = std::span<const std::byte>(body).first(layout.BodySize());
  if (!FastrakInStep(layout, bytes)) return;
  (void)DecodeFastrakBody(layout, bytes, 1, channels, offset, into.pose, into.quaternion);
}

Body MakeBody(FastrakFormat format, std::size_t seed) {
  Body body{};
  for (std::size_t i = 0; i < 10; ++i) {
    const auto value = static_cast<float>((seed * 7 + i * 13) % 80) - 40.5F;
    const auto raw = static_cast<std::int16_t>(value * 200);
    if (format == FastrakFormat::Bits32) {
      std::memcpy(&body[4 * i], &value, sizeof value);
    } else if (format == FastrakFormat::Bits16) {
      std::memcpy(&body[2 * i], &raw, sizeof raw);
    } else {
      body[2 * i] = static_cast<std::byte>((raw & 0x7F) | (i == 0 ? 0x80 : 0));
      body[2 * i + 1] = static_cast<std::byte>(raw >> 7 & 0x7F);
    }
  }
  return body;
}

template <FastrakFormat Format>
void Compare(const char* name, unsigned components, Report& report) {
  const FastrakLayout layout{Format, components};
  const auto values = static_cast<std::size_t>(layout.ValueCount());
  std::array<Body, kRecords> bodies;
  for (std::size_t i = 0; i < kRecords; ++i) bodies[i] = MakeBody(Format, i);
  FastrakChannels channels;
  SetFastrakScales(true, 1, Format, channels);
  PoseRecord bare;
  PoseRecord decoded;
  std::size_t next = 0;
  const auto body = [&]() -> const Body& { return bodies[++next % kRecords]; };
  const std::vector<Paired> time = Interleave(
      kCycles, TimedBlock(kBlockSize, [&] { Bare<Format>(body().data(), values, channels, bare); }),
      TimedBlock(kBlockSize, [&] { Decode(layout, body(), channels, decoded); }));
  report.Ratio(name, time[0], "ns", 2);
  if (!std::isfinite(bare.pose[3]) || !std::isfinite(decoded.pose[3])) report.Note("no pose");
}

void Records(Report& report) {
  constexpr unsigned kPose = kPositionComponent | kEulerComponent;
  constexpr unsigned kAll = kPose | kQuaternionComponent;
  Compare<FastrakFormat::Bits32>("a FASTRAK record of floats", kPose, report);
  Compare<FastrakFormat::Bits32>("the same with quaternion", kAll, report);
  Compare<FastrakFormat::Bits16>("a FASTRAK record of 16 bits", kPose, report);
  Compare<FastrakFormat::Bits16>("the same with quaternion", kAll, report);
  Compare<FastrakFormat::Bits14>("a FASTRAK record of 14 bits", kPose, report);
  Compare<FastrakFormat::Bits14>("the same with quaternion", kAll, report);
}

}  // namespace
}  // namespace kinetrel::bench

int main() { return kinetrel::bench::RunBenchmark("bench-decode", kinetrel::bench::Records); }
