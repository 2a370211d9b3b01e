// An InterSense library with only three of its functions.
#include <cstdint>

extern "C" {
int ISD_OpenTracker(void* window, std::uint32_t port, int infoScreen, int verbose);
int ISD_GetData(int handle, void* data);
int ISD_NumOpenTrackers(std::uint16_t* count);
}

int ISD_OpenTracker(void*, std::uint32_t port, int, int) { return port == 7 ? -3 : 5; }
int ISD_GetData(int, void*) { return 1; }

int ISD_NumOpenTrackers(std::uint16_t* count) {
  *count = 0;
  return 1;
}
