// Our substitute for the InterSense library: its 20 functions. Environment variables control it:
//   KINETREL_ISENSE_MODEL      the model: 1 IS-300, 2 IS-600, 3 IS-900, 4 to 7 InterTrax, 8 and 9
//                              InertiaCube2, 10 IS-1200, 11 InertiaCube3 (default)
//   KINETREL_ISENSE_RATE       records a second; default: the model's own rate
//   KINETREL_ISENSE_KBITS      the line rate that it reports, in 1000 bits a second; default 115.2
//   KINETREL_ISENSE_FAIL       calls that fail, separated by commas: "GetData" always,
//                              "GetData@100" from the 100th call on, "GetData@100+5" five calls
//   KINETREL_ISENSE_FRAMES     faults, separated by commas: "stall@500+50" no new record for 50
//                              periods before frame 500, "jump@500+7" 7 frames are missing,
//                              "lost@500+50" the tracker does not answer for 50 periods
//   KINETREL_ISENSE_BROADCAST  the address that records are sent on to; default 127.255.255.255,
//                              all programs on this machine
//   KINETREL_ISENSE_CALLS      a file that gets one line per call
#include <array>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <mutex>
#include <optional>
#include <span>

#include "platform/clock.h"
#include "vendor/isense_interface.h"
#include "vendor/isense_tracker.h"
#include "vendor/substitute_settings.h"

namespace kinetrel::substitute {
namespace {

constexpr int kMostTrackers = 32;
constexpr int kFailedOpen = -1;

enum class Call : int {
  OpenTracker,
  OpenAllTrackers,
  CloseTracker,
  GetCommInfo,
  GetTrackerConfig,
  SetTrackerConfig,
  GetStationConfig,
  SetStationConfig,
  GetData,
  GetCameraData,
  SendScript,
  NumOpenTrackers,
  ResetHeading,
  Boresight,
  BoresightReferenced,
  GetTime,
  ConfigureFromFile,
  AuxOutput,
  UdpBroadcastData,
  GetSystemHardwareInfo,
};
constexpr const char* kCallNames[] = {
    "OpenTracker",       "OpenAllTrackers",  "CloseTracker",        "GetCommInfo",
    "GetTrackerConfig",  "SetTrackerConfig", "GetStationConfig",    "SetStationConfig",
    "GetData",           "GetCameraData",    "SendScript",          "NumOpenTrackers",
    "ResetHeading",      "Boresight",        "BoresightReferenced", "GetTime",
    "ConfigureFromFile", "AuxOutput",        "UdpBroadcastData",    "GetSystemHardwareInfo"};

// The state of the library. Any thread of the process may call at any time.
struct Library {
  std::recursive_mutex lock;
  std::array<std::optional<Tracker>, kMostTrackers> trackers;
  std::array<std::uint64_t, std::size(kCallNames)> calls{};
  std::optional<DatagramSocket> sender;
};

Library& Loaded() {
  static Library library;
  return library;
}

void Record(const char* name, std::initializer_list<long> arguments) {
  const std::string_view file = Setting("KINETREL_ISENSE_CALLS");
  if (file.empty()) return;
  std::FILE* const out = std::fopen(file.data(), "a");
  if (out == nullptr) return;
  std::fputs(name, out);
  for (const long argument : arguments) std::fprintf(out, " %ld", argument);
  std::fputs("\n", out);
  std::fclose(out);
}

bool IsToFail(const char* name, std::uint64_t number) {
  std::string_view list = Setting("KINETREL_ISENSE_FAIL");
  while (const auto fault = NextPlannedFault(list)) {
    if (fault->name == name && fault->Covers(number)) return true;
  }
  return false;
}

// Lives as long as a call and holds the lock. True when the call is to succeed.
class Entry {
 public:
  Entry(Call call, std::initializer_list<long> arguments) : held_(Loaded().lock) {
    const auto row = static_cast<std::size_t>(call);
    Record(kCallNames[row], arguments);
    works_ = !IsToFail(kCallNames[row], ++Loaded().calls[row]);
  }
  explicit operator bool() const { return works_; }

