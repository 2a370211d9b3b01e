#include "platform/console.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace kinetrel {

void HoldStandardStreams() {
  int opened = STDIN_FILENO;
  while (opened >= 0 && opened <= STDERR_FILENO) opened = ::open("/dev/null", O_RDWR);
  if (opened >= 0) ::close(opened);
}

bool StandardOutputIsTerminal() { return ::isatty(STDOUT_FILENO) != 0; }

TerminalSize StandardOutputSize() {
  winsize size{};
  TerminalSize told;
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return told;
  if (size.ws_col > 0) told.columns = size.ws_col;
  if (size.ws_row > 0) told.rows = size.ws_row;
  return told;
}

bool EnableTerminalSequences() {
  const char* const kind = std::getenv("TERM");
  return StandardOutputIsTerminal() && kind != nullptr && *kind != '\0' &&
         std::strcmp(kind, "dumb") != 0;
}

bool OutputTakesLine() {
  if (!PrintingIsOn()) return false;
  pollfd output{STDOUT_FILENO, POLLOUT, 0};
  return ::poll(&output, 1, 0) == 1 && (output.revents & POLLOUT) != 0;
}

void ShowTransient(const char* text) {
  if (!TransientIsOn() || !OutputTakesLine()) return;
  // If the output takes less, the rest is not worth a second try.
  [[maybe_unused]] const ssize_t wrote = ::write(STDOUT_FILENO, text, std::strlen(text));
}

}  // namespace kinetrel
