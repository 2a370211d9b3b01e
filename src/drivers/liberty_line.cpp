// A Liberty on a serial port, by its own command set. Nothing is written to its permanent memory:
// it keeps what it was set to until it is switched off.
#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "drivers/liberty_wire.h"
#include "platform/serial_line.h"
#include "vendor/pdi_tracker.h"

namespace kinetrel::substitute {
namespace {

constexpr Milliseconds kAnswerTime{300};
constexpr Milliseconds kSilence{200};
constexpr Milliseconds kLongestDrain{700};
constexpr int kTries = 3;
constexpr std::uint8_t kStationsCommand = 'U' & 0x1F;
constexpr std::uint8_t kBitCommand = 'T' & 0x1F;
constexpr std::size_t kMostItems = 20;
constexpr unsigned kBitsPerByte = 10;  // on the line

std::size_t SizeOf(std::int32_t item) {
  constexpr std::size_t kSizes[] = {1, 2, 12, 12, 12, 12, 36, 16, 4, 4, 4, 4, 4};
  return item >= 0 && item < static_cast<int>(std::size(kSizes)) ? kSizes[item] : 0;
}

std::string StationText(int station) { return station < 0 ? "*" : std::to_string(station); }

// As the tracker reads it: ",1.5,0,-3".
std::string List(std::span<const float> values) {
  std::string text;
  char number[32];
  for (const float value : values) {
    std::snprintf(number, sizeof number, ",%.6g", static_cast<double>(value));
    text += number;
  }
  return text;
}

std::uint32_t WordAt(std::span<const std::uint8_t> bytes) {
  std::uint32_t word = 0;
  for (std::size_t i = 0; i < 4 && i < bytes.size(); ++i) {
    word |= static_cast<std::uint32_t>(bytes[i]) << 8 * i;
  }
  return word;
}

class SerialTracker final : public PdiTracker {
 public:
  bool Connected() override { return line_.has_value(); }