  // The tracker of the handle; null when the call is to fail or no tracker has the handle.
  Tracker* Of(int handle) const {
    if (!works_ || handle < 1 || handle > kMostTrackers) return nullptr;
    auto& slot = Loaded().trackers[static_cast<std::size_t>(handle - 1)];
    return slot ? &*slot : nullptr;
  }

 private:
  std::lock_guard<std::recursive_mutex> held_;
  bool works_;
};

bool Pass(std::uint32_t port, const DataBlock& data) {
  auto& sender = Loaded().sender;
  if (port == 0 || port > 0xFFFF) return false;
  if (!sender) {
    Result<DatagramSocket> opened = DatagramSocket::Open(0);
    if (!opened.Ok() || !opened->AllowBroadcast()) return false;
    sender.emplace(std::move(*opened));
  }
  const std::string_view chosen = Setting("KINETREL_ISENSE_BROADCAST");
  const char* const address = chosen.empty() ? "127.255.255.255" : chosen.data();
  return sender->Send(address, static_cast<std::uint16_t>(port), std::as_bytes(std::span(&data, 1)))
      .Ok();
}

int OpenFreeSlot(std::uint32_t port) {
  auto& trackers = Loaded().trackers;
  for (std::size_t i = 0; i < trackers.size(); ++i) {
    if (trackers[i]) continue;
    std::optional<Tracker> opened = Tracker::Open(port);
    if (!opened) return kFailedOpen;
    trackers[i].emplace(std::move(*opened));
    return static_cast<int>(i) + 1;
  }
  return kFailedOpen;
}

}  // namespace
}  // namespace kinetrel::substitute

using namespace kinetrel::substitute;  // NOLINT: the functions below are the library's own

int ISD_OpenTracker(void*, std::uint32_t port, int infoScreen, int verbose) {
  const Entry entry(Call::OpenTracker, {static_cast<long>(port), infoScreen, verbose});
  return entry ? OpenFreeSlot(port) : kFailedOpen;
}

// There is one, on whichever port.
std::uint32_t ISD_OpenAllTrackers(void*, int* handles, int infoScreen, int verbose) {
  const Entry entry(Call::OpenAllTrackers, {infoScreen, verbose});
  const int handle = entry && handles != nullptr ? OpenFreeSlot(0) : kFailedOpen;
  if (handle < 1) return 0;
  *handles = handle;
  return 1;
}

int ISD_CloseTracker(int handle) {
  const Entry entry(Call::CloseTracker, {handle});
  if (entry.Of(handle) == nullptr) return 0;
  Loaded().trackers[static_cast<std::size_t>(handle - 1)].reset();
  return 1;
}

int ISD_GetCommInfo(int handle, TrackerWords* info) {
  const Entry entry(Call::GetCommInfo, {handle});
  Tracker* const tracker = entry.Of(handle);
  if (tracker == nullptr || info == nullptr || !tracker->Answers()) return 0;
  tracker->Describe(*info);
  return 1;
}

int ISD_GetTrackerConfig(int handle, TrackerWords* info, int verbose) {
  const Entry entry(Call::GetTrackerConfig, {handle, verbose});
  Tracker* const tracker = entry.Of(handle);
  if (tracker == nullptr || info == nullptr) return 0;
  tracker->Describe(*info);
  return 1;
}

int ISD_SetTrackerConfig(int handle, TrackerWords* info, int verbose) {
  const Entry entry(Call::SetTrackerConfig, {handle, verbose});
  return entry.Of(handle) != nullptr && info != nullptr ? 1 : 0;
}

