#include "drivers/isense_library.h"

#include <cstdio>
#include <string>

namespace kinetrel {
namespace {

constexpr const char* kLibraryName = "isense.dll";

// How many of our functions this thread is in. A library that calls its own function may reach ours
// of the same name. We forward such a call, but do not load or unload the library during it.
thread_local int callDepth = 0;

// Ends the recursion when the functions that were looked up lead back to ours.
constexpr int kDeepest = 16;

class InsideCall {
 public:
  InsideCall() { ++callDepth; }
  ~InsideCall() { --callDepth; }
  InsideCall(const InsideCall&) = delete;
  InsideCall& operator=(const InsideCall&) = delete;

  bool IsOutermost() const { return callDepth == 1; }
  bool IsTooDeep() const { return callDepth > kDeepest; }
};

template <typename Result, typename... Parameters, typename... Arguments>
Result Forward(Result (*IsenseCalls::*call)(Parameters...), Arguments... arguments) {
  const InsideCall inside;
  const auto bound = IsenseLibrary::OfProcess().calls().*call;
  return bound != nullptr && !inside.IsTooDeep() ? bound(arguments...) : Result{};
}

// Only the outermost call loads: loading runs the library's own start-up code, which may call us.
void LoadFirst() {
  const InsideCall inside;
  if (inside.IsOutermost()) IsenseLibrary::OfProcess().Load();
}

void UnloadLast() {
  const InsideCall inside;
  if (inside.IsOutermost()) IsenseLibrary::OfProcess().UnloadIfUnused();
}

}  // namespace

IsenseLibrary& IsenseLibrary::OfProcess() {
  static IsenseLibrary library;
  return library;
}

bool IsenseLibrary::Load() {
  if (IsLoaded()) return true;
  std::string why;
  Result<DynamicLibrary> loaded = DynamicLibrary::Load(kLibraryName, &why);
  if (!loaded.Ok()) {
    std::fprintf(stderr, "Could not load %s\n", kLibraryName);
    if (!why.empty()) std::fprintf(stderr, "\t%s\n", why.c_str());
    return false;
  }
  module_ = std::move(*loaded);
  BindAll();
  return true;
}

// A library that lacks the function and is linked with this program would find ours. That counts as
// missing.
template <typename Call>
void IsenseLibrary::Bind(const char* name, Call& call, Call own) {
  DynamicLibrary::AnyFunction found = nullptr;
  const Status status = module_->Find(name, found);
  call = reinterpret_cast<Call>(found);
  if (call == own) call = nullptr;
  if (call == nullptr) {
    std::fprintf(stderr, "Failed to load %s. Error code %d\n", name, status.osCode);
  }
}

void IsenseLibrary::BindAll() {
  Bind("ISD_OpenTracker", calls_.openTracker, ISD_OpenTracker);
  Bind("ISD_OpenAllTrackers", calls_.openAllTrackers, ISD_OpenAllTrackers);
  Bind("ISD_CloseTracker", calls_.closeTracker, ISD_CloseTracker);
  Bind("ISD_GetCommInfo", calls_.getCommInfo, ISD_GetCommInfo);
  Bind("ISD_GetTrackerConfig", calls_.getTrackerConfig, ISD_GetTrackerConfig);
  Bind("ISD_SetTrackerConfig", calls_.setTrackerConfig, ISD_SetTrackerConfig);
  Bind("ISD_GetStationConfig", calls_.getStationConfig, ISD_GetStationConfig);
  Bind("ISD_SetStationConfig", calls_.setStationConfig, ISD_SetStationConfig);
  Bind("ISD_GetData", calls_.getData, ISD_GetData);
  Bind("ISD_GetCameraData", calls_.getCameraData, ISD_GetCameraData);
  Bind("ISD_SendScript", calls_.sendScript, ISD_SendScript);
  Bind("ISD_NumOpenTrackers", calls_.numOpenTrackers, ISD_NumOpenTrackers);
  Bind("ISD_ResetHeading", calls_.resetHeading, ISD_ResetHeading);
  Bind("ISD_Boresight", calls_.boresight, ISD_Boresight);
  Bind("ISD_BoresightReferenced", calls_.boresightReferenced, ISD_BoresightReferenced);
  Bind("ISD_GetTime", calls_.getTime, ISD_GetTime);
  Bind("ISD_ConfigureFromFile", calls_.configureFromFile, ISD_ConfigureFromFile);
  Bind("ISD_AuxOutput", calls_.auxOutput, ISD_AuxOutput);
  Bind("ISD_UdpBroadcastData", calls_.udpBroadcastData, ISD_UdpBroadcastData);
  Bind("ISD_GetSystemHardwareInfo", calls_.getSystemHardwareInfo, ISD_GetSystemHardwareInfo);
}

void IsenseLibrary::UnloadIfUnused() {
  std::uint16_t open = 0;
  if (calls_.numOpenTrackers == nullptr || calls_.numOpenTrackers(&open) == 0 || open != 0) return;
  calls_ = {};
  module_.reset();
}

}  // namespace kinetrel

