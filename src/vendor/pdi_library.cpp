// Our own Liberty device library. Without hardware it offers a tracker of known motion; with
// KINETREL_PDI_SERIAL=1 it drives a Liberty on a serial port. pdi_known_tracker.h has the variables
// of the former.
//   KINETREL_PDI_SERIAL  1: the Liberty on the serial port that the program names
//   KINETREL_PDI_FAIL    calls that fail, separated by commas: "LastPnoPtr" always,
//                        "LastPnoPtr@100" from the 100th call on, "LastPnoPtr@100+5" five calls
//   KINETREL_PDI_CALLS   a file that gets one line per call, except for CnxReady, RequestPno and
//                        LastPnoPtr
#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "drivers/liberty_line.h"
#include "vendor/pdi_known_tracker.h"
#include "vendor/pdi_table.h"
#include "vendor/substitute_settings.h"

namespace kinetrel {

struct PdiDevice {
  std::unique_ptr<LibertyTracker> tracker;
  std::map<std::string, std::uint64_t, std::less<>> calls;
  int port = 1;
  unsigned baud = 115200;
  const char* result = "nothing called yet";
};

namespace {

using substitute::NextPlannedFault;
using substitute::Setting;

constexpr unsigned kBauds[] = {1200, 2400, 4800, 9600, 19200, 38400, 57600, 115200};

void Note(const char* format, ...) __attribute__((format(printf, 1, 2)));
void Note(const char* format, ...) {
  const std::string path(Setting("KINETREL_PDI_CALLS"));
  if (path.empty()) return;
  std::FILE* const file = std::fopen(path.c_str(), "a");
  if (file == nullptr) return;
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(file, format, arguments);
  va_end(arguments);
  std::fputc('\n', file);
  std::fclose(file);
}

bool IsToFail(PdiDevice& device, std::string_view call) {
  std::string_view list = Setting("KINETREL_PDI_FAIL");
  if (list.empty()) return false;
  auto found = device.calls.find(call);
  if (found == device.calls.end()) found = device.calls.emplace(call, 0).first;
  const std::uint64_t number = ++found->second;
  while (const auto fault = NextPlannedFault(list)) {
    if (fault->name == call && fault->Covers(number)) return true;
  }
  return false;
}

// Every call goes through here. A call that is to fail is not made.
template <typename Work>
std::int32_t Do(PdiDevice* device, const char* call, Work work) {
  const bool done = !IsToFail(*device, call) && work(*device->tracker);
  device->result = done ? "done" : "the call failed";
  return done ? 1 : 0;
}

PdiDevice* CreateDevice() {
  auto device = std::make_unique<PdiDevice>();
  const bool real = Setting("KINETREL_PDI_SERIAL") == "1";
  device->tracker = real ? MakeSerialLiberty() : substitute::MakeKnownTracker();
  return device.release();
}

void DestroyDevice(PdiDevice* device) { delete device; }

std::int32_t CnxReady(PdiDevice* device) {
  return Do(device, "CnxReady", [](auto& tracker) { return tracker.Connected(); });
}

std::int32_t SetSerialIF(PdiDevice* device, std::int32_t port, std::int32_t baudCode,
                         std::int32_t parityCode) {
  Note("SetSerialIF %d %d %d", port, baudCode, parityCode);
  return Do(device, "SetSerialIF", [&](auto&) {
    if (baudCode < 0 || baudCode >= static_cast<int>(std::size(kBauds))) return false;
    device->port = port;
    device->baud = kBauds[baudCode];
    return true;
  });
}

std::int32_t DiscoverCnx(PdiDevice* device) {
  Note("DiscoverCnx");
  const std::int32_t found = Do(device, "DiscoverCnx", [device](auto& tracker) {
    return tracker.Connect(device->port, device->baud);
  });
  if (found == 0) {
    device->result = "no tracker found";
    return static_cast<std::int32_t>(PdiConnection::None);
  }
  return static_cast<std::int32_t>(PdiConnection::Serial);
}

std::int32_t Disconnect(PdiDevice* device) {
  Note("Disconnect");
  return Do(device, "Disconnect", [](auto& tracker) {
    tracker.Disconnect();
    return true;
  });
}

std::int32_t SetSDataList(PdiDevice* device, std::int32_t station, const std::int32_t* items,
                          std::int32_t count) {
  std::string text;
  for (int i = 0; i < count; ++i) text += " " + std::to_string(items[i]);
  Note("SetSDataList %d:%s", station, text.c_str());
  return Do(device, "SetSDataList", [&](auto& tracker) {
    return tracker.SetItems(station, std::span(items, static_cast<std::size_t>(count)));
  });
}

std::int32_t GetStationMap(PdiDevice* device, std::uint32_t* map) {
  Note("GetStationMap");
  return Do(device, "GetStationMap", [map](auto& tracker) { return tracker.GetStations(*map); });
}

std::int32_t SetStationMap(PdiDevice* device, std::uint32_t map) {
  Note("SetStationMap %#x", map);
  return Do(device, "SetStationMap", [map](auto& tracker) { return tracker.SetStations(map); });
}

std::int32_t MaxSensors(PdiDevice* device) {
  Note("MaxSensors");
  return IsToFail(*device, "MaxSensors") ? 0 : device->tracker->MostStations();
}

std::int32_t StartContPno(PdiDevice* device) {
  Note("StartContPno");
  return Do(device, "StartContPno", [](auto& tracker) { return tracker.Start(); });
}

std::int32_t StopContPno(PdiDevice* device) {
  Note("StopContPno");
  return Do(device, "StopContPno", [](auto& tracker) { return tracker.Stop(); });
}

std::int32_t RequestPno(PdiDevice* device) {
  return Do(device, "RequestPno", [](auto& tracker) { return tracker.Request(); });
}

std::int32_t LastPnoPtr(PdiDevice* device, const std::uint8_t** frame, std::uint32_t* size) {
  return Do(device, "LastPnoPtr", [&](auto& tracker) { return tracker.LastFrame(*frame, *size); });
}

std::int32_t SetFrameRate(PdiDevice* device, std::int32_t code) {
  Note("SetFrameRate %d", code);
  return Do(device, "SetFrameRate", [code](auto& tracker) { return tracker.SetRate(code); });
}

std::int32_t GetFrameRate(PdiDevice* device, std::int32_t* code) {
  Note("GetFrameRate");
  return Do(device, "GetFrameRate", [code](auto& tracker) { return tracker.GetRate(*code); });
}

std::int32_t SetMetric(PdiDevice* device, std::int32_t on) {
  Note("SetMetric %d", on);
  return Do(device, "SetMetric", [on](auto& tracker) { return tracker.SetMetric(on != 0); });
}

std::int32_t SetSyncEnabled(PdiDevice* device, std::int32_t on) {
  Note("SetSyncEnabled %d", on);
  return Do(device, "SetSyncEnabled", [on](auto& tracker) { return tracker.SetSync(on != 0); });
}

std::int32_t SetSAlignment(PdiDevice* device, std::int32_t station, const float* origin,
                           const float* xAxis, const float* yAxis) {
  std::array<float, 9> points{};
  std::copy_n(yAxis, 3, std::copy_n(xAxis, 3, std::copy_n(origin, 3, points.begin())));
  std::string text;
  for (const float value : points) text += " " + std::to_string(value);
  Note("SetSAlignment %d:%s", station, text.c_str());
  return Do(device, "SetSAlignment", [&](auto& tracker) { return tracker.Align(station, points); });
}

std::int32_t SetSHemisphere(PdiDevice* device, std::int32_t station, const float* zenith) {
  const auto value = [zenith](int i) { return static_cast<double>(zenith[i]); };
  Note("SetSHemisphere %d: %g %g %g", station, value(0), value(1), value(2));
  return Do(device, "SetSHemisphere", [&](auto& tracker) {
    return tracker.SetHemisphere(station, std::span<const float, 3>(zenith, 3));
  });
}

// A tracker that is given no hemisphere follows it by itself.
std::int32_t SetSHemiTrack(PdiDevice* device, std::int32_t station) {
  Note("SetSHemiTrack %d", station);
  return Do(device, "SetSHemiTrack", [station](auto& tracker) {
    return tracker.SetHemisphere(station, std::array<float, 3>{});
  });
}

std::int32_t GetBITErrs(PdiDevice* device, std::uint32_t* words, std::int32_t room,
                        std::int32_t* count) {
  Note("GetBITErrs");
  return Do(device, "GetBITErrs", [&](auto& tracker) {
    std::size_t stored = 0;
    const bool read = tracker.BitErrors(std::span(words, static_cast<std::size_t>(room)), stored);
    *count = static_cast<std::int32_t>(stored);
    return read;
  });
}

std::int32_t ClearBITErrs(PdiDevice* device) {
  Note("ClearBITErrs");
  return Do(device, "ClearBITErrs", [](auto& tracker) { return tracker.ClearBitErrors(); });
}

void DescribeBITErrs(const std::uint32_t* words, std::int32_t count, char* text,
                     std::int32_t size) {
  std::string all;
  for (int i = 0; i < count; ++i) {
    char word[32];
    std::snprintf(word, sizeof word, "word %d: %#x ", i, words[i]);
    if (words[i] != 0) all += word;
  }
  std::snprintf(text, static_cast<std::size_t>(size), "%s", all.empty() ? "none" : all.c_str());
}

const char* LastResultText(PdiDevice* device) { return device->result; }

std::int32_t NextRecordPtr(PdiDevice* device, const std::uint8_t** record, std::uint32_t* size) {
  return Do(device, "NextRecordPtr",
            [&](auto& tracker) { return tracker.NextRecord(*record, *size); });
}

std::int32_t AwaitRecord(PdiDevice* device, std::int32_t milliseconds) {
  return Do(device, "AwaitRecord",
            [&](auto& tracker) { return tracker.AwaitRecord(Milliseconds(milliseconds)); });
}

constexpr PdiTable kTable = {
    .version = kPdiTableVersion,
    .size = sizeof(PdiTable),
    .createDevice = CreateDevice,
    .destroyDevice = DestroyDevice,
    .cnxReady = CnxReady,
    .setSerialIF = SetSerialIF,
    .discoverCnx = DiscoverCnx,
    .disconnect = Disconnect,
    .setSDataList = SetSDataList,
    .getStationMap = GetStationMap,
    .setStationMap = SetStationMap,
    .maxSensors = MaxSensors,
    .startContPno = StartContPno,
    .stopContPno = StopContPno,
    .requestPno = RequestPno,
    .lastPnoPtr = LastPnoPtr,
    .setFrameRate = SetFrameRate,
    .getFrameRate = GetFrameRate,
    .setMetric = SetMetric,
    .setSyncEnabled = SetSyncEnabled,
    .setSAlignment = SetSAlignment,
    .setSHemisphere = SetSHemisphere,
    .setSHemiTrack = SetSHemiTrack,
    .getBITErrs = GetBITErrs,
    .clearBITErrs = ClearBITErrs,
    .describeBITErrs = DescribeBITErrs,
    .lastResultText = LastResultText,
    .nextRecordPtr = NextRecordPtr,
    .awaitRecord = AwaitRecord,
};

}  // namespace

extern "C" const PdiTable* kinetrel_pdi_table(std::uint32_t version) {
  return version >= kPdiFirstVersion && version <= kPdiTableVersion ? &kTable : nullptr;
}

}  // namespace kinetrel
