#include "emulate/fastrak_emulator.h"

#include <algorithm>
#include <utility>

namespace kinetrel::emulate {
namespace {

constexpr std::size_t kMostUnread = 512;  // the unit's input buffer
constexpr std::byte kReset{0x19};         // Ctrl-Y

const std::vector<FastrakItem> kDefaultList = {FastrakItem::Position, FastrakItem::Euler,
                                               FastrakItem::CrLf};

bool IsErrorCode(int code) {
  return (code >= 'A' && code <= 'L') || (code >= 'T' && code <= 'Z') ||
         (code >= 'a' && code <= 'z');
}

}  // namespace

FastrakEmulator::FastrakEmulator(FastrakSettings settings, std::shared_ptr<const Motion> motion)
    : settings_(std::move(settings)),
      model_(RowOf(settings_.model)),
      motion_(std::move(motion)),
      parser_("CcPSUufFKdDtY\x19", model_.interSense ? "OlARHNyTxvebBGM" : "OlARHNyTxvebBG") {
  for (const int code : settings_.errors) RaiseError(Moment(0), code);
  SetDefaults();
}

// ---- Life ---------------------------------------------------------------------------------------

void FastrakEmulator::SetDefaults() {
  binary_ = metric_ = streaming_ = owesHalfRecord_ = false;
  positionFilter_ = attitudeFilter_ = {0.2, 0.2, 0.8, 0.95};
  pollAt_ = kNever;
  stations_.assign(model_.stations, Station{});
  for (unsigned i = 0; i < model_.stations; ++i) {
    stations_[i].items = kDefaultList;
    stations_[i].active = i < settings_.receivers;
  }
  parser_.Clear();
  unread_.clear();
}

void FastrakEmulator::SetAsLeftByHost() {
  binary_ = metric_ = true;
  for (Station& station : stations_) station.items = {FastrakItem::Position, FastrakItem::Euler};
}

void FastrakEmulator::PowerOn(Moment now, DeviceLine& line) {
  SetDefaults();
  timeZero_ = now;
  const bool lostPower = std::exchange(poweredBefore_, true);
  busyUntil_ = lostPower ? now + settings_.resetTime : now;
  if (lostPower || settings_.start == FastrakStart::Ascii) return;
  if (settings_.start == FastrakStart::HalfCommand) {
    Receive(now, AsBytes("O1,2,"), line);
    return;
  }
  SetAsLeftByHost();
  owesHalfRecord_ = settings_.start == FastrakStart::HalfRecord;
  streaming_ = settings_.start == FastrakStart::Streaming;
  RestartStream(now);
}

void FastrakEmulator::HostOpened(Moment now, DeviceLine& line) {
  if (!std::exchange(owesHalfRecord_, false)) return;
  const WireWriter record = EncodeRecord(Measure(0, now), model_);
  line.SendReply(now, record.bytes().subspan(record.bytes().size() / 2));
}

bool FastrakEmulator::RaiseError(Moment, std::optional<int> code) {
  const int error = code.value_or('A');
  if (!IsErrorCode(error)) return false;
  if (std::find(errors_.begin(), errors_.end(), error) == errors_.end()) errors_.push_back(error);
  return true;
}

void FastrakEmulator::Receive(Moment now, std::span<const std::byte> bytes, DeviceLine& line) {
  for (const std::byte byte : bytes) {
    if (now < busyUntil_) {
      // A host that is not sure repeats the reset; the second one must not begin it again.
      if (unread_.size() < kMostUnread && byte != kReset) unread_.push_back(byte);
    } else if (const auto command = parser_.Feed(byte)) {
      Obey(*command, {now, line});
    }
  }
}

// ---- Events -------------------------------------------------------------------------------------

Moment FastrakEmulator::NextEvent() const {
  const Moment ready = unread_.empty() ? kNever : busyUntil_;
  const bool sends = streaming_ && ActiveCount() > 0;
  const Moment stream = !sends ? kNever
                        : motion_->IsLive()
                            ? fresh_.Next()
                            : NthOf(streamStart_, slot_ + 1, model_.recordsPerSecond);
  return std::min({ready, stream, pollAt_});
}

void FastrakEmulator::OnEvent(Moment now, DeviceLine& line) {
  if (!unread_.empty() && now >= busyUntil_) {
    const std::vector<std::byte> bytes = std::exchange(unread_, {});
    Receive(now, bytes, line);
  } else if (now >= pollAt_) {
    AnswerPoll(now, line);
  } else if (motion_->IsLive()) {
    SendFresh(now, line);
  } else {
    SendNextOfStream(now, line);
  }
}

void FastrakEmulator::NewPoses(Moment now, std::uint32_t stations, DeviceLine& line) {
  if (!streaming_) return;
  for (unsigned i = 0; i < stations_.size(); ++i) {
    if ((stations >> i & 1) != 0 && stations_[i].active) fresh_.Add(now, 1U << i);
  }
  SendFresh(now, line);
}

// A station whose sensor was lost meanwhile sends nothing, as without a receiver.
void FastrakEmulator::SendFresh(Moment now, DeviceLine& line) {
  while (const auto index = fresh_.Take(now, line, model_.recordsPerSecond, ActiveCount())) {
    if (!motion_->Has(*index) || !stations_[*index].active) continue;
    line.SendRecord(now, EncodeRecord(Measure(*index, now), model_).bytes());
  }
}

// The frame that was being sent is over; the next one begins with the first station.
void FastrakEmulator::RestartStream(Moment now) {
  if (nextStation_ > 0) ++frame_;
  nextStation_ = 0;
  slot_ = 0;
  streamStart_ = now;
  fresh_.Clear();
}

// On a line that is too slow for all records the unit sends fewer; it never falls behind.
void FastrakEmulator::SendNextOfStream(Moment now, DeviceLine& line) {
  ++slot_;
  if (line.FreeAt() > now) return;
  const unsigned index = NextActive(nextStation_);
  const WireWriter record = EncodeRecord(Measure(index, now), model_);
  line.SendRecord(now, record.bytes());
  nextStation_ = index + 1;
  if (NextActive(nextStation_) < stations_.size()) return;
  nextStation_ = 0;
  ++frame_;
}

void FastrakEmulator::AnswerPoll(Moment now, DeviceLine& line) {
  pollAt_ = kNever;
  if (ActiveCount() == 0) return;
  for (unsigned i = NextActive(0); i < stations_.size(); i = NextActive(i + 1)) {
    if (!motion_->Has(i)) continue;
    const WireWriter record = EncodeRecord(Measure(i, now), model_);
    line.SendRecord(now, record.bytes());
  }
  ++frame_;
  nextMeasured_ = NthOf(now, 1, FramesPerSecond());
}

// ---- Measuring ----------------------------------------------------------------------------------

unsigned FastrakEmulator::ActiveCount() const {
  return static_cast<unsigned>(std::count_if(
      stations_.begin(), stations_.end(), [](const Station& station) { return station.active; }));
}

double FastrakEmulator::FramesPerSecond() const {
  return model_.recordsPerSecond / std::max(1U, ActiveCount());
}

unsigned FastrakEmulator::NextActive(unsigned from) const {
  while (from < stations_.size() && !stations_[from].active) ++from;
  return from;
}

FastrakRecord FastrakEmulator::Measure(unsigned index, Moment now) const {
  const Station& station = stations_[index];
  MotionPose pose = motion_->At(index, frame_, static_cast<double>(frame_) / FramesPerSecond());
  if (station.tip != Vector3{}) {
    const Vector3 tip = Turn(RotationOf(pose), station.tip);
    pose.x += tip[0];
    pose.y += tip[1];
    pose.z += tip[2];
  }
  // Turning by the default frame would change the last bits.
  if (station.frame != Frame{}) pose = SeenFrom(station.frame, pose);
  const char error = errors_.empty() ? ' ' : static_cast<char>(errors_.front());
  const double time = std::chrono::duration<double, std::milli>(now - timeZero_).count();
  return {index, error, pose, station.items, binary_, metric_, motion_->Buttons(index), time};
}

// ---- Options ------------------------------------------------------------------------------------

namespace {

struct StartRow {
  std::string_view option;
  FastrakStart start;
};
constexpr StartRow kStarts[] = {
    {"ascii", FastrakStart::Ascii},
    {"binary", FastrakStart::Binary},
    {"streaming", FastrakStart::Streaming},
    {"half-record", FastrakStart::HalfRecord},
    {"half-command", FastrakStart::HalfCommand},
};

constexpr OptionRow kOptions[] = {
    {"--model", "MODEL", "fastrak, insidetrak, isotrak, isotrak2, is300 or is600"},
    {"--receivers", "COUNT", "stations with a receiver plugged in (all of the model's)"},
    {"--start", "STATE",
     "the state it is found in: ascii (just switched on), binary,\n"
     "streaming, half-record or half-command (as left by another program)"},
    {"--error", "CODE", "a BIT error pending at the start, as a letter; repeatable"},
    {"--sticky-errors", "", "BIT errors come back after they are cleared"},
    {"--reset-time", "SECONDS", "silence after Ctrl-Y and after a loss of power (10)"},
};

}  // namespace

OptionTable FastrakOptions() { return kOptions; }

std::unique_ptr<EmulatedDevice> MakeFastrak(OptionValues& options,
                                            std::shared_ptr<const Motion> motion) {
  FastrakSettings settings;
  settings.model = static_cast<FastrakModel>(options.Choice("--model", FastrakModels()));
  const unsigned most = RowOf(settings.model).stations;
  const unsigned served = motion->Stations() > 0 ? std::min(motion->Stations(), most) : most;
  settings.receivers = options.Get("--receivers", served, 0U, most);
  settings.start = kStarts[options.Choice("--start", kStarts)].start;
  settings.stickyErrors = options.Has("--sticky-errors");
  settings.resetTime = NthOf(Moment(0), 1, 1 / options.Get("--reset-time", 10.0, 0.001, 3600.0));
  for (const std::string& error : options.All("--error")) {
    if (error.size() != 1 || !IsErrorCode(error[0])) {
      options.Refuse("--error: wants a letter: A to L, T to Z, a to z");
    } else {
      settings.errors.push_back(error[0]);
    }
  }
  return std::make_unique<FastrakEmulator>(std::move(settings), std::move(motion));
}

}  // namespace kinetrel::emulate
