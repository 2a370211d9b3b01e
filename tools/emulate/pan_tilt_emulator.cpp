#include "emulate/pan_tilt_emulator.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

namespace kinetrel::emulate {
namespace {

// From a request to the first byte of its answer.
constexpr Moment kReplyDelay = std::chrono::milliseconds(1);

constexpr std::size_t kMostWaiting = 256;  // requests that wait for their answer
constexpr double kCountsPerDegree = 4000.0 / 360.0;
constexpr int kUnknownWords = 4;

struct RequestRow {
  char request;
  bool encoders;
  bool alternate;
  const char* what;
};
constexpr RequestRow kRequests[] = {
    {'d', true, false, "encoders"},
    {'b', true, true, "all data"},
    {'a', false, true, "alternate data"},
    {'Z', false, false, "taken, no answer"},
};

const RequestRow* FindRequest(char request) {
  for (const RequestRow& row : kRequests) {
    if (row.request == request) return &row;
  }
  return nullptr;
}

std::uint32_t Counts(double degrees) {
  return static_cast<std::uint32_t>(std::lround(degrees * kCountsPerDegree));
}

}  // namespace

WireWriter EncodePanTilt(char request, const MotionPose& pose) {
  WireWriter out;
  const RequestRow* const row = FindRequest(request);
  if (row == nullptr) return out;
  if (row->encoders) {
    for (int i = 0; i < kUnknownWords; ++i) out.U16Le(0);
    out.U16Le(Counts(-pose.azimuth)).U16Le(Counts(pose.elevation));
  }
  if (row->alternate) out.U16Le(0);
  return out;
}

PanTiltEmulator::PanTiltEmulator(PanTiltStart start, std::shared_ptr<const Motion> motion)
    : start_(start), motion_(std::move(motion)) {}

void PanTiltEmulator::PowerOn(Moment, DeviceLine&) {
  const bool first = !std::exchange(poweredBefore_, true);
  owesHalfAnswer_ = first && start_ == PanTiltStart::HalfAnswer;
}

void PanTiltEmulator::HostOpened(Moment now, DeviceLine& line) {
  if (!std::exchange(owesHalfAnswer_, false)) return;
  const WireWriter answer = EncodePanTilt('d', motion_->At(0, frame_, 0));
  line.SendReply(now, answer.bytes().subspan(answer.bytes().size() / 2));
}

void PanTiltEmulator::Receive(Moment now, std::span<const std::byte> bytes, DeviceLine& line) {
  for (const std::byte byte : bytes.first(std::min(bytes.size(), kMostWaiting))) {
    Obey(now, static_cast<char>(byte), line);
  }
}

void PanTiltEmulator::Obey(Moment now, char request, DeviceLine& line) {
  if (line.Shown()) {
    const RequestRow* const row = FindRequest(request);
    char text[64];
    std::snprintf(text, sizeof text, "%02X  %s", static_cast<unsigned>(request) & 0xFF,
                  row != nullptr ? row->what : "not understood");
    line.Say(now, text);
  }
  if (!motion_->Has(0)) return;
  const double seconds = std::chrono::duration<double>(now).count();
  const WireWriter answer = EncodePanTilt(request, motion_->At(0, frame_, seconds));
  if (answer.bytes().empty()) return;
  line.SendRecord(now + kReplyDelay, answer.bytes());
  ++frame_;
}

// ---- Options ------------------------------------------------------------------------------------

namespace {

struct StartRow {
  std::string_view option;
  PanTiltStart start;
};
constexpr StartRow kStarts[] = {
    {"idle", PanTiltStart::Idle},
    {"half-answer", PanTiltStart::HalfAnswer},
};

constexpr OptionRow kOptions[] = {
    {"--start", "STATE",
     "the state it is found in: idle (just switched on) or half-answer\n"
     "(to another program)"},
};

}  // namespace

OptionTable PanTiltOptions() { return kOptions; }

std::unique_ptr<EmulatedDevice> MakePanTilt(OptionValues& options,
                                            std::shared_ptr<const Motion> motion) {
  const PanTiltStart start = kStarts[options.Choice("--start", kStarts)].start;
  return std::make_unique<PanTiltEmulator>(start, std::move(motion));
}

}  // namespace kinetrel::emulate