int ISD_GetStationConfig(int handle, StationWords* info, std::uint16_t station, int verbose) {
  const Entry entry(Call::GetStationConfig, {handle, station, verbose});
  Tracker* const tracker = entry.Of(handle);
  const StationWords* const found = tracker != nullptr ? tracker->Station(station) : nullptr;
  if (found == nullptr || info == nullptr) return 0;
  *info = *found;
  return 1;
}

int ISD_SetStationConfig(int handle, StationWords* info, std::uint16_t station, int verbose) {
  if (info == nullptr) return 0;
  const Entry entry(Call::SetStationConfig,
                    {handle, station, verbose, static_cast<long>(info->enhancement),
                     static_cast<long>(info->angleFormat)});
  Tracker* const tracker = entry.Of(handle);
  return tracker != nullptr && tracker->Configure(station, *info) ? 1 : 0;
}

int ISD_GetData(int handle, DataBlock* data) {
  const Entry entry(Call::GetData, {handle});
  Tracker* const tracker = entry.Of(handle);
  return tracker != nullptr && data != nullptr && tracker->Read(*data) ? 1 : 0;
}

int ISD_GetCameraData(int handle, void*) {
  const Entry entry(Call::GetCameraData, {handle});
  return 0;  // no tracker has a camera
}

int ISD_SendScript(int handle, const char* script) {
  const Entry entry(Call::SendScript, {handle});
  return entry.Of(handle) != nullptr && script != nullptr ? 1 : 0;
}

int ISD_NumOpenTrackers(std::uint16_t* count) {
  const Entry entry(Call::NumOpenTrackers, {});
  if (!entry || count == nullptr) return 0;
  *count = 0;
  for (const auto& tracker : Loaded().trackers) {
    if (tracker) ++*count;
  }
  return 1;
}

int ISD_ResetHeading(int handle, std::uint16_t station) {
  const Entry entry(Call::ResetHeading, {handle, station});
  Tracker* const tracker = entry.Of(handle);
  return tracker != nullptr && tracker->Station(station) != nullptr ? 1 : 0;
}

int ISD_Boresight(int handle, std::uint16_t station, int on) {
  const Entry entry(Call::Boresight, {handle, station, on});
  Tracker* const tracker = entry.Of(handle);
  return tracker != nullptr && tracker->Station(station) != nullptr ? 1 : 0;
}

int ISD_BoresightReferenced(int handle, std::uint16_t station, float, float, float) {
  const Entry entry(Call::BoresightReferenced, {handle, station});
  Tracker* const tracker = entry.Of(handle);
  return tracker != nullptr && tracker->Station(station) != nullptr ? 1 : 0;
}

float ISD_GetTime() {
  const Entry entry(Call::GetTime, {});
  const auto seconds = static_cast<double>(kinetrel::ClockTicks()) /
                       static_cast<double>(kinetrel::ClockTicksPerSecond());
  return entry ? static_cast<float>(seconds) : 0.0F;
}

int ISD_ConfigureFromFile(int handle, const char* path, int verbose) {
  const Entry entry(Call::ConfigureFromFile, {handle, verbose});
  return entry.Of(handle) != nullptr && path != nullptr ? 1 : 0;
}

int ISD_AuxOutput(int handle, std::uint8_t station, std::uint8_t* bytes, std::uint32_t count) {
  const Entry entry(Call::AuxOutput, {handle, station, static_cast<long>(count)});
  return entry.Of(handle) != nullptr && bytes != nullptr ? 1 : 0;
}

int ISD_UdpBroadcastData(int handle, std::uint32_t port, DataBlock* data, void* camera) {
  const Entry entry(Call::UdpBroadcastData,
                    {handle, static_cast<long>(port), camera != nullptr ? 1 : 0});
  return entry.Of(handle) != nullptr && data != nullptr && Pass(port, *data) ? 1 : 0;
}

int ISD_GetSystemHardwareInfo(int handle, void*) {
  const Entry entry(Call::GetSystemHardwareInfo, {handle});
  return 0;  // the substitute has no hardware
}
