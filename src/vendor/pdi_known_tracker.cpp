#include "vendor/pdi_known_tracker.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "vendor/substitute_settings.h"

namespace kinetrel::substitute {
namespace {

constexpr int kMostStations = 16;
constexpr std::uint32_t kStationBits = 0xFFFF;
constexpr std::uint64_t kKeptFrames = 64;
constexpr double kCentimetresPerInch = 2.54;
constexpr double kHalfRadiansPerDegree = 3.14159265358979323846 / 360;

std::uint32_t MaskSetting(const char* variable, std::uint32_t fallback) {
  const std::string_view text = Setting(variable);
  if (text.empty()) return fallback;
  return static_cast<std::uint32_t>(std::strtoul(text.data(), nullptr, 0));
}

// Position in centimetres, angles in degrees. x and z tell the frame's number.
std::array<double, 6> PoseOf(std::uint64_t frame, int station) {
  const auto turn = static_cast<double>(frame % 360);
  return {-50 + 0.05 * static_cast<double>(frame % 2000),        10.0 * station,
          -50 + 0.05 * static_cast<double>(frame / 2000 % 2000), turn - 180,
          20 * std::sin(2 * turn * kHalfRadiansPerDegree),       std::remainder(2 * turn, 360)};
}

std::array<double, 4> QuaternionOf(const std::array<double, 6>& pose) {
  std::array<double, 3> c{}, s{};
  for (std::size_t i = 0; i < 3; ++i) {
    c[i] = std::cos(pose[i + 3] * kHalfRadiansPerDegree);
    s[i] = std::sin(pose[i + 3] * kHalfRadiansPerDegree);
  }
  return {c[0] * c[1] * c[2] + s[0] * s[1] * s[2], c[0] * c[1] * s[2] - s[0] * s[1] * c[2],
          c[0] * s[1] * c[2] + s[0] * c[1] * s[2], s[0] * c[1] * c[2] - c[0] * s[1] * s[2]};
}

// The frame that is being built. Room for the longest is reserved, so building one allocates
// nothing.
class Frame {
 public:
  Frame() { bytes_.reserve(kMostStations * 1024); }
  void Clear() { bytes_.clear(); }
  void Add(std::uint64_t value, int bytes) {  // at most 8
    for (int i = 0; i < bytes; ++i) bytes_.push_back(static_cast<std::uint8_t>(value >> 8 * i));
  }
  void AddFloat(double value) { Add(std::bit_cast<std::uint32_t>(static_cast<float>(value)), 4); }
  const std::vector<std::uint8_t>& bytes() const { return bytes_; }

 private:
  std::vector<std::uint8_t> bytes_;
};

class KnownTracker final : public LibertyTracker {
 public:
  bool Connected() override { return connected_ && !IsFaultDue("lost"); }

  bool Connect(int, unsigned) override {
    active_ = plugged_;
    frame_ = 0;
    return connected_ = true;
  }
  void Disconnect() override { connected_ = streaming_ = false; }

  bool SetItems(int, std::span<const std::int32_t> items) override {
    items_.assign(items.begin(), items.end());
    return connected_;
  }
  bool GetStations(std::uint32_t& map) override {
    map = MaskSetting("KINETREL_PDI_MAP", plugged_ << 16 | active_);
    return connected_;
  }
  bool SetStations(std::uint32_t map) override {
    active_ = map & plugged_;
    return connected_;
  }
  int MostStations() override { return kMostStations; }

  bool Start() override {
    streaming_ = connected_;
    start_ = ClockTicks();
    handedOut_ = 0;
    return connected_;
  }
  bool Stop() override {
    streaming_ = false;
    return connected_;
  }
  bool Request() override {
    asked_ = connected_ && !streaming_;
    return asked_;
  }

  bool LastFrame(const std::uint8_t*& frame, std::uint32_t& size) override {
    if (!connected_) return false;
    if (TakeDue()) Compose();
    frame = out_.bytes().data();
    size = static_cast<std::uint32_t>(out_.bytes().size());
    if (IsFaultDue("move")) frame = Moved();
    if (IsFaultDue("null")) frame = nullptr;
    if (IsFaultDue("short")) size /= 2;
    if (IsFaultDue("lie")) size = 0xFFFFFFFF;
    return true;
  }

  bool AwaitRecord(Milliseconds timeout) override {
    if (!streaming_) return asked_;
    const double next = static_cast<double>(handedOut_ + 1) / PerSecond();
    const double now =
        static_cast<double>(ClockTicks() - start_) / static_cast<double>(ClockTicksPerSecond());
    const auto left = static_cast<std::int64_t>(std::ceil((next - now) * 1000));
    SleepFor(std::clamp(Milliseconds(left), Milliseconds(0), timeout));
    return handedOut_ < Due();
  }

