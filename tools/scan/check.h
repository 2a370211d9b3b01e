// The chain from the tracker to the clients, walked link by link.
#pragma once

#include "scan/scan_options.h"

namespace kinetrel::scan {

// Prints one line for each link, and at the first broken one what to do. A tracker that a running
// Kinetrel has is left alone: its stream tells. Else the port is opened and the tracker is asked,
// as with --ask.
//
// Returns  true if no link is broken.
bool CheckChain(const CheckOptions& options);

}  // namespace kinetrel::scan
