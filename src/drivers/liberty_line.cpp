#include "drivers/liberty_line.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "drivers/liberty_frame.h"
#include "drivers/liberty_wire.h"
#include "platform/clock.h"
#include "platform/console.h"
#include "platform/serial_line.h"

namespace kinetrel {
namespace {

constexpr Milliseconds kAnswerTime{300};
constexpr Milliseconds kSilence{200};
constexpr Milliseconds kLongestDrain{700};
constexpr int kTries = 3;
constexpr std::int64_t kLookPeriod = 3000;  // ms between two looks for sensors that came back
constexpr std::uint8_t kStationsCommand = 'U' & 0x1F;
constexpr std::uint8_t kBitCommand = 'T' & 0x1F;
constexpr std::uint8_t kWhoCommand = 'V' & 0x1F;
constexpr std::size_t kWhoText = 3;     // after the counts of sensors, which change
constexpr std::size_t kSerialText = 4;  // after the number of the kind
constexpr unsigned kPatriotStations = 2;
constexpr int kPatriotRate = 1;
constexpr std::size_t kMostItems = 20;
constexpr unsigned kBitsPerByte = 10;  // on the line

std::string StationText(int station) { return station < 0 ? "*" : std::to_string(station); }

// The form that the tracker reads: ",1.5,0,-3".
std::string ListText(std::span<const float> values) {
  std::string text;
  char number[32];
  for (const float value : values) {
    std::snprintf(number, sizeof number, ",%.6g", static_cast<double>(value));
    text += number;
  }
  return text;
}

std::int64_t NowMs() { return ClockTicks() / (ClockTicksPerSecond() / 1000); }

std::uint32_t WordAt(std::span<const std::uint8_t> bytes) {
  std::uint32_t word = 0;
  for (std::size_t i = 0; i < 4 && i < bytes.size(); ++i) {
    word |= static_cast<std::uint32_t>(bytes[i]) << 8 * i;
  }
  return word;
}

bool IsError(const LibertyFrame& frame) { return frame.error != 0 && frame.error != ' '; }

LibertyConnection OpenSerial(int port, unsigned baud, std::string& why) {
  const std::string name = "COM" + std::to_string(port);
  Result<SerialLine> opened = SerialLine::Open(name);
  if (!opened.Ok()) {
    why = SerialLine::ExplainOpenFailure(name, opened.status());
    return {};
  }
  LineSettings settings;
  settings.baud = baud;
  if (!opened->Apply(settings).Ok()) return {};
  return {.line = std::make_unique<SerialLine>(std::move(*opened)),
          .perSecond = baud / kBitsPerByte};
}

class LineLiberty final : public LibertyTracker {
 public:
  explicit LineLiberty(LibertyOpener opener) : opener_(std::move(opener)) {}

  bool Connected() override { return line_ != nullptr; }

  bool Connect(int port, unsigned baud) override {
    if (!Open(port, baud)) return false;
    fitted_ = 0;
    // It may have half a command in its buffer, may be streaming, and may answer in text.
    for (int i = 0; i < kTries && line_; ++i) {
      Send("\r");
      Quieten();
      Send("F1\r");
      const auto format = AskOnce("F\r", 'F');
      if (format && WordAt(*format) == 1 && line_) {
        if (IsSameUnit() && SetUp()) return true;
        break;
      }
    }
    line_.reset();
    return false;
  }

  void Disconnect() override {
    if (line_) Stop();
    line_.reset();
  }

  bool SetItems(int station, std::span<const std::int32_t> items) override {
    if (items.size() > kMostItems) return false;
    std::string text = "O" + StationText(station);
    for (const std::int32_t item : items) text += "," + std::to_string(item);
    items_.assign(items.begin(), items.end());
    LayOut();
    if (!Send(text + "\r")) return false;
    const auto answer = Ask("O1\r", 'O');
    if (!answer || answer->size() < 4 * items.size()) return false;
    for (std::size_t i = 0; i < items.size(); ++i) {
      if (WordAt(std::span(*answer).subspan(4 * i)) != static_cast<std::uint32_t>(items[i])) {
        return false;
      }
    }
    return true;
  }

