// Converts between the kernel's terminal record and the settings of a serial line.
//
// The kernel's record takes any rate; the C library's takes a list of rates only. Their headers
// cannot be included together, so do not include <termios.h> beside this header.
#pragma once

#include <asm/termbits.h>

#include "platform/serial_line.h"

namespace kinetrel {

Status ReadTerminal(int fd, termios2& terminal);

// Takes effect at once: does not wait for output and does not discard input.
Status WriteTerminal(int fd, const termios2& terminal);

// Bytes pass unchanged, without echo and without waiting for whole lines. The state of the modem
// lines is ignored. Rate, framing and handshake stay.
void MakeRaw(termios2& terminal);

// Invalid: no line can have these settings.
Status PutSettings(const LineSettings& settings, termios2& terminal);

// Everything except the modem lines, which the record does not contain.
LineSettings GetSettings(const termios2& terminal);

}  // namespace kinetrel
