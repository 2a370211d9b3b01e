#include "probe/line_probe.h"

#include <algorithm>
#include <utility>

#include "probe/stream_signs.h"

namespace kinetrel {
namespace {

// A GPS receiver pauses for most of a second, all others for less than 0.1 s.
constexpr unsigned kGpsBaud = 9600;
constexpr Milliseconds kGpsPause{1200};
constexpr Milliseconds kPause{300};
constexpr Milliseconds kLongestListening{1500};

constexpr std::size_t kMostHeard = 4096;  // bytes; enough for many records

constexpr unsigned kRates[] = {115200, 9600, 19200, 38400, 57600};

constexpr Milliseconds kReset{100};  // that the InterTrax needs without RTS
constexpr Milliseconds kSettle{20};  // after a change of the rate

}  // namespace

LineProbe::LineProbe(SerialLine& line, bool hasRates, std::function<bool()> stop)
    : line_(line), conversation_(line), hasRates_(hasRates), stop_(std::move(stop)) {
  const auto settings = line.Settings();
  foundBaud_ = settings.Ok() ? settings->baud : kRates[0];
  (void)line.WatchInput();
}

bool LineProbe::SetRate(unsigned baud, bool raiseRts) {
  LineSettings settings;
  settings.baud = baud;
  settings.rts = raiseRts ? ModemControl::On : ModemControl::Off;
  settings.dtr = ModemControl::On;
  const Status applied = line_.Apply(settings);
  // A rate that this adapter cannot make is left out; the others still count.
  if (!applied.Ok() && applied.error != Error::Unsupported) failure_ = applied;
  return applied.Ok();
}

// ---- Listening
// -----------------------------------------------------------------------------------

std::optional<Finding> LineProbe::ListenAt(unsigned baud) {
  if (!SetRate(baud, false)) return std::nullopt;
  SleepFor(kSettle);
  (void)line_.PurgeInput();
  const auto before = line_.FramingErrors();
  std::string bytes;
  const Deadline end(kLongestListening);
  const Milliseconds pause = baud == kGpsBaud || !hasRates_ ? kGpsPause : kPause;
  std::optional<Finding> found;
  while (!found && !end.Passed() && bytes.size() < kMostHeard &&
         conversation_.TakeBytes(bytes, std::min(pause, end.Remaining()))) {
    found = RecogniseStream(std::as_bytes(std::span(bytes)));
  }
  if (bytes.empty()) return std::nullopt;
  const auto after = line_.FramingErrors();
  const bool wrong = before.Ok() && after.Ok() && IsWrongRate(bytes.size(), *after - *before);
  heard_.push_back({baud, bytes.size(), wrong});
  if (!found || wrong) return std::nullopt;
  found->baud = baud;
  return found;
}

std::optional<Finding> LineProbe::Listen() {
  std::vector<unsigned> rates = {foundBaud_};
  for (const unsigned rate : kRates) {
    if (hasRates_ && rate != foundBaud_) rates.push_back(rate);
  }
  for (const unsigned rate : rates) {
    if (!failure().Ok() || stop_()) break;
    if (auto found = ListenAt(rate)) return found;
  }
  return std::nullopt;
}

// ---- Asking
// --------------------------------------------------------------------------------------

std::optional<Finding> LineProbe::AskOne(const Question& question, unsigned baud, bool streams) {
  if (question.raisesRts) {
    if (!SetRate(baud, false)) return std::nullopt;
    SleepFor(kReset);
  }
  if (!SetRate(baud, question.raisesRts)) return std::nullopt;
  SleepFor(kSettle);
  return conversation_.Ask(question, baud, streams);
}

std::optional<Finding> LineProbe::Ask(const std::optional<Finding>& heard,
                                      std::optional<Family> only) {
  if (heard && RowOf(heard->family).deviceType == 0) return heard;
  if (heard) only = heard->family;
  for (const auto& [question, baud] : (hasRates_ ? QuestionsInOrder() : QuestionsAt(foundBaud_))) {
    if (!failure().Ok() || stop_()) break;
    if (only && question->family != *only) continue;
    auto found = AskOne(*question, heard ? heard->baud : baud, heard.has_value());
    if (!found) continue;
    found->streams = heard.has_value();
    return found;
  }
  return heard;
}

}  // namespace kinetrel