  bool GetStations(std::uint32_t& map) override {
    const auto answer = Ask(std::string(1, kStationsCommand) + "0\r", kStationsCommand);
    if (!answer || answer->size() < 4) return false;
    map = WordAt(*answer);
    active_ = map & 0xFFFF;  // the upper half holds the stations that have a sensor
    if (wanted_ == 0) wanted_ = active_;
    LayOut();
    return true;
  }

  bool SetStations(std::uint32_t map) override {
    wanted_ = map & 0xFFFF;
    return Activate(wanted_);
  }

  int MostStations() override {
    return static_cast<int>(found_.isPatriot ? kPatriotStations : kLibertyStations);
  }

  // What came before may be in other units, and the answer to an earlier request is late.
  bool Start() override {
    FitRate();
    cycles_.DropAll();
    return Send("C\r");
  }

  bool Stop() override {
    Quieten();
    return line_ != nullptr;
  }

  bool Request() override {
    if (!line_) return false;
    ReadArrived();
    cycles_.DropAll();
    return Send("P");
  }

  bool LastFrame(const std::uint8_t*& frame, std::uint32_t& size) override {
    if (!line_) return false;
    if (!std::exchange(looked_, false)) ReadArrived();
    if (!line_) return false;
    LookForReturns();
    const auto cycle = cycles_.Take(readAt_);
    frame = cycle.data();
    size = static_cast<std::uint32_t>(cycle.size());
    return !cycle.empty();
  }

  bool NextRecord(const std::uint8_t*& record, std::uint32_t& size) override {
    auto next = cycles_.NextRecord();
    if (next.empty() && line_ && !std::exchange(looked_, true)) {
      ReadArrived();
      next = cycles_.NextRecord();
    }
    record = next.data();
    size = static_cast<std::uint32_t>(next.size());
    return !next.empty();
  }

  bool AwaitRecord(Milliseconds timeout) override {
    if (!line_) return false;
    if (cycles_.HasClosed()) return true;
    looked_ = false;
    return line_->WaitForInput(reader_.Missing(), timeout).Ok();
  }

  bool SetRate(int code) override {
    if (found_.isPatriot) return code == kPatriotRate;
    rate_ = code;
    return SetChecked("R" + std::to_string(code), 'R', code);
  }
  bool GetRate(int& code) override {
    if (found_.isPatriot) {
      code = kPatriotRate;
      return true;
    }
    FitRate();
    const auto answer = Ask("R\r", 'R');
    if (answer) code = static_cast<int>(WordAt(*answer));
    return answer.has_value();
  }
  bool SetMetric(bool on) override { return SetChecked(on ? "U1" : "U0", 'U', on ? 1 : 0); }
  bool SetSync(bool on) override {
    if (found_.isPatriot) return !on;
    return SetChecked(on ? "Z1" : "Z0", 'Z', on ? 1 : 0);
  }

  // The tracker adds a new alignment to the old one, so the old one is removed first.
  bool Align(int station, std::span<const float, 9> points) override {
    const std::string who = StationText(station);
    return Send(std::string(1, 'R' & 0x1F) + who + "\r") &&
           Send("A" + who + ListText(points) + "\r");
  }
  bool SetHemisphere(int station, std::span<const float, 3> zenith) override {
    return Send("H" + StationText(station) + ListText(zenith) + "\r");
  }

  bool BitErrors(std::span<std::uint32_t> words, std::size_t& count) override {
    const auto answer = Ask(std::string(1, kBitCommand) + "\r", kBitCommand);
    if (!answer) return false;
    count = std::min(words.size(), answer->size() / 4);
    for (std::size_t i = 0; i < count; ++i) words[i] = WordAt(std::span(*answer).subspan(4 * i));
    return true;
  }
  bool ClearBitErrors() override { return Send(std::string(1, kBitCommand) + "0\r"); }

  std::string Description() override { return found_.name.empty() ? "done" : found_.name; }

 private:
  using Answer = std::vector<std::uint8_t>;

  bool Open(int port, unsigned baud) {
    line_.reset();
    reader_.Clear();
    answers_ = true;
    std::string why;
    found_ = opener_(port, baud, why);
    line_ = std::move(found_.line);
    if (line_) {
      printed_.clear();
    } else if (!why.empty()) {
      PrintOnce(why);
    }
    return line_ != nullptr;
  }

