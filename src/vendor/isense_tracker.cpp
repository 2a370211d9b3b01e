#include "vendor/isense_tracker.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <span>
#include <utility>

#include "platform/clock.h"
#include "vendor/substitute_settings.h"

namespace kinetrel::substitute {
namespace {

constexpr std::uint64_t kKeptRecords = 64;
constexpr int kMostStrayDatagrams = 64;  // read in one call
constexpr std::uint32_t kEuler = 1;
constexpr std::uint32_t kQuaternion = 2;
constexpr std::uint32_t kStrongest = 2;
constexpr double kHalfRadiansPerDegree = 3.14159265358979323846 / 360;

struct Model {
  std::uint32_t type;  // 1 precision, 2 InterTrax
  double rate;
  std::uint32_t stations;
};
// By model number; 0 is an unknown model.
constexpr Model kModels[] = {{0, 120, 1}, {1, 150, 4}, {1, 180, 4}, {1, 180, 4},
                             {2, 256, 1}, {2, 256, 1}, {2, 256, 1}, {2, 256, 1},
                             {1, 120, 1}, {1, 120, 1}, {1, 120, 1}, {1, 180, 1}};

std::uint32_t ModelNumber() {
  return static_cast<std::uint32_t>(NumberSetting("KINETREL_ISENSE_MODEL", 11));
}

const Model& ChosenModel() {
  const std::uint32_t number = ModelNumber();
  return number < std::size(kModels) ? kModels[number] : kModels[0];
}

double Rate() { return std::max(1.0, NumberSetting("KINETREL_ISENSE_RATE", ChosenModel().rate)); }

std::array<double, 3> AnglesOf(std::uint64_t frame, int station) {
  return {-180 + static_cast<double>(frame % 1440) / 4,
          -45 + static_cast<double>(frame / 1440 % 360) / 4,
          -90 + static_cast<double>(frame % 720) / 4 + station};
}

void WriteQuaternion(const std::array<double, 3>& degrees, float out[4]) {
  std::array<double, 3> c{}, s{};
  for (std::size_t i = 0; i < 3; ++i) {
    c[i] = std::cos(degrees[i] * kHalfRadiansPerDegree);
    s[i] = std::sin(degrees[i] * kHalfRadiansPerDegree);
  }
  out[0] = static_cast<float>(c[0] * c[1] * c[2] + s[0] * s[1] * s[2]);
  out[1] = static_cast<float>(c[0] * c[1] * s[2] - s[0] * s[1] * c[2]);
  out[2] = static_cast<float>(c[0] * s[1] * c[2] + s[0] * c[1] * s[2]);
  out[3] = static_cast<float>(s[0] * c[1] * c[2] - c[0] * s[1] * s[2]);
}

void WriteEuler(const std::array<double, 3>& degrees, float out[4]) {
  for (std::size_t i = 0; i < 3; ++i) out[i] = static_cast<float>(degrees[i]);
  out[3] = 0;
}

}  // namespace

std::optional<Tracker> Tracker::Open(std::uint32_t port) {
  Tracker tracker(port);
  if (port < kFirstUdpPort) return tracker;
  if (port > 0xFFFF) return std::nullopt;
  Result<DatagramSocket> source = DatagramSocket::Open(static_cast<std::uint16_t>(port));
  if (!source.Ok()) return std::nullopt;
  tracker.source_.emplace(std::move(*source));
  return tracker;
}

Tracker::Tracker(std::uint32_t port) : port_(port), started_(ClockTicks()) {
  for (std::uint32_t i = 0; i < kStations; ++i) {
    StationWords& station = stations_[i];
    station.id = i + 1;
    station.state = i < ChosenModel().stations ? 1 : 0;
    station.compass = 2;
    station.inertiaCube = i + 1;
    station.enhancement = kStrongest;
    station.sensitivity = 3;
    station.angleFormat = kEuler;
  }
}

void Tracker::Describe(TrackerWords& info) const {
  constexpr std::uint32_t kSerial = 1;
  constexpr std::uint32_t kUdp = 3;
  info = {};
  info.version = 1.0F;
  info.type = ChosenModel().type;
  info.model = ModelNumber();
  info.port = port_;
  info.recordsPerSecond = static_cast<std::uint32_t>(Rate());
  info.kBitsPerSecond = static_cast<float>(NumberSetting("KINETREL_ISENSE_KBITS", 115.2));
  info.interface = source_ ? kUdp : kSerial;
}

StationWords* Tracker::Station(std::uint16_t number) {
  return number >= 1 && number <= kStations ? &stations_[number - 1U] : nullptr;
}

bool Tracker::Configure(std::uint16_t number, const StationWords& wanted) {
  StationWords* const station = Station(number);
  const bool legal = wanted.enhancement <= kStrongest &&
                     (wanted.angleFormat == kEuler || wanted.angleFormat == kQuaternion);
  if (station == nullptr || !legal) return false;
  *station = wanted;
  station->id = number;
  return true;
}

// ---- Frames --------------------------------------------------------------------------------

std::uint64_t Tracker::PeriodsPassed() const {
  const auto ticks = static_cast<double>(ClockTicks() - started_);
  return static_cast<std::uint64_t>(ticks * Rate() / static_cast<double>(ClockTicksPerSecond()));
}

// Plays the faults that are due before the next frame. False while the tracker is lost.
bool Tracker::PlayDueFaults() {
  std::string_view list = Setting("KINETREL_ISENSE_FRAMES");
  for (std::uint64_t bit = 1; const auto fault = NextPlannedFault(list); bit <<= 1) {
    if (frame_ < fault->first || (faultsPlayed_ & bit) != 0) continue;
    faultsPlayed_ |= bit;
    if (fault->name == "jump") frame_ += fault->count;
    if (fault->name == "stall" || fault->name == "lost") periods_ += fault->count;
    if (fault->name == "lost") lostUntil_ = periods_;
  }
  return PeriodsPassed() >= lostUntil_;
}

bool Tracker::Answers() { return PlayDueFaults(); }

bool Tracker::Read(DataBlock& data) {
  if (!PlayDueFaults()) return false;
  for (StationBlock& station : newest_.stations) station.newData = 0;
  if (source_) {
    ReceiveRecord(newest_);
  } else if (const std::uint64_t passed = PeriodsPassed(); passed > periods_) {
    DropOldest(passed - periods_);
    Measure(newest_);
  }
  data = newest_;
  return true;
}

void Tracker::DropOldest(std::uint64_t waiting) {
  if (waiting <= kKeptRecords) return;
  frame_ += waiting - kKeptRecords;
  periods_ += waiting - kKeptRecords;
}

void Tracker::Measure(DataBlock& data) {
  for (int i = 0; i < kStations; ++i) {
    const StationWords& config = stations_[static_cast<std::size_t>(i)];
    if (config.state == 0) continue;
    StationBlock& station = data.stations[i];
    station.status = 1;
    station.newData = 1;
    const auto write = config.angleFormat == kQuaternion ? WriteQuaternion : WriteEuler;
    write(AnglesOf(frame_, i), station.orientation);
  }
  ++frame_;
  ++periods_;
}

// Any datagram may arrive; one with another size than a record is ignored.
void Tracker::ReceiveRecord(DataBlock& data) {
  std::array<std::byte, kDataSize + 1> datagram;
  for (int i = 0; i < kMostStrayDatagrams; ++i) {
    const Result<std::size_t> got = source_->Receive(datagram);
    if (!got.Ok()) return;
    if (*got != kDataSize) continue;
    std::memcpy(&data, datagram.data(), sizeof data);
    return;
  }
}

}  // namespace kinetrel::substitute
