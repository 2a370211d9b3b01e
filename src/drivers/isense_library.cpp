#include "drivers/isense_library.h"

#include "platform/console.h"

namespace kinetrel {
namespace {

constexpr const char* kLibraryName = "isense.dll";

// How many of our functions this thread is in. A library that calls its own function may reach ours
// of the same name. We forward such a call, but do not load or unload the library during it.
// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables)
thread_local int callDepth = 0;

// Ends the recursion when the functions that were looked up lead back to ours.
constexpr int kDeepest = 16;

}  // namespace

// One call of ours, as long as the object lives.
class IsenseCall {
 public:
  IsenseCall() : library_(IsenseLibrary::OfProcess()) {
    if (++callDepth == 1) library_.Enter();
  }
  ~IsenseCall() {
    if (callDepth == 1) library_.Leave();
    --callDepth;
  }
  IsenseCall(const IsenseCall&) = delete;
  IsenseCall& operator=(const IsenseCall&) = delete;

  // Only the outermost call loads: loading runs the library's own start-up code, which may call us.
  void Load() const {
    if (callDepth == 1) library_.Load();
  }
  void UnloadAfter() const {
    if (callDepth == 1) library_.UnloadWhenUnused();
  }

  template <typename Result, typename... Parameters, typename... Arguments>
  Result Forward(Result (*IsenseCalls::*call)(Parameters...), Arguments... arguments) const {
    const auto found = library_.Find(call);
    return found != nullptr && callDepth <= kDeepest ? found(arguments...) : Result{};
  }

