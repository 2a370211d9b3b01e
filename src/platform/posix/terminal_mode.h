// Key-at-a-time mode of the terminal on standard input, and the promise that the terminal is as it
// was after every way out of the process.
//
// Threads  Start and Stop one at a time; InKeyMode any. What the signal handlers call uses nothing
//          but what a handler may.
#pragma once

#include <signal.h>

namespace kinetrel {

// Puts the terminal into key mode as soon as this process is in its foreground, takes care of the
// ways out, and returns true; false where standard input is no terminal.
bool StartKeyMode();

// Leaves the terminal and the signals as they were.
void StopKeyMode();

// Whether keys may be read now: the terminal is in key mode, which is entered here if this process
// has come to the foreground since.
bool InKeyMode();

// What the terminal holds back since Ctrl-S is shown after all: a program that was told to end must
// not wait for a person before it can.
void ReleaseHeldOutput();

// A signal handler: restores the terminal, then the signal's default action ends the process.
void EndBySignal(int number);

// Installs `handler` unless the signal is ignored or somebody else's handler is there, as that of
// a sanitizer; EndBySignal gives way.
void InstallHandler(int number, void (*handler)(int));

}  // namespace kinetrel