  bool Connect(int port, unsigned baud) override {
    if (!Open("COM" + std::to_string(port), baud)) return false;
    baud_ = baud;
    fitted_ = 0;
    // Found in any state: with half a command in its ear, streaming, in text.
    for (int i = 0; i < kTries && line_; ++i) {
      Send("\r");
      Quieten();
      Send("F1\r");
      const auto format = AskOnce("F\r", 'F');
      if (format && WordAt(*format) == 1) return SetUp();
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
    const auto told = Ask("O1\r", 'O');
    if (!told || told->size() < 4 * items.size()) return false;
    for (std::size_t i = 0; i < items.size(); ++i) {
      if (WordAt(std::span(*told).subspan(4 * i)) != static_cast<std::uint32_t>(items[i])) {
        return false;
      }
    }
    return true;
  }

  bool GetStations(std::uint32_t& map) override {
    const auto told =
        Ask(std::string(1, static_cast<char>(kStationsCommand)) + "0\r", kStationsCommand);
    if (!told || told->size() < 4) return false;
    map = WordAt(*told);
    active_ = map & 0xFFFF;  // above are those that are plugged
    LayOut();
    return true;
  }

  bool SetStations(std::uint32_t map) override {
    char text[32];
    std::snprintf(text, sizeof text, "%c0,%X\r", kStationsCommand, map & 0xFFFF);
    return Send(text);
  }

  int MostStations() override { return static_cast<int>(kPdiStations); }
  bool Start() override {
    FitRate();
    return Send("C\r");
  }

  bool Stop() override {
    Quieten();
    return line_.has_value();
  }

  bool Request() override { return Send("P"); }

  bool LastFrame(const std::uint8_t*& frame, std::uint32_t& size) override {
    if (!line_) return false;
    Pump();
    const auto cycle = cycles_.Take();
    frame = cycle.data();
    size = static_cast<std::uint32_t>(cycle.size());
    return !cycle.empty();
  }

  bool SetRate(int code) override {
    rate_ = code;
    return Set("R" + std::to_string(code), 'R', code);
  }
  bool GetRate(int& code) override {
    FitRate();
    const auto told = Ask("R\r", 'R');
    if (told) code = static_cast<int>(WordAt(*told));
    return told.has_value();
  }
  bool SetMetric(bool on) override { return Set(on ? "U1" : "U0", 'U', on ? 1 : 0); }
  bool SetSync(bool on) override { return Set(on ? "Z1" : "Z0", 'Z', on ? 1 : 0); }

  // The tracker adds a new alignment to the one before: that goes first.
  bool Align(int station, std::span<const float, 9> points) override {
    const std::string who = StationText(station);
    return Send(std::string(1, 'R' & 0x1F) + who + "\r") && Send("A" + who + List(points) + "\r");
  }
  bool SetHemisphere(int station, std::span<const float, 3> zenith) override {
    return Send("H" + StationText(station) + List(zenith) + "\r");
  }

  bool BitErrors(std::span<std::uint32_t> words, std::size_t& count) override {
    const auto told = Ask(std::string(1, static_cast<char>(kBitCommand)) + "\r", kBitCommand);
    if (!told) return false;
    count = std::min(words.size(), told->size() / 4);
    for (std::size_t i = 0; i < count; ++i) words[i] = WordAt(std::span(*told).subspan(4 * i));
    return true;
  }
  bool ClearBitErrors() override {
    return Send(std::string(1, static_cast<char>(kBitCommand)) + "0\r");
  }

 private:
  using Answer = std::vector<std::uint8_t>;

  bool Open(const std::string& name, unsigned baud) {
    line_.reset();
    reader_.Clear();
    answers_ = true;
    Result<SerialLine> opened = SerialLine::Open(name);
    if (!opened.Ok()) {
      Explain(SerialLine::ExplainOpenFailure(name, opened.status()));
      return false;
    }
    explained_.clear();
    line_.emplace(std::move(*opened));
    LineSettings settings;
    settings.baud = baud;
    if (!line_->Apply(settings).Ok()) line_.reset();
    return line_.has_value();
  }

  // Once: a line that has gone is tried again and again.
  void Explain(const std::string& why) {
    if (why != explained_) std::fprintf(stderr, "\n%s\n", why.c_str());
    explained_ = why;
  }

  // What Kinetrel takes for granted or, after the tracker was switched off and on, set before.
  bool SetUp() {
    Send("L*,0\r");  // else the stylus' button stops and starts the stream
    return SetMetric(true) && (rate_ == 0 || SetRate(rate_));
  }

  // Unless the program has chosen one: the highest rate that the line carries, for of a faster one
  // it would lose whole cycles.
  void FitRate() {
    constexpr std::size_t kFastest = 240;
    const std::size_t perSecond = kFastest * SizeOfCycle();
    const int code = perSecond <= baud_ / kBitsPerByte ? 4 : 3;
    if (rate_ != 0 || code == fitted_) return;
    if (Set("R" + std::to_string(code), 'R', code)) fitted_ = code;
  }

  std::size_t SizeOfCycle() const {
    std::size_t size = kPdiHeader;
    for (const std::int32_t item : items_) size += SizeOf(item);
    return size * static_cast<std::size_t>(std::popcount(active_));
  }

  // False, and the connection given up, when the line has gone.
  bool Send(const std::string& text) {
    if (!line_) return false;
    const auto sent = line_->Write(std::as_bytes(std::span(text.data(), text.size())));
    if (!sent.Ok() && sent.status().error == Error::Closed) line_.reset();
    return sent.Ok() && *sent == text.size();
  }

  // Takes what has come; an answer to `command` goes into `answer`.
  void Pump(std::uint8_t command = 0, std::optional<Answer>* answer = nullptr) {
    for (bool more = true; more;) {
      const auto room = std::as_writable_bytes(reader_.Room());
      const auto got = line_->Read(room);
      if (!got.Ok()) return line_.reset();
      more = *got == room.size();
      reader_.Took(*got);
      while (const auto frame = reader_.Next()) {
        if (frame->IsPose()) {
          cycles_.Add(*frame);
        } else if (answer != nullptr && frame->command == command) {
          answer->emplace(frame->body().begin(), frame->body().end());
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
      Pump(command, &answer);
    }
    return answer;
  }

  // One that fell silent is asked no more than once: a row of questions must not take for ever.
  std::optional<Answer> Ask(const std::string& text, std::uint8_t command) {
    std::optional<Answer> answer;
    for (int i = answers_ ? 0 : kTries - 1; i < kTries && !answer; ++i) {
      answer = AskOnce(text, command);
    }
    answers_ = answer.has_value();
    return answer;
  }

  // A setting is not answered: only asking tells whether it was taken.
  bool Set(const std::string& text, std::uint8_t command, int value) {
    if (!Send(text + "\r")) return false;
    const auto told = Ask(std::string(1, static_cast<char>(command)) + "\r", command);
    return told && WordAt(*told) == static_cast<std::uint32_t>(value);
  }

  // Ends continuous output, and waits until the last of it is here.
  void Quieten() {
    for (int i = 0; i < kTries && Send("P"); ++i) {
      if (Drain()) break;
    }
    reader_.Clear();
  }

  // False: it went on sending.
  bool Drain() {
    const Deadline end(kLongestDrain);
    while (line_ && !end.Passed()) {
      if (!line_->WaitForInput(1, kSilence).Ok()) return true;
      Pump();
    }
    return !line_;
  }

  void LayOut() {
    std::size_t size = kPdiHeader;
    std::size_t counter = 0;
    for (const std::int32_t item : items_) {
      if (item == 9) counter = size;
      size += SizeOf(item);
    }
    reader_.SetRecordSize(size);
    cycles_.SetLayout(active_, size, counter);
  }

  std::optional<SerialLine> line_;
  PdiFrameReader reader_;
  PdiCycles cycles_;
  std::vector<std::int32_t> items_;
  std::uint32_t active_ = 0;
  unsigned baud_ = 0;
  int fitted_ = 0;         // the code of the rate that was chosen here
  int rate_ = 0;           // 0: as it is found
  bool answers_ = true;    // its last question
  std::string explained_;  // why the port does not open
};

}  // namespace

std::unique_ptr<PdiTracker> MakeSerialTracker() { return std::make_unique<SerialTracker>(); }

}  // namespace kinetrel::substitute