 private:
  IsenseLibrary& library_;
};

namespace {

template <typename Result, typename... Parameters, typename... Arguments>
Result Forward(Result (*IsenseCalls::*call)(Parameters...), Arguments... arguments) {
  return IsenseCall().Forward(call, arguments...);
}

}  // namespace

IsenseLibrary& IsenseLibrary::OfProcess() {
  static IsenseLibrary library;
  return library;
}

bool IsenseLibrary::IsLoaded() const {
  const Lock held(lock_);
  return module_.has_value();
}

bool IsenseLibrary::HasCommInfo() const { return Find(&IsenseCalls::getCommInfo) != nullptr; }

template <typename Function>
Function IsenseLibrary::Find(Function IsenseCalls::*call) const {
  const Lock held(lock_);
  return calls_.*call;
}

// ---- Loading -------------------------------------------------------------------------------

void IsenseLibrary::Load() {
  const Lock loading(loading_);
  if (IsLoaded()) return;
  std::string why;
  Result<DynamicLibrary> loaded = DynamicLibrary::Load(kLibraryName, &why);
  if (!loaded.Ok()) {
    PrintError("Could not load %s\n", kLibraryName);
    if (!why.empty()) PrintError("\t%s\n", why.c_str());
    return;
  }
  IsenseCalls calls;
  BindAll(*loaded, calls);
  const Lock held(lock_);
  module_ = std::move(*loaded);
  calls_ = calls;
}

void IsenseLibrary::BindAll(const DynamicLibrary& library, IsenseCalls& calls) {
  std::string missing;
  // A library that lacks the function and is linked with this program would find ours. That counts
  // as missing.
  const auto bind = [&](const char* name, auto& call, auto own) {
    DynamicLibrary::AnyFunction found = nullptr;
    const Status status = library.Find(name, found);
    call = reinterpret_cast<decltype(own)>(found);
    if (call == own) call = nullptr;
    if (call != nullptr) return;
    missing += "Failed to load " + std::string(name) + ". Error code " +
               std::to_string(status.osCode) + "\n";
  };
  bind("ISD_OpenTracker", calls.openTracker, ISD_OpenTracker);
  bind("ISD_OpenAllTrackers", calls.openAllTrackers, ISD_OpenAllTrackers);
  bind("ISD_CloseTracker", calls.closeTracker, ISD_CloseTracker);
  bind("ISD_GetCommInfo", calls.getCommInfo, ISD_GetCommInfo);
  bind("ISD_GetTrackerConfig", calls.getTrackerConfig, ISD_GetTrackerConfig);
  bind("ISD_SetTrackerConfig", calls.setTrackerConfig, ISD_SetTrackerConfig);
  bind("ISD_GetStationConfig", calls.getStationConfig, ISD_GetStationConfig);
  bind("ISD_SetStationConfig", calls.setStationConfig, ISD_SetStationConfig);
  bind("ISD_GetData", calls.getData, ISD_GetData);
  bind("ISD_GetCameraData", calls.getCameraData, ISD_GetCameraData);
  bind("ISD_SendScript", calls.sendScript, ISD_SendScript);
  bind("ISD_NumOpenTrackers", calls.numOpenTrackers, ISD_NumOpenTrackers);
  bind("ISD_ResetHeading", calls.resetHeading, ISD_ResetHeading);
  bind("ISD_Boresight", calls.boresight, ISD_Boresight);
  bind("ISD_BoresightReferenced", calls.boresightReferenced, ISD_BoresightReferenced);
  bind("ISD_GetTime", calls.getTime, ISD_GetTime);
  bind("ISD_ConfigureFromFile", calls.configureFromFile, ISD_ConfigureFromFile);
  bind("ISD_AuxOutput", calls.auxOutput, ISD_AuxOutput);
  bind("ISD_UdpBroadcastData", calls.udpBroadcastData, ISD_UdpBroadcastData);
  bind("ISD_GetSystemHardwareInfo", calls.getSystemHardwareInfo, ISD_GetSystemHardwareInfo);
  if (missing != reportedMissing_) PrintError("%s", missing.c_str());
  reportedMissing_ = missing;
}

// ---- Unloading -----------------------------------------------------------------------------

void IsenseLibrary::Enter() {
  const Lock held(lock_);
  ++callsInside_;
  ++callsEver_;
}

void IsenseLibrary::UnloadWhenUnused() {
  const Lock held(lock_);
  unloadWanted_ = true;
}

// The last call that leaves unloads the library when that is wanted. The library is asked outside
// the lock, so calls that come meanwhile make it ask again.
void IsenseLibrary::Leave() {
  std::optional<DynamicLibrary> unloaded;  // destroyed outside the lock: its clean-up may call us
  for (;;) {
    const std::optional<std::uint64_t> callsBefore = CallsIfLast();
    const bool unused = callsBefore && IsUnused();
    const Lock held(lock_);
    if (callsBefore && callsEver_ != *callsBefore) continue;
    --callsInside_;
    if (!callsBefore) return;
    unloadWanted_ = false;
    if (!unused) return;
    calls_ = {};
    unloaded.swap(module_);
    return;
  }
}

// The number of calls so far, for the last call inside when unloading is wanted.
std::optional<std::uint64_t> IsenseLibrary::CallsIfLast() const {
  const Lock held(lock_);
  return unloadWanted_ && callsInside_ == 1 ? std::optional(callsEver_) : std::nullopt;
}

bool IsenseLibrary::IsUnused() const {
  const auto countOpen = Find(&IsenseCalls::numOpenTrackers);
  std::uint16_t open = 0;
  return countOpen != nullptr && countOpen(&open) != 0 && open == 0;
}

}  // namespace kinetrel

// ---- What the program exports ----------------------------------------------------------------

using kinetrel::Forward;
using kinetrel::IsenseCall;
using kinetrel::IsenseCalls;

int ISD_OpenTracker(void* window, std::uint32_t port, int infoScreen, int verbose) {
  const IsenseCall call;
  call.Load();
  return call.Forward(&IsenseCalls::openTracker, window, port, infoScreen, verbose);
}

std::uint32_t ISD_OpenAllTrackers(void* window, int* handles, int infoScreen, int verbose) {
  const IsenseCall call;
  call.Load();
  return call.Forward(&IsenseCalls::openAllTrackers, window, handles, infoScreen, verbose);
}

int ISD_CloseTracker(int handle) {
  const IsenseCall call;
  const int closed = call.Forward(&IsenseCalls::closeTracker, handle);
  call.UnloadAfter();
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
