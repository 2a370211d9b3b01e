// Key-at-a-time mode of the terminal on standard input. The terminal is restored on every way out
// of the process.
//
// Threads  StartKeyMode and StopKeyMode one at a time; InKeyMode any. Signal handlers may call the
//          last three.
#pragma once

#include <signal.h>

namespace kinetrel {

// Puts the terminal into key mode as soon as this process is in its foreground, and prepares every
// way out. False: standard input is not a terminal.
bool StartKeyMode();

// Restores the terminal and the signal handlers.
void StopKeyMode();

// Whether keys may be read now. Enters key mode when this process has come to the foreground.
bool InKeyMode();

// Shows the output that the terminal holds back since Ctrl-S. A program that was told to end must
// not wait for a person.
void ReleaseHeldOutput();

// A signal handler: restores the terminal, then ends the process by the signal's default action.
void EndBySignal(int number);

// Installs `handler` in place of the default action or of EndBySignal. A signal that is ignored, or
// has a handler of other code (a sanitizer), keeps it.
void InstallHandler(int number, void (*handler)(int));

}  // namespace kinetrel
