// Cuts the bytes that a host sends to a FASTRAK-family unit into commands.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kinetrel::emulate {

struct FastrakCommand {
  char letter = 0;
  std::string arguments = {};  // as they came, without the end of the line
  bool known = true;           // false: an unknown letter, or a line that is too long

  // The numbers between the commas; empty if a field is not a number.
  std::optional<std::vector<double>> Numbers() const;

  std::string Shown() const;  // for people
};

// Some letters are commands by themselves; the others end with CR or LF. Of a run of unknown
// letters only the first is reported, so that the unit does not answer noise byte by byte.
class FastrakParser {
 public:
  FastrakParser(std::string_view actAtOnce, std::string_view withLine)
      : actAtOnce_(actAtOnce), withLine_(withLine) {}

  // The command that `byte` completes.
  std::optional<FastrakCommand> Feed(std::byte byte);

  void Clear() { *this = FastrakParser(actAtOnce_, withLine_); }

 private:
  std::optional<FastrakCommand> FeedLetter(char letter);
  std::optional<FastrakCommand> FeedLine(char letter);

  std::string_view actAtOnce_;
  std::string_view withLine_;
  FastrakCommand open_;  // letter 0: none
  bool unknownRun_ = false;
};

}  // namespace kinetrel::emulate
