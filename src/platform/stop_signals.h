// The system's ways of asking a console program to end: SIGINT, SIGTERM and SIGHUP on Linux,
// console control events on Windows.
#pragma once

#include <atomic>

#include "platform/clock.h"

namespace kinetrel {

// Requests that follow the first one within this time are the same wish.
inline constexpr Milliseconds kOneStopWish{250};

// From now on the first such request is stored into `request` (nonzero, the system's number) and
// the program goes on, past output that a terminal holds back too; a second one, later than
// kOneStopWish, ends it at once, with the terminal restored. `request` must live as long as the
// process. A signal that the process was started to ignore (nohup) stays ignored, and one that
// somebody else handles stays theirs.
//
// A broken output pipe is from now on a failed write, not the end of the process.
void CatchStopSignals(std::atomic<int>& request);

}  // namespace kinetrel
