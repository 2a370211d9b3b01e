// Any bytes as what a scan hears on a port: as a stream, and as the answers to every question.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>

#include "probe/questions.h"
#include "probe/stream_signs.h"

namespace {

using namespace kinetrel;

void Require(bool holds) {
  if (!holds) std::abort();
}

// It goes to terminals and files.
void RequirePrintable(std::string_view text) {
  for (const char letter : text) Require(letter >= ' ' && letter <= '~');
}

void Judge(const Finding& found, bool streams) {
  constexpr int kMostStations = 32;
  Require(found.stations >= 0 && found.stations <= kMostStations && found.streams == streams);
  Require(RowOf(found.family).family == found.family);
  RequirePrintable(found.model);
  RequirePrintable(found.firmware);
}

// Answers each question with the next piece of the input: a length byte, then that many bytes.
void AnswerAll(const Question& question, std::string_view rest) {
  const auto found = question.ask([&rest](std::string_view asked, Milliseconds patience,
                                          const std::function<bool(std::string_view)>& isWhole) {
    Require(!asked.empty() && patience.count() > 0);
    std::string answer;
    if (rest.empty()) return answer;
    const std::size_t length = static_cast<unsigned char>(rest.front());
    const std::string_view piece = rest.substr(1, length);
    rest.remove_prefix(1 + piece.size());
    for (const char byte : piece) {  // as they come, until the answer is whole
      answer += byte;
      if (isWhole(answer)) break;
    }
    return answer;
  });
  if (!found) return;
  Require(found->family == question.family);
  Judge(*found, false);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span bytes(data, size);
  if (const auto found = RecogniseStream(std::as_bytes(bytes))) Judge(*found, true);
  static const auto steps = QuestionsAt(115200);
  for (const Step& step : steps) {
    AnswerAll(*step.question, {reinterpret_cast<const char*>(data), size});
  }
  return 0;
}
