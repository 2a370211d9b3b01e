#include "drivers/fastrak_wire.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <type_traits>

#include "devices/wire.h"

namespace kinetrel {
namespace {

// ---- Models --------------------------------------------------------------------------------

constexpr FastrakProduct kModels[] = {
    {0x201, DeviceName::Fastrak, 4, 120, FastrakProtocol::Bits32, FastrakFormat::Bits32},
    {0x203, DeviceName::Insidetrak, 2, 30, FastrakProtocol::Bits16, FastrakFormat::Bits16},
    {0x204, DeviceName::Isotrak2, 2, 60, FastrakProtocol::Bits16, FastrakFormat::Bits16},
    {0x209, DeviceName::InterSense300, 4, 150, FastrakProtocol::Bits32, FastrakFormat::Bits32},
    {0x219, DeviceName::InterSense600, 4, 150, FastrakProtocol::Bits32, FastrakFormat::Bits32},
};
constexpr FastrakProduct kIsotrak = {0,  DeviceName::Isotrak,     1,
                                     30, FastrakProtocol::Bits16, FastrakFormat::Bits16};

// ---- Values --------------------------------------------------------------------------------

// Values come in groups, one after the other; the first channel of a group gives its kind.
constexpr unsigned kPositions = 0;
constexpr unsigned kAngles = 3;
constexpr unsigned kQuaternionParts = 6;

constexpr float kSmallest = 1e-8F;
constexpr float kLargest = 360.0F;  // degrees; also beyond any range of the family in cm

// Calls `put(channel, value)` for each value, in order. The caller has checked the length of the
// body. Groups of a size known at compile time are read without further checks.
template <std::size_t Size, typename Read, typename Put>
void ForValues(unsigned components, std::span<const std::byte> body, Read read, Put put) {
  const auto group = [&]<std::size_t Count>(unsigned component, unsigned channel,
                                            std::integral_constant<std::size_t, Count>) {
    if ((components & component) == 0) return;
    WireReader wire(body.first<Size * Count>());
    for (unsigned k = 0; k < Count; ++k) put(channel + k, read(wire, channel + k));
    body = body.subspan(Size * Count);
  };
  group(kPositionComponent, kPositions, std::integral_constant<std::size_t, 3>());
  group(kEulerComponent, kAngles, std::integral_constant<std::size_t, 3>());
  group(kQuaternionComponent, kQuaternionParts, std::integral_constant<std::size_t, 4>());
}

// Whether the magnitude is between the smallest and the largest, as that of nearly every value. The
// bits of a float are ordered as its magnitude.
bool IsPlain(std::int32_t bits) {
  constexpr auto kLow = std::bit_cast<std::uint32_t>(kSmallest);
  constexpr auto kHigh = std::bit_cast<std::uint32_t>(kLargest);
  return (static_cast<std::uint32_t>(bits) & 0x7FFFFFFFU) - kLow <= kHigh - kLow;
}

float Tame(float value, int& flags) {
  if (std::fabs(value) < kSmallest) {
    flags |= kFastrakTiny;
    return 0.0F;
  }
  if (std::fabs(value) <= kLargest) return value;
  flags |= value > 0 ? kFastrakAbove : kFastrakBelow;
  return std::copysign(kLargest, value);
}

constexpr auto kReadBits = [](WireReader& wire, unsigned) { return wire.I32Le(); };
constexpr auto kReadFloat = [](WireReader& wire, unsigned) { return wire.F32Le(); };

bool AllPlain(unsigned components, std::span<const std::byte> body) {
  bool plain = true;
  ForValues<4>(components, body, kReadBits,
               [&](unsigned, std::int32_t bits) { plain = plain && IsPlain(bits); });
  return plain;
}

// The values before the first that is not a number.
int CountNumbers(unsigned components, std::span<const std::byte> body) {
  int numbers = 0;
  bool all = true;
  ForValues<4>(components, body, kReadFloat, [&](unsigned, float value) {
    all = all && !std::isnan(value);
    numbers += all ? 1 : 0;
  });
  return numbers;
}

// Stores decoded values.
struct Sink {
  unsigned components;
  const Pose& offset;
  Pose& pose;
  Quaternion& quaternion;