  // What a unit says of itself stays the same: its text, and at least one of the serial numbers of
  // its stations. A unit that says nothing is believed.
  bool IsSameUnit() {
    const auto answer = AskOnce(std::string(1, kWhoCommand) + "\r", kWhoCommand);
    if (!answer || answer->size() <= kWhoText) return line_ != nullptr;
    const Answer text(answer->begin() + kWhoText, answer->end());
    std::vector<Answer> serials = AskSerials();
    if (!line_) return false;
    const bool sameText = unit_.empty() || unit_ == text;
    const bool sameParts = serials_.empty() || serials.empty() ||
                           std::ranges::find_first_of(serials_, serials) != serials_.end();
    if (sameText && sameParts) {
      unit_ = text;
      if (!serials.empty()) serials_ = std::move(serials);
      return true;
    }
    PrintOnce("Another tracker answers on " +
              (found_.name.empty() ? std::string("the line") : found_.name) +
              "; it is left alone. To use it, start Kinetrel anew.");
    return false;
  }

  // What is at each station, as far as the unit tells. Ends at the first question without answer.
  std::vector<Answer> AskSerials() {
    std::vector<Answer> serials;
    for (int station = 1; station <= MostStations(); ++station) {
      const auto answer =
          AskOnce(static_cast<char>(kWhoCommand) + std::to_string(station) + "\r", kWhoCommand);
      if (!answer) break;
      // A number, then a text. An error has no body here.
      if (answer->size() > kSerialText) serials.push_back(*answer);
    }
    return serials;
  }

  // A line that has gone is tried again and again; the reason is printed only when it changes.
  void PrintOnce(const std::string& why) {
    if (why != printed_) PrintError("\n%s\n", why.c_str());
    printed_ = why;
  }

  // Restores the settings that Kinetrel relies on, and those made before the tracker was switched
  // off and on.
  bool SetUp() {
    Send("L*,0\r");                     // otherwise the stylus' button stops and starts the stream
    if (found_.hasFifo) Send("@B0\r");  // the newest frame, not one that waited
    return SetMetric(true) && (rate_ == 0 || SetRate(rate_));
  }

  // Without a rate from the program, sets the highest one that the line carries. At a higher rate
  // the tracker would drop whole cycles.
  void FitRate() {
    constexpr std::size_t kFastest = 240;
    const int code = kFastest * SizeOfCycle() <= found_.perSecond ? 4 : 3;
    if (found_.isPatriot || rate_ != 0 || code == fitted_) return;
    if (SetChecked("R" + std::to_string(code), 'R', code)) fitted_ = code;
  }

  std::size_t SizeOfCycle() const {
    return LibertyLayoutOf(items_).recordSize * static_cast<std::size_t>(std::popcount(active_));
  }

  bool Activate(std::uint32_t stations) {
    char text[32];
    std::snprintf(text, sizeof text, "%c0,%X\r", kStationsCommand, stations);
    return Send(text);
  }

  // A sensor may be plugged in again at any time, but the tracker does not make its station active.
  // The answer to the question comes among the poses.
  void LookForReturns() {
    if (returning_ != 0) Activate(std::exchange(returning_, 0));
    const std::int64_t now = NowMs();
    if (now < nextLook_ || cycles_.Missing(now) == 0) return;
    nextLook_ = now + kLookPeriod;
    Send(std::string(1, kStationsCommand) + "0\r");
  }

  void NoteStations(std::span<const std::uint8_t> answer) {
    if (answer.size() < 4) return;
    const std::uint32_t map = WordAt(answer);
    const std::uint32_t back = wanted_ & map >> 16 & ~map;
    returning_ = back != 0 ? (map & 0xFFFF) | back : 0;
  }

  // False when the tracker did not take the text. A line that has gone is closed.
  bool Send(const std::string& text) {
    if (!line_) return false;
    const auto sent = line_->Write(std::as_bytes(std::span(text.data(), text.size())));
    if (!sent.Ok() && sent.status().error == Error::Closed) line_.reset();
    return sent.Ok() && *sent == text.size();
  }

