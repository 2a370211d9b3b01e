// A line of progress: written again each second on a terminal, a new line each ten seconds in a
// log.
#pragma once

#include <string>

namespace kinetrel::report {

class ProgressLine {
 public:
  // Whether it is time for the next one.
  bool IsDue(double seconds) const;

  // A line of its own above the progress.
  void Tell(const std::string& text);

  // last  ends the line.
  void Show(double seconds, const std::string& text, bool last);

 private:
  double shown_ = 0;         // s
  std::size_t longest_ = 0;  // characters on the terminal's line
};

}  // namespace kinetrel::report