  void Put(unsigned channel, float value) const {
    if (channel < kQuaternionParts) {
      pose[channel] = value + offset[channel];
    } else {
      quaternion[channel - kQuaternionParts] = value;
    }
  }
  void Finish() const;
};

void Sink::Finish() const {
  constexpr float kFloatPi = 3.14159274F;  // the float next to pi, and above it
  constexpr float kHalfTurnMargin = 1e-4F;
  if ((components & kEulerComponent) != 0) {
    NormalizeEuler(&pose[3]);
    float& roll = pose[5];
    if (std::fabs(roll) >= kFloatPi) roll -= std::copysign(2.0F * kFloatPi, roll);
  }
  if ((components & kQuaternionComponent) == 0) return;
  if (std::fabs(std::fabs(offset[5]) - kFloatPi) > kHalfTurnMargin) return;
  const auto [w, x, y, z] = quaternion;
  quaternion = {-x, w, z, -y};  // times (0, 1, 0, 0): half a turn about x
}

void PutFloat(unsigned channel, float value, int units, const Sink& sink) {
  constexpr float kRadians = 0.017453292F;  // in a degree
  const float length = (units & 2) != 0 ? 0.01F : 1.0F;
  const float factor = channel < kAngles ? length : channel < kQuaternionParts ? kRadians : 1.0F;
  sink.Put(channel, value * factor);
}

// For a body with a value that is 0, too large or not a number. A function of its own, so that the
// usual record is decoded in few enough registers.
[[gnu::noinline]] int DecodeOddFloats(const FastrakLayout& layout, std::span<const std::byte> body,
                                      int units, Sink sink) {
  const int numbers = CountNumbers(layout.components, body);
  if (numbers < layout.ValueCount()) return numbers;
  int flags = 0;
  ForValues<4>(layout.components, body, kReadFloat, [&](unsigned channel, float value) {
    PutFloat(channel, Tame(value, flags), units, sink);
  });
  sink.Finish();
  return numbers | flags;
}

int DecodeFloats(const FastrakLayout& layout, std::span<const std::byte> body, int units,
                 const Sink& sink) {
  if (!AllPlain(layout.components, body)) return DecodeOddFloats(layout, body, units, sink);
  ForValues<4>(layout.components, body, kReadFloat,
               [&](unsigned channel, float value) { PutFloat(channel, value, units, sink); });
  sink.Finish();
  return layout.ValueCount();
}

template <typename ReadRaw>
int DecodeIntegers(const FastrakLayout& layout, std::span<const std::byte> body,
                   FastrakChannels& channels, const Sink& sink, ReadRaw readRaw) {
  ForValues<2>(layout.components, body, readRaw, [&](unsigned index, int raw) {
    ChannelScale& channel = channels[index];
    channel.raw = raw;
    sink.Put(index, static_cast<float>(channel.Value()));
  });
  sink.Finish();
  return layout.ValueCount();
}

constexpr auto kReadWord = [](WireReader& wire, unsigned) { return int{wire.I16Le()}; };
constexpr auto kReadPair = [](WireReader& wire, unsigned) { return int{wire.I14Pair()}; };

// ---- Replies -------------------------------------------------------------------------------

// The character at `offset`; 0 past the end.
char At(std::string_view text, std::size_t offset) {
  return offset < text.size() ? text[offset] : '\0';
}

bool IsStationDigit(char letter) { return letter >= '1' && letter <= '4'; }

bool IsBitError(char letter) { return letter >= kFirstBitError && letter <= kLastBitError; }

// Three characters of a model number as the sum of their codes.
int DigitSum(std::string_view text, std::size_t offset) {
  return At(text, offset) + At(text, offset + 1) + At(text, offset + 2);
}

bool IsIs600(std::string_view record, std::size_t name) {
  for (const std::size_t number : {name + 2, name + 6}) {
    const int sum = DigitSum(record, number);
    if (sum == '6' + '0' + '0' || sum == 241) return true;
  }
  return false;
}

// The firmware identification is at offsets 16 to 22; its form depends on the model.
std::uint32_t IdentifyModel(std::string_view record) {
  std::uint32_t model = 0;
  if (At(record, 18) == '.' || At(record, 16) == '.') {
    model = At(record, 16) == '5' ? 3U : 1U;
  } else if (At(record, 17) == '3' && At(record, 20) == '3') {
    model = 4U;
  }
  if ((model & kFastrakClass) == 0) return model;
  const std::size_t name = At(record, 22) == 'I' ? 22 : 21;
  if (At(record, name) != 'I' || At(record, name + 1) != 'S') return model;
  return model | kFastrakInterSense | (IsIs600(record, name) ? 1U << 4 : 0U);
}

// Reads a field of three characters. A blank field is 0: the text after it is another field.
int NumberAt(std::string_view text, std::size_t offset) {
  text = text.substr(std::min(offset, text.size()), 3);
  text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
  int number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

std::size_t FindRecord(std::string_view reply, char kind) {
  for (std::size_t i = 0; i + 2 < reply.size(); ++i) {
    if (reply[i] == '2' && reply[i + 2] == kind) return i;
  }
  return reply.npos;
}

std::uint32_t DiagnosisBits(std::string_view record, std::size_t start) {
  const auto digit = static_cast<unsigned char>(At(record, 5));
  return (start == 0 ? 1U << 16 : 0U) | (digit & 7U) << 17 |
         (At(record, 54) == '\n' ? 1U << 20 : 0U);
}

// ---- Built-in test errors ------------------------------------------------------------------

struct BitError {
  int first;
  int last;
  const char* text;
};
constexpr BitError kBitErrors[] = {
    {65, 65, "X Driver Linearity"},
    {66, 66, "Y Driver Linearity"},
    {67, 67, "Z Driver Linearity"},
    {68, 68, "X Gain Linearity"},
    {69, 69, "Y Gain Linearity"},
    {70, 70, "Z Gain Linearity"},
    {71, 71, "X Slope of Driver X Linearity Line"},
    {72, 72, "Y Slope of Driver Y Linearity Line"},
    {73, 73, "Z Slope of Driver Z Linearity Line"},
    {74, 74, "X Slope of Coil / Receiver X Linearity"},
    {75, 75, "Y Slope of Coil / Receiver Y Linearity"},
    {76, 76, "Z Slope of Coil / Receiver Z Linearity"},
    {84, 84, "Receiver PROM Error"},
    {85, 85, "Transmitter PROM Error"},
    {86, 86, "Receiver PROM Circuit Error"},
    {87, 87, "Transmitter PROM Circuit Error"},
    {88, 88, "Driver Characterization Validity"},
    {89, 89, "Receiver Characterization Validity"},
    {90, 90, "Receiver Coil Validity"},
    {97, 97, "X Driver Limits Self-Calibration"},
    {98, 98, "Y Driver Limits Self-Calibration"},
    {99, 99, "Z Driver Limits Self-Calibration"},
    {100, 100, "X Gain Limits Self-Calibration"},
    {101, 101, "Y Gain Limits Self-Calibration"},
    {102, 102, "Z Gain Limits Self-Calibration"},
    {103, 103, "Coil Limits Self-Calibration"},
    {104, 105, "Not Used in FASTRAK"},
    {106, 106, "A Signal Saturation"},
    {107, 107, "A Low Signal"},
    {108, 108, "A Maximum Signal Element Zero"},
    {109, 109, "EEPROM Validity Checksum Error or Data Validity Discrepancy"},
    {110, 114, "Reserved for Future Use"},
    {115, 115, "Unit Normal Position Vector Reset (P/RNorm)"},
    {116, 116, "Compensation Structure Errors."},
    {117, 117, "Compensation Point Not Within Mapped Bounds."},
    {118, 118, "No CRT Sync Signal Available"},
    {119, 119, "Write Error on Configuration EEPROM."},
    {120, 120, "Receiver Out of Motion Box."},
    {121, 121, "Euler Angles Outside Allowed Angular Envelope."},
    {122, 122, "Unused, Reserved."},
};

}  // namespace

const FastrakProduct& FindFastrakProduct(std::uint32_t code) {
  for (const FastrakProduct& model : kModels) {
    if (model.code == code) return model;
  }
  return kIsotrak;
}

// ---- Station records -----------------------------------------------------------------------

bool AreMarksInPlace(std::span<const std::byte> body) {
  constexpr std::byte kMark{0x80};
  if (body.empty()) return true;
  std::byte later{0};
  for (const std::byte byte : body.subspan(1)) later |= byte;
  return (body[0] & kMark) != std::byte{0} && (later & kMark) == std::byte{0};
}

int DecodeFastrakBody(const FastrakLayout& layout, std::span<const std::byte> body, int units,
                      FastrakChannels& channels, const Pose& offset, Pose& pose,
                      Quaternion& quaternion) {
  if (body.size() < layout.BodySize()) {
    return static_cast<int>(body.size()) / (layout.format == FastrakFormat::Bits32 ? 4 : 2);
  }
  const Sink sink{layout.components, offset, pose, quaternion};
  if (layout.format == FastrakFormat::Bits32) return DecodeFloats(layout, body, units, sink);
  if (layout.format == FastrakFormat::Bits16) {
    return DecodeIntegers(layout, body, channels, sink, kReadWord);
  }
  return DecodeIntegers(layout, body, channels, sink, kReadPair);
}

void SetFastrakScales(bool fastrakClass, int units, FastrakFormat format,
                      FastrakChannels& channels) {
  double position = fastrakClass ? 118.11023622047244 : 65.48;  // inches
  if (units != 0) position *= 2.54;
  if ((units & 2) != 0) position *= 0.01;
  const double angle = fastrakClass ? kPi : 4.0;
  const double divisor = format == FastrakFormat::Bits14 ? 8192 : 32768;
  for (unsigned i = 0; i < channels.size(); ++i) {
    const double full = i < kAngles ? position : i < kQuaternionParts ? angle : 1.0;
    channels[i].scale = full / divisor;
  }
}

// ---- Replies -------------------------------------------------------------------------------

BootResult JudgeFastrakReply(std::string_view reply) {
  for (std::size_t i = 0; i + 2 < reply.size(); ++i) {
    const char first = reply[i];
    const char third = reply[i + 2];
    if (first == '2' && (third == '*' || third == 'E')) return kBooted;
    if (first == '2' && third == 'l') {
      const int sum = DigitSum(reply, i + 3) + At(reply, i + 6);
      return sum > 4 * '0' ? kBooted : kNoSensors;
    }
    if (first == '0' && third == ' ') return kBooted;
    // A unit in binary mode with a test error pending answers with that error's code.
    if (first == '0' && IsStationDigit(reply[i + 1]) && IsBitError(third)) return kBooted;
    if (first == '\r' && reply[i + 1] == '\n') return kBooted;
  }
  return kUnknownFailure;
}

FastrakStatusRecord ParseFastrakStatus(std::string_view reply) {
  FastrakStatusRecord status;
  const std::size_t start = FindRecord(reply, 'S');
  if (start == reply.npos) return status;
  const std::string_view record = reply.substr(start);
  const std::uint32_t model = IdentifyModel(record);
  status.word = DiagnosisBits(record, start) | kFastrakParsed | model;
  status.bitError = NumberAt(record, 6);
  const bool notFastrak = (model & kFastrakClass) == 0 && At(reply, 14) == '2';
  status.fault = notFastrak ? FastrakStatusFault::NotFastrak : FastrakStatusFault::None;
  status.found = !notFastrak;
  return status;
}

bool ParseActiveStations(std::string_view reply, int stations, unsigned& active) {
  const std::size_t wanted = 3 + static_cast<std::size_t>(std::max(stations, 0));
  if (reply.size() < wanted || reply[0] != '2' || reply[2] != 'l') return false;
  active = 0;
  for (int i = 0; i < stations; ++i) {
    if (reply[3 + static_cast<std::size_t>(i)] != '0') active |= StationBit(i);
  }
  return true;
}

// ---- Built-in test errors ------------------------------------------------------------------

const char* BitErrorText(int code) {
  for (const BitError& error : kBitErrors) {
    if (code >= error.first && code <= error.last) return error.text;
  }
  return "Unknown error code.";
}

}  // namespace kinetrel