  // Reads what has arrived: poses go to the cycles, the answer to `command` into `answer`.
  void ReadArrived(std::uint8_t command = 0, std::optional<Answer>* answer = nullptr) {
    readAt_ = NowMs();
    for (bool more = true; more;) {
      const auto room = std::as_writable_bytes(reader_.Room());
      const auto got = line_->Read(room);
      if (!got.Ok()) return line_.reset();
      more = *got == room.size();
      reader_.Took(*got);
      while (const auto frame = reader_.Next()) {
        if (frame->IsPose()) {
          cycles_.Add(*frame, NowMs());
        } else if (answer != nullptr && frame->command == command) {
          // The body of an error is a text.
          answer->emplace();
          if (!IsError(*frame)) (*answer)->assign(frame->body().begin(), frame->body().end());
        } else if (frame->command == kStationsCommand) {
          NoteStations(frame->body());
        }
      }
    }
  }

  std::optional<Answer> AskOnce(const std::string& text, std::uint8_t command) {
    std::optional<Answer> answer;
    if (!Send(text)) return answer;
    const Deadline end(kAnswerTime);
    while (!answer && !end.Passed() && line_) {
      (void)line_->WaitForInput(1, end.Remaining());
      ReadArrived(command, &answer);
    }
    return answer;
  }

  // A tracker that did not answer the last question is asked only once, so that many questions to
  // a silent tracker take a bounded time.
  std::optional<Answer> Ask(const std::string& text, std::uint8_t command) {
    std::optional<Answer> answer;
    for (int i = answers_ ? 0 : kTries - 1; i < kTries && !answer; ++i) {
      answer = AskOnce(text, command);
    }
    answers_ = answer.has_value();
    return answer;
  }

  // The tracker does not answer a setting, so its value is read back.
  bool SetChecked(const std::string& text, std::uint8_t command, int value) {
    if (!Send(text + "\r")) return false;
    const auto answer = Ask(std::string(1, static_cast<char>(command)) + "\r", command);
    return answer && answer->size() >= 4 && WordAt(*answer) == static_cast<std::uint32_t>(value);
  }

  // Ends continuous output and reads until the tracker is silent.
  void Quieten() {
    for (int i = 0; i < kTries && Send("P"); ++i) {
      if (ReadUntilSilent()) break;
    }
    reader_.Clear();
  }

  // False when the tracker did not stop sending.
  bool ReadUntilSilent() {
    const Deadline end(kLongestDrain);
    while (line_ && !end.Passed()) {
      if (!line_->WaitForInput(1, kSilence).Ok()) return true;
      ReadArrived();
    }
    return !line_;
  }

  void LayOut() {
    const LibertyLayout layout = LibertyLayoutOf(items_);
    reader_.SetRecordSize(layout.recordSize);
    cycles_.SetLayout(layout.recordSize, layout.frameCount);
    cycles_.SetStations(wanted_, NowMs());
    const std::size_t perSecond = std::max<std::size_t>(found_.perSecond, 1);
    cycles_.SetLineTime(static_cast<std::int64_t>(1000 * SizeOfCycle() / perSecond));
  }

  const LibertyOpener opener_;
  LibertyConnection found_;  // without its line
  std::unique_ptr<ByteLine> line_;
  Answer unit_;                  // the text that the first unit gave about itself
  std::vector<Answer> serials_;  // of its stations, when it was last connected
  LibertyFrameReader reader_;
  LibertyCycles cycles_;
  std::vector<std::int32_t> items_;
  std::uint32_t active_ = 0;     // as the tracker reported
  std::uint32_t wanted_ = 0;     // as the program asked for; unplugged sensors are waited for
  std::uint32_t returning_ = 0;  // to be made active, with those that are; 0: none
  std::int64_t nextLook_ = 0;    // ms
  // ms, when all that had arrived was read. A thread that is held up after that may find records
  // waiting that are not late.
  std::int64_t readAt_ = 0;
  int fitted_ = 0;       // the code of the rate that FitRate set
  int rate_ = 0;         // the code that the program set; 0: none
  bool answers_ = true;  // the last question was answered
  bool looked_ = false;  // at the line, for the records of the next frame
  std::string printed_;  // the reason that was printed last
};

}  // namespace

std::unique_ptr<LibertyTracker> MakeLineLiberty(LibertyOpener opener) {
  return std::make_unique<LineLiberty>(std::move(opener));
}

std::unique_ptr<LibertyTracker> MakeSerialLiberty() { return MakeLineLiberty(OpenSerial); }

}  // namespace kinetrel
