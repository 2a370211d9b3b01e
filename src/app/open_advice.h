// Why a tracker did not open and what helps: the lines below the engine's own message.
#pragma once

#include <functional>
#include <string>

#include "engine/start_config.h"
#include "engine/tracker_engine.h"

namespace kinetrel {

// One line for a person. After a failed boot it opens the port again, listens at every rate and
// asks the configured family, at most 8 s: so it tells what was heard. No other family is asked,
// because the user named this one.
//
// stop     ends the listening early.
// Returns  empty when nothing helpful is known.
std::string AdviceAfterFailedOpen(const StartConfig& config, OpenResult failure,
                                  const std::function<bool()>& stop);

}  // namespace kinetrel
