#include "platform/transient_output.h"

#include <poll.h>
#include <unistd.h>

#include <cstring>

namespace kinetrel {

bool OutputTakesLine() {
  pollfd output{STDOUT_FILENO, POLLOUT, 0};
  return ::poll(&output, 1, 0) == 1 && (output.revents & POLLOUT) != 0;
}

void ShowTransient(const char* text) {
  if (!OutputTakesLine()) return;
  // What does not get through is not worth a second try.
  [[maybe_unused]] const ssize_t wrote = ::write(STDOUT_FILENO, text, std::strlen(text));
}

}  // namespace kinetrel