  bool SetRate(int code) override {
    rate_ = code == 3 ? 3 : 4;
    return connected_;
  }
  bool GetRate(int& code) override {
    code = rate_;
    return connected_;
  }
  bool SetMetric(bool on) override {
    perUnit_ = on ? 1 : kCentimetresPerInch;
    return connected_;
  }
  bool SetSync(bool) override { return connected_; }
  bool Align(int, std::span<const float, 9>) override { return connected_; }
  bool SetHemisphere(int, std::span<const float, 3>) override { return connected_; }

  bool BitErrors(std::span<std::uint32_t> words, std::size_t& count) override {
    count = std::min<std::size_t>(9, words.size());
    std::ranges::fill(words.first(count), 0U);
    if (count > 0) words[0] = bit_;
    return connected_;
  }
  bool ClearBitErrors() override {
    bit_ = 0;
    return connected_;
  }

 private:
  double PerSecond() const { return rate_ == 3 ? 120 : 240; }

  std::uint64_t Due() const {
    const double ticks = static_cast<double>(ClockTicks() - start_);
    return static_cast<std::uint64_t>(ticks / static_cast<double>(ClockTicksPerSecond()) *
                                      PerSecond());
  }

  // Faults count the periods handed out, so that they also advance while the frame stands still.
  bool IsFaultDue(std::string_view kind) const {
    std::string_view list = Setting("KINETREL_PDI_FRAMES");
    if (list.empty()) return false;
    const std::uint64_t period = kind == "lost" && streaming_ ? Due() : handedOut_;
    while (const auto fault = NextPlannedFault(list)) {
      if (fault->name == kind && fault->Covers(period)) return true;
    }
    return false;
  }

  // Returns the frame at a new address; the memory of the call before is freed.
  const std::uint8_t* Moved() {
    moved_ = std::make_unique<std::vector<std::uint8_t>>(out_.bytes());
    return moved_->data();
  }

  bool TakeDue() {
    if (!streaming_) {
      if (!std::exchange(asked_, false)) return false;
      ++handedOut_;
      ++frame_;
      return true;
    }
    const std::uint64_t due = Due();
    if (handedOut_ >= due) return false;
    const std::uint64_t step = due - handedOut_ > kKeptFrames ? due - handedOut_ : 1;
    handedOut_ += step;
    if (IsFaultDue("stall")) return false;
    frame_ += step + Jump();
    return true;
  }

  std::uint64_t Jump() const {
    std::string_view list = Setting("KINETREL_PDI_FRAMES");
    while (const auto fault = NextPlannedFault(list)) {
      if (fault->name == "jump" && fault->first == handedOut_) return fault->count;
    }
    return 0;
  }

  void Compose() {
    out_.Clear();
    for (int station = 1; station <= kMostStations; ++station) {
      if ((active_ >> (station - 1) & 1) != 0) AddRecord(station);
    }
  }

  void AddRecord(int station) {
    out_.Add(0x594C, 2);
    out_.Add(static_cast<std::uint32_t>(station), 1);
    out_.Add('C', 5);
    const auto pose = PoseOf(frame_, station);
    for (const std::int32_t item : items_) AddItem(item, pose);
  }

  void AddItem(std::int32_t item, const std::array<double, 6>& pose) {
    switch (item) {
      case 2:
      case 3:
        for (int i = 0; i < 3; ++i) out_.AddFloat(pose[static_cast<std::size_t>(i)] / perUnit_);
        break;
      case 4:
      case 5:
        for (int i = 3; i < 6; ++i) out_.AddFloat(pose[static_cast<std::size_t>(i)]);
        break;
      case 7:
        for (const double part : QuaternionOf(pose)) out_.AddFloat(part);
        break;
      default:
        out_.Add(static_cast<std::uint32_t>(frame_), 4);
    }
  }

  const std::uint32_t plugged_ = MaskSetting("KINETREL_PDI_STATIONS", 0xF) & kStationBits;
  std::uint32_t active_ = 0;
  std::uint32_t bit_ = MaskSetting("KINETREL_PDI_BIT", 0);
  std::vector<std::int32_t> items_;
  bool connected_ = false;
  bool streaming_ = false;
  bool asked_ = false;
  int rate_ = 4;
  double perUnit_ = 1;
  std::int64_t start_ = 0;
  std::uint64_t handedOut_ = 0;  // periods since the start
  std::uint64_t frame_ = 0;      // its counter
  Frame out_;
  std::unique_ptr<std::vector<std::uint8_t>> moved_;
};

}  // namespace

std::unique_ptr<LibertyTracker> MakeKnownTracker() { return std::make_unique<KnownTracker>(); }

}  // namespace kinetrel::substitute
