// A manual-reset event: set until somebody resets it.
#pragma once

#include "platform/named_objects.h"

namespace kinetrel {

// The name under which the rest of the system knows the platform's event: a bin's announcement,
// and the request that ends a worker thread.
using StopEvent = Event;

}  // namespace kinetrel
