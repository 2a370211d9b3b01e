// The system's error numbers as this platform layer tells them.
#pragma once

#include "platform/status.h"

namespace kinetrel {

// code  of GetLastError or WSAGetLastError; 0 is success.
Status StatusFromSystem(unsigned long code, const char* what);

// The same of the calling thread's last error.
Status StatusOfLastError(const char* what);

}  // namespace kinetrel
