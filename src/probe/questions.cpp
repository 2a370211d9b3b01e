#include "probe/questions.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <cstdio>

#include "drivers/fastrak_wire.h"
#include "drivers/gps_reports.h"

namespace kinetrel {
namespace {

using namespace std::string_view_literals;

// A USB adapter holds an answer back for up to 16 ms, and the machine may be busy.
constexpr Milliseconds kQuickAnswer{150};
constexpr Milliseconds kTextAnswer{300};
constexpr Milliseconds kSelfTest{1000};

auto Length(std::size_t length) {
  return [length](std::string_view answer) { return answer.size() >= length; };
}
bool EndsInLine(std::string_view answer) { return answer.ends_with('\n'); }

bool IsPrintable(char letter) { return letter >= ' ' && letter <= '~'; }

// What a device says of itself goes to terminals and files.
std::string Cleaned(std::string_view text) {
  std::string clean;
  for (const char letter : text) clean += IsPrintable(letter) ? letter : '?';
  const std::size_t first = clean.find_first_not_of(' ');
  if (first == std::string::npos) return {};
  return clean.substr(first, clean.find_last_not_of(' ') - first + 1);
}

unsigned ByteAt(std::string_view text, std::size_t index) {
  return static_cast<unsigned char>(text[index]);
}

// ---- Flock
// ---------------------------------------------------------------------------------------

// Parameter 15 is the model, ten letters.
std::optional<Finding> AskFlock(const Exchange& exchange) {
  constexpr std::size_t kModelLength = 10;
  std::string model;
  for (int i = 0; i < 2 && model.size() != kModelLength; ++i) {  // the first may end half a command
    model = exchange("O\x0F", kQuickAnswer, Length(kModelLength + 1));
  }
  if (model.size() != kModelLength) return std::nullopt;
  for (const char letter : model) {
    if (!IsPrintable(letter)) return std::nullopt;
  }
  Finding found{.family = Family::Flock, .model = Cleaned(model)};
  const std::string revision = exchange("O\x01", kQuickAnswer, Length(2));
  if (revision.size() == 2) {
    found.firmware =
        std::to_string(ByteAt(revision, 0)) + "." + std::to_string(ByteAt(revision, 1));
  }
  constexpr unsigned kHasReceiver = 0x20;
  const std::string birds = exchange("O\x24", kQuickAnswer, Length(14));
  if (birds.size() != 14) return found;
  for (std::size_t i = 0; i < birds.size(); ++i) {
    found.stations += (ByteAt(birds, i) & kHasReceiver) != 0 ? 1 : 0;
  }
  return found;
}

// ---- Liberty
// -------------------------------------------------------------------------------------

// The text of the line that holds `word`, after it; empty without such a line.
std::string_view After(std::string_view text, std::string_view word) {
  const std::size_t at = text.find(word);
  if (at == std::string_view::npos) return {};
  text.remove_prefix(at + word.size());
  return text.substr(0, text.find_first_of("\r\n"));
}

// The text in the answer to Ctrl-V: behind "00v  ", or behind a binary header with three counts.
std::string_view IdentityIn(std::string_view answer) {
  constexpr std::size_t kBinaryHead = 11;
  for (const std::string_view mark : {"LY"sv, "PA"sv, "LU"sv}) {
    const std::size_t at = answer.find(mark);
    if (at == std::string_view::npos || answer.size() < at + kBinaryHead) continue;
    if (answer[at + 3] == '\x16') return answer.substr(at + kBinaryHead);
  }
  const std::size_t at = answer.find("00v");
  return at == std::string_view::npos ? std::string_view()
                                      : answer.substr(std::min(at + 5, answer.size()));
}

// Two binary bytes of the four tell which stations have a sensor, or the number's upper half.
int LibertyStations(std::string_view answer) {
  const std::size_t binary = answer.find("\x15"sv);
  if (answer.starts_with("LY") || answer.starts_with("PA")) {
    if (binary != 3 || answer.size() < 12) return 0;
    return std::popcount(ByteAt(answer, 10) | ByteAt(answer, 11) << 8);
  }
  const std::string_view text = After(answer, "00u");
  const std::size_t digit = text.find_first_of("0123456789");
  std::uint32_t map = 0;
  if (digit == std::string_view::npos) return 0;
  std::from_chars(text.data() + digit, text.data() + text.size(), map);
  return std::popcount(map >> 16);
}

std::optional<Finding> AskLiberty(const Exchange& exchange) {
  exchange("\r", kQuickAnswer, EndsInLine);  // ends half a command
  const std::string answer =
      exchange("\x16\r", kTextAnswer, [](std::string_view) { return false; });
  const std::string_view text = IdentityIn(answer);
  if (text.empty()) return std::nullopt;
  Finding found{.family = Family::Liberty,
                .model = Cleaned(text.substr(0, text.find_first_of("\r\n")))};
  found.firmware = Cleaned(After(answer, "System Controller Version:"));
  found.stations =
      LibertyStations(exchange("\x15"
                               "0\r",
                               kTextAnswer, [](std::string_view) { return false; }));
  return found;
}

// ---- FASTRAK
// -------------------------------------------------------------------------------------

// Whether the answer is text from `start` on. Noise holds a status record's three marks by chance.
bool IsText(std::string_view answer, std::size_t start) {
  constexpr std::size_t kShortestStatus = 12;
  if (start > answer.size() || answer.size() - start < kShortestStatus) return false;
  return std::ranges::all_of(answer.substr(start), [](char letter) {
    return IsPrintable(letter) || letter == '\r' || letter == '\n';
  });
}

std::optional<Finding> AskFastrak(const Exchange& exchange) {
  // Version in 6 letters from 15 on, then 32 letters of identity.
  constexpr std::size_t kVersionAt = 15, kVersionLength = 6, kIdentityLength = 32;
  std::string answer = exchange("\rS", kTextAnswer, EndsInLine);
  if (answer.find("ERROR") != std::string::npos) {
    answer = exchange("S", kTextAnswer, EndsInLine);  // it had half a command of another program
  }
  const FastrakStatusRecord status = ParseFastrakStatus(answer);
  if (!status.found || !IsText(answer, answer.find('S') - 2)) return std::nullopt;
  const FastrakProduct& product = FindFastrakProduct(status.word & 0xFFFF);
  Finding found{.family = Family::Fastrak, .model = DeviceNameText(product.name)};
  const std::size_t start = answer.find('S') - 2;
  if (answer.size() > start + kVersionAt + kVersionLength) {
    found.firmware = Cleaned(std::string_view(answer).substr(start + kVersionAt, kVersionLength));
    const std::string identity = Cleaned(
        std::string_view(answer).substr(start + kVersionAt + kVersionLength, kIdentityLength));
    if (!identity.empty() && identity.find("ERROR") == std::string::npos)
      found.model += " (" + identity.substr(0, identity.find('?')) + ")";
  }
  if (product.code != kFastrakProper) return found;
  unsigned active = 0;
  const std::string list = exchange("l1\r", kTextAnswer, EndsInLine);
  if (ParseActiveStations(list, product.stations, active)) found.stations = std::popcount(active);
  return found;
}

// ---- The others
// ----------------------------------------------------------------------------------

std::optional<Finding> AskLogitech(const Exchange& exchange) {
  constexpr unsigned kNeverSet = 0xC040;  // in a self-test word
  const std::string answer = exchange("*\x05", kSelfTest, Length(3));
  if (answer.size() != 2) return std::nullopt;
  const unsigned word = ByteAt(answer, 0) | ByteAt(answer, 1) << 8;
  if (word == 0 || (word & kNeverSet) != 0) return std::nullopt;
  return Finding{.family = Family::Logitech, .stations = 1};
}

std::optional<Finding> AskGps(const Exchange& exchange) {
  const auto known = [](std::string_view answer) {
    GpsReports reports;
    for (const char byte : answer) reports.Take(static_cast<std::byte>(byte));
    return reports.TakePacketEnd() &&
           (reports.state().gpsWeek != 0 || reports.state().machineId != 0);
  };
  const std::string answer = exchange("\x10\x21\x10\x03\x10\x26\x10\x03", kTextAnswer, known);
  if (!known(answer)) return std::nullopt;
  return Finding{.family = Family::Gps};
}

// The head says nothing of itself. Two answers of the right length count.
std::optional<Finding> AskPanTilt(const Exchange& exchange) {
  constexpr std::size_t kEncoders = 12;
  for (int i = 0; i < 2; ++i) {
    if (exchange("d", kQuickAnswer, Length(kEncoders + 1)).size() != kEncoders) return std::nullopt;
  }
  return Finding{.family = Family::PanTilt, .stations = 1};
}

std::optional<Finding> AskIntertrax(const Exchange& exchange) {
  const std::string hello = exchange("c", kTextAnswer, Length(2));
  if (hello != "o") return std::nullopt;
  Finding found{.family = Family::Intertrax, .stations = 1};
  constexpr std::size_t kFields = 6;
  const std::string version =
      exchange("v\0"sv, kTextAnswer, [](std::string_view) { return false; });
  if (version.size() > kFields) {
    found.model = Cleaned(
        std::string_view(version).substr(kFields).substr(0, version.find('\0', kFields) - kFields));
  }
  return found;
}

// In the order for devices that hear all of them. The bird comes first: the S of the FASTRAK's
// question would change its rate, while its own question is half a command to the text protocols,
// which the next carriage return ends. S would also start a Logitech's stream. The d of the
// pan-tilt head switches off a FASTRAK's metal compensation, so it follows that. The c of the
// InterTrax would stay in a Liberty's buffer, so it is the last.
const std::vector<Question>& AllQuestions() {
  static const std::vector<Question> all = {
      {Family::Flock, {115200}, false, "B", AskFlock},
      {Family::Liberty, {38400, 57600, 115200}, false, "P", AskLiberty},
      {Family::Logitech, {19200}, false, "D", AskLogitech},
      {Family::Fastrak, {9600, 19200, 38400, 57600, 115200}, false, "c", AskFastrak},
      {Family::Gps, {9600}, false, "", AskGps},
      {Family::PanTilt, {9600}, false, "", AskPanTilt},
      {Family::Intertrax, {1200}, true, "", AskIntertrax},
  };
  return all;
}

constexpr unsigned kRates[] = {1200, 9600, 19200, 38400, 57600, 115200};

}  // namespace

std::vector<Step> QuestionsAt(unsigned baud) {
  std::vector<Step> steps;
  for (const Question& question : AllQuestions()) {
    steps.push_back({&question, question.raisesRts ? question.rates.back() : baud});
  }
  return steps;
}

std::vector<Step> QuestionsInOrder() {
  std::vector<Step> steps;
  for (const unsigned rate : kRates) {
    for (const Question& question : AllQuestions()) {
      if (std::ranges::find(question.rates, rate) != question.rates.end()) {
        steps.push_back({&question, rate});
      }
    }
  }
  // Opening the port may have restarted the bird, which takes seconds.
  steps.push_back({&AllQuestions().front(), AllQuestions().front().rates.back()});
  return steps;
}

}  // namespace kinetrel
