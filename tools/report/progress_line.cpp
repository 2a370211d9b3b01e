#include "report/progress_line.h"

#include <algorithm>
#include <cstdio>

#include "platform/console.h"

namespace kinetrel::report {

bool ProgressLine::IsDue(double seconds) const {
  return seconds >= shown_ + (StandardOutputIsTerminal() ? 1 : 10);
}

void ProgressLine::Tell(const std::string& text) {
  std::string line = text;
  line.resize(std::max(longest_, line.size()), ' ');  // over the progress
  std::printf("%s%s\n", longest_ > 0 ? "\r" : "", longest_ > 0 ? line.c_str() : text.c_str());
  std::fflush(stdout);
  longest_ = 0;
}

void ProgressLine::Show(double seconds, const std::string& text, bool last) {
  shown_ = seconds;
  if (!StandardOutputIsTerminal()) {
    std::printf("%s\n", text.c_str());
  } else {
    std::string line = text.substr(0, static_cast<std::size_t>(StandardOutputSize().columns) - 1);
    longest_ = std::max(longest_, line.size());
    line.resize(longest_, ' ');  // over what stood there
    std::printf("\r%s%s", line.c_str(), last ? "\n" : "");
  }
  std::fflush(stdout);
}

}  // namespace kinetrel::report
