#include "drivers/relay_device.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <utility>

namespace kinetrel {
namespace {

using rpc::CallResult;

constexpr const char* kVariable = "KINETREL_RELAY";
constexpr int kIdentity = 11;
constexpr int kBaud = 115200;  // of the simulated port

// Arguments of the calls, in the numbers of the service's engine.
constexpr std::int32_t kMappingItself = -1;
constexpr std::int32_t kEulerAttribute = 2;
constexpr std::int32_t kUnitsAttribute = 5;

struct Target {
  std::string host;
  rpc::TrackKey key{};
};

std::optional<Target> ParseControlString(const char* text) {
  Target target;
  std::istringstream in(text);
  if (!std::getline(in, target.host, ':') || target.host.empty()) return std::nullopt;
  for (std::size_t i = 0; i < target.key.size(); ++i) {
    if (i > 0 && in.get() != ',') return std::nullopt;
    if (!(in >> target.key[i])) return std::nullopt;
  }
  return target;
}

}  // namespace

RelayDevice::RelayDevice(std::uint16_t port) : client_(port) {
  deviceType_ = kIdentity;
  statusWord_ = kIdentity;
  sensorMask_ = 1;
  totalFrameRate_ = 120;
  SetName(DeviceName::Relay);
  AllocateSensors(1);
}

// ---- Port and life ---------------------------------------------------------------------------

int RelayDevice::OpenPort(const char*, int) {
  return TrackerDevice::OpenPort("~SimulateOpenPort", kBaud);
}

BootResult RelayDevice::Boot(int) {
  const char* const wanted = std::getenv(kVariable);
  if (!hasTarget_ && wanted != nullptr) SetControlString(wanted);
  if (!hasTarget_) {
    ReportTrouble(
        "No service to follow: set KINETREL_RELAY or the control string to host:a, b, c.");
  }
  framePeriod_ = Milliseconds(totalFrameRate_ > 0 ? std::max(1, 1000 / totalFrameRate_) : 10);
  // Without a timer the wait in ReadFrame ends at its time-out, and frames come half as often.
  const Status started = frameTimer_.Start(framePeriod_);
  if (!started.Ok()) ReportTrouble(started.what);
  return kBooted;
}

int RelayDevice::QueryStatus(char* text, int size) {
  if (text == nullptr || size <= 0) return 0;
  *text = '\0';
  return 1;
}

// ---- Sampling --------------------------------------------------------------------------------

unsigned RelayDevice::ReadFrame(double* sampleTime) {
  client_.EndBy(Deadline(kFrameTime));
  if (!hasTarget_ || (reconnect_ && !Connect())) return 0;
  frameTimer_.Wait(2 * framePeriod_);
  const unsigned updated = FetchAngles();
  if (reconnect_) return 0;
  if (frameCounter_ % kCheckInterval == 0 && !CheckMapping()) return 0;
  const double time = ElapsedSeconds();
  if (sampleTime != nullptr) *sampleTime = time;
  TellRecords(updated, time);
  ++frameCounter_;
  return updated;
}

bool RelayDevice::Connect() {
  if (!rest_.Passed()) return false;
  rest_ = Deadline(kRest);  // matters only if this attempt fails
  std::int32_t engine = 0;
  std::int32_t sensor = 0;
  client_.Unbind();
  std::array<char, 400> problem;
  if (client_.Bind(host_) != CallResult::Success) {
    std::snprintf(problem.data(), problem.size(), "Sample: Unable to find an MtsService at %s",
                  host_.c_str());
  } else if (client_.GetMapping(key_, engine, sensor) != CallResult::Success) {
    ReportFault();
    client_.Unbind();
    std::snprintf(problem.data(), problem.size(),
                  // "dosn't" is kept for compatibility.
                  "Sample: MtsService at %s dosn't have mapping (%d, %d, %d)", host_.c_str(),
                  key_[0], key_[1], key_[2]);
  } else {
    reconnect_ = false;
    reportFailures_ = true;
    return true;
  }
  if (reportFailures_) ReportTrouble(problem.data());
  reportFailures_ = false;
  return false;
}

unsigned RelayDevice::FetchAngles() {
  if ((componentMask_ & kEulerComponent) == 0) return 0;
  std::array<float, 3> angles{};
  const CallResult result = client_.GetAngles({key_, kMappingItself, kEulerAttribute, 3}, angles);
  if (!KeepsConnection(result) || result != CallResult::Success) return 0;
  reportFault_ = true;
  // The service may send any bytes; only finite numbers are angles.
  if (!std::all_of(angles.begin(), angles.end(), [](float x) { return std::isfinite(x); }))
    return 0;
  std::copy(angles.begin(), angles.end(), GetSensorEuler(0));
  ReportReturn();
  return 1;
}

// The service's mappings and units may have changed meanwhile.
bool RelayDevice::CheckMapping() {
  std::int32_t engine = 0;
  std::int32_t sensor = 0;
  const CallResult found = client_.GetMapping(key_, engine, sensor);
  if (found == CallResult::ReturnedFalse) reconnect_ = true;  // Connect reports it
  if (!KeepsConnection(found) || found != CallResult::Success) return false;
  std::int32_t units = 0;
  const CallResult known = client_.GetAttribute({engine, kUnitsAttribute}, units);
  if (known == CallResult::Success) units_ = units;
  return KeepsConnection(known);
}

// False when the connection is lost and must be made again.
bool RelayDevice::KeepsConnection(CallResult result) {
  if (result == CallResult::Success || result == CallResult::ReturnedFalse) return true;
  ReportFault();
  reconnect_ = true;
  rest_ = Deadline(kRest);
  return false;
}

void RelayDevice::ReportTrouble(const char* problem) {
  inTrouble_ = true;
  if (statusLog_ != nullptr) Announce(*statusLog_, "\n\t", StatusCode::Refused, "%s", problem);
}

void RelayDevice::ReportReturn() {
  if (!std::exchange(inTrouble_, false) || statusLog_ == nullptr) return;
  Announce(*statusLog_, "\n\t", StatusCode::Progress, "MtsService at %s delivers the mapping.",
           host_.c_str());
}

void RelayDevice::ReportFault() {
  if (client_.lastFault() == 0 || !reportFault_) return;
  std::array<char, 300> problem;
  std::snprintf(problem.data(), problem.size(), "MtsService at %s answers with fault 0x%08X",
                host_.c_str(), client_.lastFault());
  ReportTrouble(problem.data());
  reportFault_ = false;
}

// ---- Stations, settings, identity ------------------------------------------------------------

unsigned RelayDevice::SetSensorMask(unsigned, int) { return 0; }

bool RelayDevice::SetControlString(const char* text) {
  const auto target = text != nullptr ? ParseControlString(text) : std::nullopt;
  if (!target) {
    Post(statusLog_, StatusCode::Refused, "Error parsing control string: %s",
         text != nullptr ? text : "");
    return false;
  }
  host_ = target->host;
  key_ = target->key;
  hasTarget_ = true;
  reconnect_ = true;
  reportFailures_ = true;
  reportFault_ = true;
  rest_ = Deadline(Milliseconds(0));
  return true;
}

bool RelayDevice::GetControlString(char* text, int size) {
  if (text == nullptr || size < 1) return false;
  std::snprintf(text, static_cast<std::size_t>(size), "%s:%d, %d, %d", host_.c_str(), key_[0],
                key_[1], key_[2]);
  return true;
}

}  // namespace kinetrel
