#include "emulate/fastrak_parser.h"

#include <cstdio>
#include <utility>

#include "emulate/options.h"

namespace kinetrel::emulate {
namespace {

constexpr std::size_t kLongestLine = 254;
constexpr std::size_t kMostNumbers = 33;
constexpr double kMostNumber = 1e6;

bool IsPrintable(char letter) { return letter >= ' ' && letter <= '~'; }
bool EndsLine(char letter) { return letter == '\r' || letter == '\n'; }

void AppendShown(std::string& text, char letter) {
  if (IsPrintable(letter)) {
    text += letter;
  } else if (letter > 0 && letter < ' ') {
    text += {'^', static_cast<char>(letter + '@')};
  } else {
    char code[8];
    std::snprintf(code, sizeof code, "\\x%02X", static_cast<unsigned>(letter) & 0xFF);
    text += code;
  }
}

}  // namespace

std::optional<std::vector<double>> FastrakCommand::Numbers() const {
  std::vector<double> numbers;
  std::string_view rest = arguments;
  while (!rest.empty()) {
    const auto number = ParseNumber(NextField(rest, ','), -kMostNumber, kMostNumber);
    if (!number || numbers.size() == kMostNumbers) return std::nullopt;
    numbers.push_back(*number);
  }
  return numbers;
}

std::string FastrakCommand::Shown() const {
  std::string text;
  AppendShown(text, letter);
  for (const char argument : arguments) AppendShown(text, argument);
  return text;
}

std::optional<FastrakCommand> FastrakParser::Feed(std::byte byte) {
  const char letter = static_cast<char>(byte);
  return open_.letter == 0 ? FeedLetter(letter) : FeedLine(letter);
}

std::optional<FastrakCommand> FastrakParser::FeedLetter(char letter) {
  if (letter != 0 && actAtOnce_.find(letter) != std::string_view::npos) {
    unknownRun_ = false;
    return FastrakCommand{letter};
  }
  if (letter != 0 && withLine_.find(letter) != std::string_view::npos) {
    unknownRun_ = false;
    open_ = FastrakCommand{letter};
    return std::nullopt;
  }
  if (EndsLine(letter)) unknownRun_ = false;
  if (!IsPrintable(letter) || std::exchange(unknownRun_, true)) return std::nullopt;
  return FastrakCommand{letter, {}, false};
}

std::optional<FastrakCommand> FastrakParser::FeedLine(char letter) {
  if (EndsLine(letter)) return std::exchange(open_, {});
  // The restart command counts in the middle of a line too; otherwise half a command would block
  // it.
  if (!IsPrintable(letter) && actAtOnce_.find(letter) != std::string_view::npos) {
    open_ = {};
    return FastrakCommand{letter};
  }
  if (open_.arguments.size() < kLongestLine) {
    open_.arguments += letter;
  } else {
    open_.known = false;
  }
  return std::nullopt;
}

}  // namespace kinetrel::emulate
