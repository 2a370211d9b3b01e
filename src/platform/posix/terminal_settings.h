// The kernel's terminal record, and what of it stands for a serial line.
//
// The kernel's own record takes any rate, the C library's a list of rates only. The headers of the
// two cannot be included together, so this header goes with no <termios.h>.
#pragma once

#include <asm/termbits.h>

#include "platform/serial_line.h"

namespace kinetrel {

Status ReadTerminal(int fd, termios2& terminal);

// In force at once: waits for no output and discards no input.
Status WriteTerminal(int fd, const termios2& terminal);

// Bytes pass as they are, none is echoed or waited for in lines, and no modem line has a say in
// whether the line is there. Rate, framing and handshake stay.
void MakeRaw(termios2& terminal);

// Invalid: settings that no line can have.
Status PutSettings(const LineSettings& settings, termios2& terminal);

// All but the modem lines, which the record does not tell.
LineSettings GetSettings(const termios2& terminal);

}  // namespace kinetrel
