// The operator's hand on a running engine.
#pragma once

#include <atomic>

namespace kinetrel {

class TrackerEngine;

// Waits for the sampling thread to end, acting on one key per 500 ms: Ctrl-A zeroes the azimuth,
// A restores it, ESC stops. `stopRequest` nonzero stops as ESC does. Returns when sampling is over.
void RunConsoleLoop(TrackerEngine& engine, const std::atomic<int>& stopRequest);

}  // namespace kinetrel
