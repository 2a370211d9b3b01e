#include "emulate/device_line.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace kinetrel::emulate {
namespace {

// More than a device of the time would buffer, so that an unread line cannot grow without end.
constexpr std::size_t kMostWaiting = 16384;

// A serial port's receiver hands bytes over in groups of this size, or when no more come.
constexpr std::size_t kPiece = 8;

}  // namespace

DeviceLine::DeviceLine(LineOptions options)
    : options_(std::move(options)),
      faults_(options_.faults, options_.seed),
      random_(options_.seed + 1),
      jitter_(options_.seed + 2) {}

// ---- Sending ------------------------------------------------------------------------------------

void DeviceLine::SendRecord(Moment start, std::span<const std::byte> bytes) {
  ++records_;
  for (const Fault& fault : faults_.ForNextRecord()) {
    if (!Strike(start, fault)) foreignFaults_.push_back(fault);
  }
  std::vector<std::byte> record(bytes.begin(), bytes.end());
  Damage(record);
  const double late =
      std::clamp(3 + (options_.jitter.count() > 0 ? jitter_.Normal() : 0), 0.0, 6.0);
  const auto delay = static_cast<double>(options_.jitter.count()) * late;
  Send(start + Moment(std::llround(delay)), std::move(record));
}

void DeviceLine::SendReply(Moment start, std::span<const std::byte> bytes) {
  Send(start, {bytes.begin(), bytes.end()});
}

void DeviceLine::Send(Moment start, std::vector<std::byte> bytes) {
  if (bytes.empty() || waiting_ + bytes.size() > kMostWaiting) return;
  waiting_ += bytes.size();
  const Burst& burst =
      bursts_.emplace_back(Burst{std::max(start, freeAt_), options_.baud, std::move(bytes)});
  freeAt_ = burst.EndOf(burst.bytes.size());
}

void DeviceLine::DropWaiting() {
  bursts_.clear();
  waiting_ = 0;
  freeAt_ = Moment(0);
}

void DeviceLine::Say(Moment now, const std::string& text) const {
  if (options_.show) options_.show(now, text);
}

// ---- Leaving ------------------------------------------------------------------------------------

std::size_t DeviceLine::NextPiece(const Burst& burst) const {
  const std::size_t size = burst.bytes.size();
  return options_.whole || options_.wired ? size : std::min(size, burst.gone + kPiece);
}

Moment DeviceLine::DepartureOf(const Burst& burst) const {
  return options_.wired ? burst.start : burst.EndOf(NextPiece(burst));
}

Moment DeviceLine::NextDeparture() const {
  if (bursts_.empty()) return kNever;
  return DepartureOf(bursts_.front());
}

void DeviceLine::Take(Moment now, std::vector<std::byte>& into) {
  while (!bursts_.empty()) {
    Burst& burst = bursts_.front();
    const std::size_t end = NextPiece(burst);
    const Moment departure = DepartureOf(burst);
    if (departure > now) return;
    const auto from = burst.bytes.begin();
    if (departure >= silentUntil_) {
      into.insert(into.end(), from + static_cast<std::ptrdiff_t>(burst.gone),
                  from + static_cast<std::ptrdiff_t>(end));
    }
    waiting_ -= end - burst.gone;
    burst.gone = end;
    if (end == burst.bytes.size()) bursts_.pop_front();
  }
}

// ---- Faults -------------------------------------------------------------------------------------

bool DeviceLine::Strike(Moment now, const Fault& fault) {
  if (!StrikeBytes(now, fault)) return false;
  Say(now, "fault: " + std::string(NameOf(fault.kind)));
  return true;
}

bool DeviceLine::StrikeBytes(Moment now, const Fault& fault) {
  switch (fault.kind) {
    case FaultKind::Noise: {
      std::vector<std::byte> noise(static_cast<std::size_t>(fault.Or(8)));
      for (std::byte& byte : noise) byte = Noise();
      Send(now, std::move(noise));
      return true;
    }
    case FaultKind::Garble:
      garble_ = fault;
      return true;
    case FaultKind::Cut:
      cut_ = fault;
      return true;
    case FaultKind::Silence:
      silentUntil_ = now + Duration(fault);
      return true;
    default:
      return false;
  }
}

void DeviceLine::Damage(std::vector<std::byte>& record) {
  if (const auto garble = std::exchange(garble_, std::nullopt)) {
    for (int i = 0; i < static_cast<int>(garble->Or(1)) && !record.empty(); ++i) {
      record[random_.Below(record.size())] = Noise();
    }
  }
  if (const auto cut = std::exchange(cut_, std::nullopt)) {
    const std::size_t half = record.size() / 2;
    const auto kept = static_cast<std::size_t>(cut->Or(static_cast<double>(half)));
    record.resize(std::min(kept, record.size()));
  }
}

std::vector<Fault> DeviceLine::TakeForeignFaults() { return std::exchange(foreignFaults_, {}); }

}  // namespace kinetrel::emulate
