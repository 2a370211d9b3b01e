// errno as a Status: the one table for this system.
#pragma once

#include "platform/status.h"

namespace kinetrel {

Status StatusFromErrno(int code, const char* what);

}  // namespace kinetrel
