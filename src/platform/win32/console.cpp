#include "platform/console.h"

#include <windows.h>

namespace kinetrel {
namespace {

HANDLE Output() { return ::GetStdHandle(STD_OUTPUT_HANDLE); }

}  // namespace

void HoldStandardStreams() {}  // nothing that is opened takes the place of a stream here

bool StandardOutputIsTerminal() {
  DWORD mode = 0;
  return ::GetConsoleMode(Output(), &mode) != 0;
}

TerminalSize StandardOutputSize() {
  CONSOLE_SCREEN_BUFFER_INFO about{};
  TerminalSize told;
  if (!::GetConsoleScreenBufferInfo(Output(), &about)) return told;
  const int columns = about.srWindow.Right - about.srWindow.Left + 1;
  const int rows = about.srWindow.Bottom - about.srWindow.Top + 1;
  if (columns > 0) told.columns = columns;
  if (rows > 0) told.rows = rows;
  return told;
}

bool EnableTerminalSequences() {
  DWORD mode = 0;
  return ::GetConsoleMode(Output(), &mode) != 0 &&
         ::SetConsoleMode(Output(), mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

}  // namespace kinetrel
