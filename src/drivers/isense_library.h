// The InterSense library, loaded at run time, and the 20 functions of its C interface, which this
// program exports and forwards.
//
// A result is nonzero for success unless its line says otherwise. Handles and stations count
// from 1.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "drivers/isense_records.h"
#include "platform/annotations.h"
#include "platform/dynamic_library.h"
#include "platform/mutex.h"

namespace kinetrel {

// The library's functions; null when it lacks the function or is not loaded.
struct IsenseCalls {
  int (*openTracker)(void* window, std::uint32_t port, int infoScreen, int verbose) = nullptr;
  std::uint32_t (*openAllTrackers)(void* window, int* handles, int infoScreen,
                                   int verbose) = nullptr;
  int (*closeTracker)(int handle) = nullptr;
  int (*getCommInfo)(int handle, IsenseTrackerInfo* info) = nullptr;
  int (*getTrackerConfig)(int handle, IsenseTrackerInfo* info, int verbose) = nullptr;
  int (*setTrackerConfig)(int handle, IsenseTrackerInfo* info, int verbose) = nullptr;
  int (*getStationConfig)(int handle, IsenseStationInfo* info, std::uint16_t station,
                          int verbose) = nullptr;
  int (*setStationConfig)(int handle, IsenseStationInfo* info, std::uint16_t station,
                          int verbose) = nullptr;
  int (*getData)(int handle, IsenseTrackerData* data) = nullptr;
  int (*getCameraData)(int handle, void* data) = nullptr;
  int (*sendScript)(int handle, const char* script) = nullptr;
  int (*numOpenTrackers)(std::uint16_t* count) = nullptr;
  int (*resetHeading)(int handle, std::uint16_t station) = nullptr;
  int (*boresight)(int handle, std::uint16_t station, int on) = nullptr;
  int (*boresightReferenced)(int handle, std::uint16_t station, float yaw, float pitch,
                             float roll) = nullptr;
  float (*getTime)() = nullptr;
  int (*configureFromFile)(int handle, const char* path, int verbose) = nullptr;
  int (*auxOutput)(int handle, std::uint8_t station, std::uint8_t* bytes,
                   std::uint32_t count) = nullptr;
  int (*udpBroadcastData)(int handle, std::uint32_t port, IsenseTrackerData* data,
                          void* cameraData) = nullptr;
  int (*getSystemHardwareInfo)(int handle, void* info) = nullptr;
};

// The one library of the process: it counts the open trackers of all engines.
//
// Threads  any number of threads may call at once. The library stays loaded while a call is in it.
class IsenseLibrary {
 public:
  static IsenseLibrary& OfProcess();

  bool IsLoaded() const;
  bool HasCommInfo() const;  // false: not loaded, or the library lacks ISD_GetCommInfo

 private:
  friend class IsenseCall;

  IsenseLibrary() = default;

  // Loads the library unless it is loaded. A missing library is reported at each attempt, missing
  // functions only when others are missing than at the last loading.
  void Load();
  void BindAll(const DynamicLibrary& library, IsenseCalls& calls) REQUIRES(loading_);
  template <typename Function>
  Function Find(Function IsenseCalls::*call) const;

  void Enter();
  void Leave();
  void UnloadWhenUnused();
  std::optional<std::uint64_t> CallsIfLast() const;
  bool IsUnused() const;

  Mutex loading_;  // one thread loads at a time; taken before lock_
  std::string reportedMissing_ GUARDED_BY(loading_);

  mutable PriorityMutex lock_;  // guards all below, for a look
  std::optional<DynamicLibrary> module_ GUARDED_BY(lock_);
  IsenseCalls calls_ GUARDED_BY(lock_);
  int callsInside_ GUARDED_BY(lock_) = 0;
  std::uint64_t callsEver_ GUARDED_BY(lock_) = 0;
  bool unloadWanted_ GUARDED_BY(lock_) = false;
};

}  // namespace kinetrel

// A call whose function is missing returns 0. Opening a tracker loads the library first; closing
// the last tracker unloads it when no other call is in it.
extern "C" {
int ISD_OpenTracker(void* window, std::uint32_t port, int infoScreen, int verbose);
std::uint32_t ISD_OpenAllTrackers(void* window, int* handles, int infoScreen, int verbose);
int ISD_CloseTracker(int handle);
int ISD_GetCommInfo(int handle, kinetrel::IsenseTrackerInfo* info);
int ISD_GetTrackerConfig(int handle, kinetrel::IsenseTrackerInfo* info, int verbose);
int ISD_SetTrackerConfig(int handle, kinetrel::IsenseTrackerInfo* info, int verbose);
int ISD_GetStationConfig(int handle, kinetrel::IsenseStationInfo* info, std::uint16_t station,
                         int verbose);
int ISD_SetStationConfig(int handle, kinetrel::IsenseStationInfo* info, std::uint16_t station,
                         int verbose);
int ISD_GetData(int handle, kinetrel::IsenseTrackerData* data);
int ISD_GetCameraData(int handle, void* data);
int ISD_SendScript(int handle, const char* script);
int ISD_NumOpenTrackers(std::uint16_t* count);
int ISD_ResetHeading(int handle, std::uint16_t station);
int ISD_Boresight(int handle, std::uint16_t station, int on);
int ISD_BoresightReferenced(int handle, std::uint16_t station, float yaw, float pitch, float roll);
float ISD_GetTime();
int ISD_ConfigureFromFile(int handle, const char* path, int verbose);
int ISD_AuxOutput(int handle, std::uint8_t station, std::uint8_t* bytes, std::uint32_t count);
int ISD_UdpBroadcastData(int handle, std::uint32_t port, kinetrel::IsenseTrackerData* data,
                         void* cameraData);
int ISD_GetSystemHardwareInfo(int handle, void* info);
}
