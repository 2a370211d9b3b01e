// An InterSense library that calls its own functions: during a call it opens and closes a tracker,
// so that no tracker is open. Some of these calls use the process's function of that name, as an
// interposed call does.
#include <dlfcn.h>

#include <cstdint>
#include <cstdio>

extern "C" {
int ISD_OpenTracker(void* window, std::uint32_t port, int infoScreen, int verbose);
int ISD_CloseTracker(int handle);
int ISD_NumOpenTrackers(std::uint16_t* count);
int ISD_GetCommInfo(int handle, void* info);
int ISD_GetTrackerConfig(int handle, void* info, int verbose);
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

// Calls its own functions. Closes all trackers and returns how many were open.
int ISD_GetCommInfo(int, void*) {
  const int open = ISD_OpenTracker(nullptr, 0, 0, 0);
  while (ISD_CloseTracker(0) != 0) {
  }
  return open;
}

// The same through the process's function of that name.
int ISD_GetData(int, void*) {
  const auto close = reinterpret_cast<int (*)(int)>(::dlsym(RTLD_DEFAULT, "ISD_CloseTracker"));
  int closed = 0;
  while (close(0) != 0) ++closed;
  return closed;
}

// Prints how many of the functions the program exports.
int ISD_GetTrackerConfig(int, void*, int) {
  static constexpr const char* kNames[] = {
      "OpenTracker",       "OpenAllTrackers",  "CloseTracker",        "GetCommInfo",
      "GetTrackerConfig",  "SetTrackerConfig", "GetStationConfig",    "SetStationConfig",
      "GetData",           "GetCameraData",    "SendScript",          "NumOpenTrackers",
      "ResetHeading",      "Boresight",        "BoresightReferenced", "GetTime",
      "ConfigureFromFile", "AuxOutput",        "UdpBroadcastData",    "GetSystemHardwareInfo"};
  int there = 0;
  for (const char* const name : kNames) {
    char whole[64];
    std::snprintf(whole, sizeof whole, "ISD_%s", name);
    if (::dlsym(RTLD_DEFAULT, whole) != nullptr) ++there;
  }
  std::fprintf(stderr, "the program has %d of them\n", there);
  return 0;
}
