#include "probe/conversation.h"

#include <algorithm>
#include <array>
#include <span>

namespace kinetrel {
namespace {

constexpr std::size_t kMostHeard = 4096;  // bytes; far more than an answer
constexpr Milliseconds kQuiet{60};        // a stream never pauses that long
constexpr Milliseconds kLongestNoise{300};

// Within an answer. A receiver hands bytes over in groups of up to 8, an adapter every 16 ms.
Milliseconds BetweenPieces(unsigned baud) {
  constexpr unsigned kBitsOfGroup = 80;
  return baud == 0 ? kQuiet : kQuiet + Milliseconds(kBitsOfGroup * 1000 / baud);
}

}  // namespace

bool Conversation::TakeBytes(std::string& into, Milliseconds atMost) {
  if (const Status waited = line_.WaitForInput(1, atMost); !waited.Ok()) {
    if (waited.error != Error::TimedOut) failure_ = waited;
    return false;
  }
  std::array<std::byte, 512> bytes;
  const auto got = line_.Read(bytes);
  if (!got.Ok()) {
    failure_ = got.status();
    return false;
  }
  for (std::size_t i = 0; i < *got; ++i) into += static_cast<char>(bytes[i]);
  return true;
}

void Conversation::AwaitSilence() {
  std::string dropped;
  for (const Deadline end(kLongestNoise); !end.Passed() && TakeBytes(dropped, kQuiet);) {
    dropped.clear();
  }
}

std::string Conversation::Converse(std::string_view text, unsigned baud, Milliseconds patience,
                                   const std::function<bool(std::string_view)>& isWhole) {
  std::string answer;
  if (!failure_.Ok()) return answer;
  (void)line_.PurgeInput();
  const auto sent = line_.Write(std::as_bytes(std::span(text.data(), text.size())));
  if (!sent.Ok() && sent.status().error != Error::TimedOut) failure_ = sent.status();
  if (!sent.Ok()) return answer;
  (void)line_.DrainOutput();
  constexpr Milliseconds kLongest{1500};
  for (const Deadline end(kLongest); !end.Passed() && answer.size() < kMostHeard;) {
    if (!TakeBytes(answer, std::min(patience, end.Remaining())) || isWhole(answer)) break;
    patience = BetweenPieces(baud);
  }
  return answer;
}

std::optional<Finding> Conversation::Ask(const Question& question, unsigned baud, bool streams) {
  if (streams && !question.stop.empty()) {
    Converse(question.stop, baud, kQuiet, [](std::string_view) { return true; });
    AwaitSilence();
  }
  auto found = question.ask([&](std::string_view text, Milliseconds patience,
                                const std::function<bool(std::string_view)>& isWhole) {
    return Converse(text, baud, patience, isWhole);
  });
  if (found) found->baud = baud;
  return found;
}

std::optional<Finding> AskWithoutRate(ByteLine& line, Family family) {
  for (const auto& [question, baud] : QuestionsAt(0)) {
    if (question->family != family) continue;
    Conversation conversation(line);
    std::string heard;
    const bool streams = conversation.TakeBytes(heard, kQuiet);
    auto found = conversation.Ask(*question, 0, streams);
    if (found) found->streams = streams;
    return found;
  }
  return std::nullopt;
}

}  // namespace kinetrel