// ---- What the program exports ----------------------------------------------------------------

using kinetrel::Forward;
using kinetrel::IsenseCalls;

int ISD_OpenTracker(void* window, std::uint32_t port, int infoScreen, int verbose) {
  kinetrel::LoadFirst();
  return Forward(&IsenseCalls::openTracker, window, port, infoScreen, verbose);
}

std::uint32_t ISD_OpenAllTrackers(void* window, int* handles, int infoScreen, int verbose) {
  kinetrel::LoadFirst();
  return Forward(&IsenseCalls::openAllTrackers, window, handles, infoScreen, verbose);
}

int ISD_CloseTracker(int handle) {
  const int closed = Forward(&IsenseCalls::closeTracker, handle);
  kinetrel::UnloadLast();
  return closed;
}

int ISD_GetCommInfo(int handle, kinetrel::IsenseTrackerInfo* info) {
  return Forward(&IsenseCalls::getCommInfo, handle, info);
}

int ISD_GetTrackerConfig(int handle, kinetrel::IsenseTrackerInfo* info, int verbose) {
  return Forward(&IsenseCalls::getTrackerConfig, handle, info, verbose);
}

int ISD_SetTrackerConfig(int handle, kinetrel::IsenseTrackerInfo* info, int verbose) {
  return Forward(&IsenseCalls::setTrackerConfig, handle, info, verbose);
}

int ISD_GetStationConfig(int handle, kinetrel::IsenseStationInfo* info, std::uint16_t station,
                         int verbose) {
  return Forward(&IsenseCalls::getStationConfig, handle, info, station, verbose);
}

int ISD_SetStationConfig(int handle, kinetrel::IsenseStationInfo* info, std::uint16_t station,
                         int verbose) {
  return Forward(&IsenseCalls::setStationConfig, handle, info, station, verbose);
}

int ISD_GetData(int handle, kinetrel::IsenseTrackerData* data) {
  return Forward(&IsenseCalls::getData, handle, data);
}

int ISD_GetCameraData(int handle, void* data) {
  return Forward(&IsenseCalls::getCameraData, handle, data);
}

int ISD_SendScript(int handle, const char* script) {
  return Forward(&IsenseCalls::sendScript, handle, script);
}

int ISD_NumOpenTrackers(std::uint16_t* count) {
  return Forward(&IsenseCalls::numOpenTrackers, count);
}

int ISD_ResetHeading(int handle, std::uint16_t station) {
  return Forward(&IsenseCalls::resetHeading, handle, station);
}

int ISD_Boresight(int handle, std::uint16_t station, int on) {
  return Forward(&IsenseCalls::boresight, handle, station, on);
}

int ISD_BoresightReferenced(int handle, std::uint16_t station, float yaw, float pitch, float roll) {
  return Forward(&IsenseCalls::boresightReferenced, handle, station, yaw, pitch, roll);
}

float ISD_GetTime() { return Forward(&IsenseCalls::getTime); }

int ISD_ConfigureFromFile(int handle, const char* path, int verbose) {
  return Forward(&IsenseCalls::configureFromFile, handle, path, verbose);
}

int ISD_AuxOutput(int handle, std::uint8_t station, std::uint8_t* bytes, std::uint32_t count) {
  return Forward(&IsenseCalls::auxOutput, handle, station, bytes, count);
}

int ISD_UdpBroadcastData(int handle, std::uint32_t port, kinetrel::IsenseTrackerData* data,
                         void* cameraData) {
  return Forward(&IsenseCalls::udpBroadcastData, handle, port, data, cameraData);
}

int ISD_GetSystemHardwareInfo(int handle, void* info) {
  return Forward(&IsenseCalls::getSystemHardwareInfo, handle, info);
}
