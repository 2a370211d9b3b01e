#include "drivers/liberty_table.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <span>

namespace kinetrel {
namespace {

constexpr unsigned kBauds[] = {1200, 2400, 4800, 9600, 19200, 38400, 57600, 115200};

std::int32_t Said(PdiDevice* device, bool done) {
  device->result = done ? "done" : "the call failed";
  return done ? 1 : 0;
}

std::int32_t SetSerialIF(PdiDevice* device, std::int32_t port, std::int32_t baudCode,
                         std::int32_t) {
  if (baudCode < 0 || baudCode >= static_cast<int>(std::size(kBauds))) return Said(device, false);
  device->port = port;
  device->baud = kBauds[baudCode];
  return Said(device, true);
}

std::int32_t DiscoverCnx(PdiDevice* device) {
  if (!device->tracker->Connect(device->port, device->baud)) {
    device->result = "no tracker found";
    return static_cast<std::int32_t>(PdiConnection::None);
  }
  device->result = device->tracker->Description();
  return static_cast<std::int32_t>(device->kind);
}

std::int32_t Disconnect(PdiDevice* device) {
  device->tracker->Disconnect();
  return Said(device, true);
}

std::int32_t SetSDataList(PdiDevice* device, std::int32_t station, const std::int32_t* items,
                          std::int32_t count) {
  return Said(device, device->tracker->SetItems(station,
                                                std::span(items, static_cast<std::size_t>(count))));
}

std::int32_t SetSAlignment(PdiDevice* device, std::int32_t station, const float* origin,
                           const float* xAxis, const float* yAxis) {
  std::array<float, 9> points{};
  std::copy_n(yAxis, 3, std::copy_n(xAxis, 3, std::copy_n(origin, 3, points.begin())));
  return Said(device, device->tracker->Align(station, points));
}

std::int32_t SetSHemisphere(PdiDevice* device, std::int32_t station, const float* zenith) {
  return Said(device,
              device->tracker->SetHemisphere(station, std::span<const float, 3>(zenith, 3)));
}

// A tracker that is given no hemisphere follows it by itself.
std::int32_t SetSHemiTrack(PdiDevice* device, std::int32_t station) {
  return Said(device, device->tracker->SetHemisphere(station, std::array<float, 3>{}));
}

std::int32_t GetBITErrs(PdiDevice* device, std::uint32_t* words, std::int32_t room,
                        std::int32_t* count) {
  std::size_t stored = 0;
  const bool read =
      device->tracker->BitErrors(std::span(words, static_cast<std::size_t>(room)), stored);
  *count = static_cast<std::int32_t>(stored);
  return Said(device, read);
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

// The calls of every frame leave the last result alone: describing it might allocate.
constexpr PdiTable kTable = {
    .version = kPdiTableVersion,
    .size = sizeof(PdiTable),
    .createDevice = nullptr,
    .destroyDevice = nullptr,
    .cnxReady = [](PdiDevice* d) { return d->tracker->Connected() ? 1 : 0; },
    .setSerialIF = SetSerialIF,
    .discoverCnx = DiscoverCnx,
    .disconnect = Disconnect,
    .setSDataList = SetSDataList,
    .getStationMap = [](PdiDevice* d,
                        std::uint32_t* map) { return Said(d, d->tracker->GetStations(*map)); },
    .setStationMap = [](PdiDevice* d,
                        std::uint32_t map) { return Said(d, d->tracker->SetStations(map)); },
    .maxSensors = [](PdiDevice* d) { return d->tracker->MostStations(); },
    .startContPno = [](PdiDevice* d) { return Said(d, d->tracker->Start()); },
    .stopContPno = [](PdiDevice* d) { return Said(d, d->tracker->Stop()); },
    .requestPno = [](PdiDevice* d) { return d->tracker->Request() ? 1 : 0; },
    .lastPnoPtr = [](PdiDevice* d, const std::uint8_t** frame,
                     std::uint32_t* size) { return d->tracker->LastFrame(*frame, *size) ? 1 : 0; },
    .setFrameRate = [](PdiDevice* d,
                       std::int32_t code) { return Said(d, d->tracker->SetRate(code)); },
    .getFrameRate = [](PdiDevice* d,
                       std::int32_t* code) { return Said(d, d->tracker->GetRate(*code)); },
    .setMetric = [](PdiDevice* d,
                    std::int32_t on) { return Said(d, d->tracker->SetMetric(on != 0)); },
    .setSyncEnabled = [](PdiDevice* d,
                         std::int32_t on) { return Said(d, d->tracker->SetSync(on != 0)); },
    .setSAlignment = SetSAlignment,
    .setSHemisphere = SetSHemisphere,
    .setSHemiTrack = SetSHemiTrack,
    .getBITErrs = GetBITErrs,
    .clearBITErrs = [](PdiDevice* d) { return Said(d, d->tracker->ClearBitErrors()); },
    .describeBITErrs = DescribeBITErrs,
    .lastResultText = [](PdiDevice* d) { return d->result.c_str(); },
    .nextRecordPtr =
        [](PdiDevice* d, const std::uint8_t** record, std::uint32_t* size) {
          return d->tracker->NextRecord(*record, *size) ? 1 : 0;
        },
    .awaitRecord =
        [](PdiDevice* d, std::int32_t milliseconds) {
          return d->tracker->AwaitRecord(Milliseconds(milliseconds)) ? 1 : 0;
        },
};

}  // namespace

const PdiTable& TrackerTable() { return kTable; }

}  // namespace kinetrel
