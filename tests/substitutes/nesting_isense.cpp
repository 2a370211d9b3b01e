// A library that uses its own functions, as any may: in the middle of a call it opens and closes a
// tracker, after which none is open. Some of these calls go to whatever the process has under that
// name first, which is what an interposed call is.
#include <dlfcn.h>

#include <cstdint>

extern "C" {
int ISD_OpenTracker(void* window, std::uint32_t port, int infoScreen, int verbose);
int ISD_CloseTracker(int handle);
int ISD_NumOpenTrackers(std::uint16_t* count);
int ISD_GetCommInfo(int handle, void* info);
int ISD_GetData(int handle, void* data);
}

namespace {
int openTrackers = 0;
}

int ISD_OpenTracker(void*, std::uint32_t, int, int) { return ++openTrackers; }

int ISD_CloseTracker(int) { return openTrackers > 0 ? openTrackers-- : 0; }

int ISD_NumOpenTrackers(std::uint16_t* count) {
  *count = static_cast<std::uint16_t>(openTrackers);
  return 1;
}

// By its own name. Closes all, says how many there were.
int ISD_GetCommInfo(int, void*) {
  const int open = ISD_OpenTracker(nullptr, 0, 0, 0);
  while (ISD_CloseTracker(0) != 0) {
  }
  return open;
}

// The same through the process's name for it.
int ISD_GetData(int, void*) {
  const auto close = reinterpret_cast<int (*)(int)>(::dlsym(RTLD_DEFAULT, "ISD_CloseTracker"));
  int closed = 0;
  while (close(0) != 0) ++closed;
  return closed;
}
