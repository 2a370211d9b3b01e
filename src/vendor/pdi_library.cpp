// Our own Liberty device library. Without hardware it offers a tracker of known motion; with
// KINETREL_PDI_SERIAL=1 it drives a Liberty on a serial port. pdi_known_tracker.h has the variables
// of the former.
//   KINETREL_PDI_SERIAL  1: the Liberty on the serial port that the program names
//   KINETREL_PDI_FAIL    calls that fail, separated by commas: "LastPnoPtr" always,
//                        "LastPnoPtr@100" from the 100th call on, "LastPnoPtr@100+5" five calls
//   KINETREL_PDI_CALLS   a file that gets one line per call, except for CnxReady, RequestPno and
//                        LastPnoPtr
#include <cstdarg>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "drivers/liberty_table.h"
#include "vendor/pdi_known_tracker.h"
#include "vendor/pdi_table.h"
#include "vendor/substitute_settings.h"

namespace kinetrel {

namespace {

using substitute::NextPlannedFault;
using substitute::Setting;

struct CountedDevice final : PdiDevice {
  std::map<std::string, std::uint64_t, std::less<>> calls;
};

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

bool IsToFail(PdiDevice* device, std::string_view call) {
  std::string_view list = Setting("KINETREL_PDI_FAIL");
  if (list.empty()) return false;
  auto& calls = static_cast<CountedDevice*>(device)->calls;
  auto found = calls.find(call);
  if (found == calls.end()) found = calls.emplace(call, 0).first;
  const std::uint64_t number = ++found->second;
  while (const auto fault = NextPlannedFault(list)) {
    if (fault->name == call && fault->Covers(number)) return true;
  }
  return false;
}

// Every call goes through here. A call that is to fail is not made.
template <typename... Parameters, typename... Arguments>
std::int32_t Do(PdiDevice* device, const char* call,
                std::int32_t (*PdiTable::*function)(PdiDevice*, Parameters...),
                Arguments... arguments) {
  if (!IsToFail(device, call)) return (TrackerTable().*function)(device, arguments...);
  device->result = "the call failed";
  return 0;
}

PdiDevice* CreateDevice() {
  auto device = std::make_unique<CountedDevice>();
  const bool real = Setting("KINETREL_PDI_SERIAL") == "1";
  device->tracker = real ? MakeSerialLiberty() : substitute::MakeKnownTracker();
  return device.release();
}

void DestroyDevice(PdiDevice* device) { delete device; }

std::int32_t CnxReady(PdiDevice* device) { return Do(device, "CnxReady", &PdiTable::cnxReady); }

std::int32_t SetSerialIF(PdiDevice* device, std::int32_t port, std::int32_t baudCode,
                         std::int32_t parityCode) {
  Note("SetSerialIF %d %d %d", port, baudCode, parityCode);
  return Do(device, "SetSerialIF", &PdiTable::setSerialIF, port, baudCode, parityCode);
}

std::int32_t DiscoverCnx(PdiDevice* device) {
  Note("DiscoverCnx");
  if (!IsToFail(device, "DiscoverCnx")) return TrackerTable().discoverCnx(device);
  device->result = "no tracker found";
  return static_cast<std::int32_t>(PdiConnection::None);
}

std::int32_t Disconnect(PdiDevice* device) {
  Note("Disconnect");
  return Do(device, "Disconnect", &PdiTable::disconnect);
}

std::int32_t SetSDataList(PdiDevice* device, std::int32_t station, const std::int32_t* items,
                          std::int32_t count) {
  std::string text;
  for (int i = 0; i < count; ++i) text += " " + std::to_string(items[i]);
  Note("SetSDataList %d:%s", station, text.c_str());
  return Do(device, "SetSDataList", &PdiTable::setSDataList, station, items, count);
}

std::int32_t GetStationMap(PdiDevice* device, std::uint32_t* map) {
  Note("GetStationMap");
  return Do(device, "GetStationMap", &PdiTable::getStationMap, map);
}

std::int32_t SetStationMap(PdiDevice* device, std::uint32_t map) {
  Note("SetStationMap %#x", map);
  return Do(device, "SetStationMap", &PdiTable::setStationMap, map);
}

std::int32_t MaxSensors(PdiDevice* device) {
  Note("MaxSensors");
  return Do(device, "MaxSensors", &PdiTable::maxSensors);
}

std::int32_t StartContPno(PdiDevice* device) {
  Note("StartContPno");
  return Do(device, "StartContPno", &PdiTable::startContPno);
}

std::int32_t StopContPno(PdiDevice* device) {
  Note("StopContPno");
  return Do(device, "StopContPno", &PdiTable::stopContPno);
}

std::int32_t RequestPno(PdiDevice* device) {
  return Do(device, "RequestPno", &PdiTable::requestPno);
}

std::int32_t LastPnoPtr(PdiDevice* device, const std::uint8_t** frame, std::uint32_t* size) {
  return Do(device, "LastPnoPtr", &PdiTable::lastPnoPtr, frame, size);
}

std::int32_t SetFrameRate(PdiDevice* device, std::int32_t code) {
  Note("SetFrameRate %d", code);
  return Do(device, "SetFrameRate", &PdiTable::setFrameRate, code);
}

std::int32_t GetFrameRate(PdiDevice* device, std::int32_t* code) {
  Note("GetFrameRate");
  return Do(device, "GetFrameRate", &PdiTable::getFrameRate, code);
}

std::int32_t SetMetric(PdiDevice* device, std::int32_t on) {
  Note("SetMetric %d", on);
  return Do(device, "SetMetric", &PdiTable::setMetric, on);
}

std::int32_t SetSyncEnabled(PdiDevice* device, std::int32_t on) {
  Note("SetSyncEnabled %d", on);
  return Do(device, "SetSyncEnabled", &PdiTable::setSyncEnabled, on);
}

std::int32_t SetSAlignment(PdiDevice* device, std::int32_t station, const float* origin,
                           const float* xAxis, const float* yAxis) {
  std::string text;
  for (const float* const point : {origin, xAxis, yAxis}) {
    for (int i = 0; i < 3; ++i) text += " " + std::to_string(point[i]);
  }
  Note("SetSAlignment %d:%s", station, text.c_str());
  return Do(device, "SetSAlignment", &PdiTable::setSAlignment, station, origin, xAxis, yAxis);
}

std::int32_t SetSHemisphere(PdiDevice* device, std::int32_t station, const float* zenith) {
  const auto value = [zenith](int i) { return static_cast<double>(zenith[i]); };
  Note("SetSHemisphere %d: %g %g %g", station, value(0), value(1), value(2));
  return Do(device, "SetSHemisphere", &PdiTable::setSHemisphere, station, zenith);
}

std::int32_t SetSHemiTrack(PdiDevice* device, std::int32_t station) {
  Note("SetSHemiTrack %d", station);
  return Do(device, "SetSHemiTrack", &PdiTable::setSHemiTrack, station);
}

std::int32_t GetBITErrs(PdiDevice* device, std::uint32_t* words, std::int32_t room,
                        std::int32_t* count) {
  Note("GetBITErrs");
  return Do(device, "GetBITErrs", &PdiTable::getBITErrs, words, room, count);
}

std::int32_t ClearBITErrs(PdiDevice* device) {
  Note("ClearBITErrs");
  return Do(device, "ClearBITErrs", &PdiTable::clearBITErrs);
}

void DescribeBITErrs(const std::uint32_t* words, std::int32_t count, char* text,
                     std::int32_t size) {
  TrackerTable().describeBITErrs(words, count, text, size);
}

const char* LastResultText(PdiDevice* device) { return TrackerTable().lastResultText(device); }

std::int32_t NextRecordPtr(PdiDevice* device, const std::uint8_t** record, std::uint32_t* size) {
  return Do(device, "NextRecordPtr", &PdiTable::nextRecordPtr, record, size);
}

std::int32_t AwaitRecord(PdiDevice* device, std::int32_t milliseconds) {
  return Do(device, "AwaitRecord", &PdiTable::awaitRecord, milliseconds);
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
