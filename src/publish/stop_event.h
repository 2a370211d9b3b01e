// The event that a bin's publications set, and that asks a worker thread to stop.
#pragma once

#include "platform/named_objects.h"

namespace kinetrel {

// Set until a process resets it.
using StopEvent = Event;

}  // namespace kinetrel
