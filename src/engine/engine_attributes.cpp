// The engine's attributes: the part of TrackerEngine that reads and changes a running
// configuration by number.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <span>

#include "devices/bounded_text.h"
#include "engine/apply_configuration.h"
#include "engine/control_call.h"
#include "engine/tracker_engine.h"
#include "platform/console.h"

namespace kinetrel {
namespace {

constexpr AttributeInfo kAttributes[] = {
    {0, AttributeType::Text, AttributeInfo::kTextCount, "Tracker Name"},
    {1, AttributeType::Text, AttributeInfo::kTextCount, "Current Status"},
    {2, AttributeType::Number, 1, "Shared Memory ID"},
    {3, AttributeType::Number, 1, "Sensor Mask"},
    {4, AttributeType::Number, 1, "Component Mask"},
    {5, AttributeType::Number, 1, "Units"},
    {6, AttributeType::Number, 1, "Joystick Port"},
    {7, AttributeType::Floats, 6, "Offset"},
    {8, AttributeType::Floats, 3, "Hemisphere"},
    {9, AttributeType::Floats, 3, "Align X"},
    {10, AttributeType::Floats, 3, "Align Y"},
    {11, AttributeType::Number, 1, "Roll All Sensors"},
    {12, AttributeType::Number, 1, "Bore"},
    {13, AttributeType::Number, 1, "Continuous"},
    {14, AttributeType::Number, 1, "Query"},
    {15, AttributeType::Number, 1, "Synchronization"},
    {16, AttributeType::Text, AttributeInfo::kTextCount, "Protocol"},
    {17, AttributeType::Text, AttributeInfo::kTextCount, "Control String"},
    {18, AttributeType::Number, 1, "DeviceType"},
};
constexpr int kAttributeCount = static_cast<int>(std::size(kAttributes));
static_assert(kAttributeCount == static_cast<int>(EngineAttribute::DeviceType) + 1);

// ---- Whole numbers ---------------------------------------------------------------------------

int RollOf(const StartConfig& config) {
  const float roll = config.transmitterOffset[5];
  return roll == kRolledOver ? 1 : roll == 0.0F ? 0 : -1;
}

struct IntRow {
  EngineAttribute id;
  bool asksDevice;  // and so waits for the frame being read
  int (*get)(const StartConfig& config, TrackerDevice& device);
};
constexpr IntRow kIntRows[] = {
    {EngineAttribute::SharedMemoryId, false,
     [](const StartConfig& c, TrackerDevice&) { return c.shmDevice; }},
    {EngineAttribute::SensorMask, true,
     [](const StartConfig&, TrackerDevice& d) { return static_cast<int>(d.GetSensorMask()); }},
    {EngineAttribute::ComponentMask, false,
     [](const StartConfig& c, TrackerDevice&) { return static_cast<int>(c.componentMask); }},
    {EngineAttribute::Units, true,
     [](const StartConfig&, TrackerDevice& d) { return d.GetUnits(); }},
    {EngineAttribute::JoystickPort, false,
     [](const StartConfig& c, TrackerDevice&) { return c.joystickPort; }},
    {EngineAttribute::RollAllSensors, false,
     [](const StartConfig& c, TrackerDevice&) { return RollOf(c); }},
    {EngineAttribute::Bore, false, [](const StartConfig& c, TrackerDevice&) { return c.bore; }},
    {EngineAttribute::Continuous, false,
     [](const StartConfig& c, TrackerDevice&) { return c.streaming; }},
    {EngineAttribute::Query, false, [](const StartConfig& c, TrackerDevice&) { return c.query; }},
    {EngineAttribute::Synchronization, false,
     [](const StartConfig& c, TrackerDevice&) { return c.sync; }},
    {EngineAttribute::DeviceType, true,
     [](const StartConfig&, TrackerDevice& d) { return d.GetStatusCode(); }},
};

// ---- Float arrays ----------------------------------------------------------------------------

struct FloatsRow {
  EngineAttribute id;
  const char* wrongCount;
  std::span<float> (*values)(StartConfig& config);
};
constexpr FloatsRow kFloatsRows[] = {
    {EngineAttribute::Offset, "Offset requires 6 floats",
     [](StartConfig& c) { return std::span<float>(c.transmitterOffset); }},
    {EngineAttribute::Hemisphere, "Hemisphere requires 3 floats",
     [](StartConfig& c) { return std::span<float>(c.hemisphere); }},
    {EngineAttribute::AlignX, "Align requires 3 floats",
     [](StartConfig& c) { return std::span<float>(c.alignX); }},
    {EngineAttribute::AlignY, "Align requires 3 floats",
     [](StartConfig& c) { return std::span<float>(c.alignY); }},
};

// ---- Texts -----------------------------------------------------------------------------------

// Reads the number at the beginning of `text`. False without one, and for one that no int holds.
bool ReadLeadingInt(const char* text, int& number) {
  errno = 0;
  char* end = nullptr;
  const long read = std::strtol(text, &end, 10);
  if (end == text || errno == ERANGE) return false;
  if (read < std::numeric_limits<int>::min() || read > std::numeric_limits<int>::max())
    return false;
  number = static_cast<int>(read);
  return true;
}

}  // namespace

bool TrackerEngine::GetNumAvailableAttributes(int* count) {
  if (count == nullptr) return false;
  *count = kAttributeCount;
  return true;
}

bool TrackerEngine::GetAvailableAttributes(int count, AttributeInfo* rows) {
  return CopyAttributeRows(kAttributes, count, rows);
}

// ---- Reading ---------------------------------------------------------------------------------

bool TrackerEngine::GetAttributeInt(int id, int* value) {
  ControlCall call(*state_, "GetAttributeInt");
  if (!call.IsOpen() || !call.IsGiven(value, "val")) return false;
  const IntRow* const row = FindRow(kIntRows, id);
  if (row == nullptr) {
    state_->status.SetStatus(StatusCode::Refused, "SetAttributeInt: Invalid Attribute");
    return false;
  }
  if (row->asksDevice && !call.UseDevice()) return false;
  *value = row->get(state_->config, call.device());
  return true;
}

bool TrackerEngine::GetAttributeFloatArray(int id, int count, float* values) {
  ControlCall call(*state_, "GetAttributeFloatArray");
  if (!call.IsOpen() || values == nullptr) return false;
  const FloatsRow* const row = FindRow(kFloatsRows, id);
  if (row == nullptr) return call.Refuse("Invalid Attribute");
  const std::span<float> from = row->values(state_->config);
  if (count != static_cast<int>(from.size())) return call.Refuse(row->wrongCount);
  std::copy(from.begin(), from.end(), values);
  return true;
}

bool TrackerEngine::GetAttributeString(int id, int size, char* text) {
  ControlCall call(*state_, "GetAttributeString");
  if (!call.IsOpen() || text == nullptr || size <= 0) return false;
  switch (static_cast<EngineAttribute>(id)) {
    case EngineAttribute::TrackerName:
      CopyUpTo(text, size, state_->trackerName.c_str());
      break;
    case EngineAttribute::CurrentStatus:
      CopyUpTo(text, size, state_->status.Newest().text.c_str());
      break;
    case EngineAttribute::Protocol:
      if (!call.UseDevice()) return false;
      call.device().GetProtocolText(text, size);
      break;
    case EngineAttribute::ControlString:
      if (!call.UseDevice()) return false;
      return call.device().GetControlString(text, size);
    default:
      return call.Refuse("Invalid Attribute");
  }
  return true;
}

// ---- Changing --------------------------------------------------------------------------------

// Runs `change`; with `stop`, stops the sampling thread first and starts it again afterwards if it
// ran. Leaves the lock while the thread ends, so the engine may be closed then.
template <typename Change>
bool TrackerEngine::ChangeWhileStopped(ControlCall& call, bool stop, Change change) {
  const bool ran = stop && worker_.IsRunning();
  if (ran) call.lock().Leave([this] { StopAndWait(); });
  if (!call.IsOpen()) return false;
  const bool changed = change();
  if (ran) StartSampling(call.lock());
  return changed;
}

bool TrackerEngine::SetAttributeInt(int id, int value) {
  ControlCall call(*state_, "SetAttributeInt");
  if (!call.IsOpen()) return false;
  const auto attribute = static_cast<EngineAttribute>(id);
  const bool stops =
      attribute == EngineAttribute::SharedMemoryId || attribute == EngineAttribute::SensorMask ||
      attribute == EngineAttribute::ComponentMask || attribute == EngineAttribute::Units ||
      attribute == EngineAttribute::Synchronization;
  const bool set = ChangeWhileStopped(call, stops, [&] {
    call.lock().AssertHolds(state_->mutex);
    return SetInt(call, attribute, value);
  });
  return set || call.Refuse("Set Failed", StatusCode::Port);
}

bool TrackerEngine::SetInt(ControlCall& call, EngineAttribute attribute, int value) {
  StartConfig& config = state_->config;
  TrackerDevice& device = call.device();
  switch (attribute) {
    case EngineAttribute::SharedMemoryId:
      return SetSharedMemoryDevice(call.lock(), value);
    case EngineAttribute::JoystickPort:
      if (!call.UseDevice())
        return false;  // the sampling thread reads the joystick under the same lock
      config.joystickPort = value;
      if (value != 0) AttachJoystick(call.lock());
      return true;
    case EngineAttribute::Bore:
      config.bore = value;
      return true;
    case EngineAttribute::Continuous:
      config.streaming = value;
      return true;
    case EngineAttribute::DeviceType:
      return call.Refuse("MtsDeviceType cannot be set.", StatusCode::NotAllowed);
    default:
      break;
  }
  if (!call.UseDevice()) return false;
  switch (attribute) {
    case EngineAttribute::SensorMask:
      config.sensorMask = device.SetSensorMask(static_cast<unsigned>(value), 0);
      ResetMappings(call.lock());
      return true;
    case EngineAttribute::ComponentMask:
      config.componentMask = static_cast<unsigned>(value);
      device.SetComponentMask(config.componentMask);
      return true;
    case EngineAttribute::Units:
      config.units = value;
      device.SetUnits(value);
      return true;
    case EngineAttribute::RollAllSensors:
      config.rollAll = value;
      PushRoll(*state_, call.lock());
      return true;
    case EngineAttribute::Query:
      config.query = value;
      if (value != 0) ReportStatusOnDemand(device);
      return true;
    case EngineAttribute::Synchronization:
      config.sync = value;
      device.SetSynchronization(value);
      return true;
    default:
      return call.Refuse("Invalid Attribute", StatusCode::NotAllowed);
  }
}

void TrackerEngine::ReportStatusOnDemand(TrackerDevice& device) {
  std::array<char, 256> text{};
  if (device.QueryStatus(text.data(), static_cast<int>(text.size()) - 1) == 0) return;
  PrintOutput("STATUS: %s\n", text.data());
  state_->status.SetStatus(StatusCode::Progress, text.data());
}

bool TrackerEngine::SetAttributeFloatArray(int id, int count, const float* values) {
  ControlCall call(*state_, "SetAttributeFloatArray");
  if (!call.IsOpen()) return false;
  const FloatsRow* const row = FindRow(kFloatsRows, id);
  const bool stops = row != nullptr && row->id != EngineAttribute::Offset;
  const bool set = ChangeWhileStopped(call, stops, [&] {
    call.lock().AssertHolds(state_->mutex);
    if (row == nullptr) return call.Refuse("Invalid Attribute", StatusCode::Port);
    const std::span<float> into = row->values(state_->config);
    if (count != static_cast<int>(into.size())) return call.Refuse(row->wrongCount);
    if (!call.IsGiven(values, "vec") || !call.UseDevice()) return false;
    std::copy_n(values, into.size(), into.begin());
    PushFloats(call, row->id);
    return true;
  });
  return set || call.Refuse("Set Failed", StatusCode::Port);
}

void TrackerEngine::PushFloats(ControlCall& call, EngineAttribute attribute) {
  TrackerDevice& device = call.device();
  if (attribute == EngineAttribute::Offset) {
    device.SetSensorOffset(-1, state_->config.transmitterOffset.data());
  } else if (attribute == EngineAttribute::Hemisphere) {
    for (SensorSettings& each : state_->config.sensors) each.hemisphere.reset();
    device.SetHemisphere(-1, state_->config.hemisphere.data());
  } else {
    for (SensorSettings& each : state_->config.sensors) each.alignment.reset();
    PushAlignment(*state_, call.lock(), StatusCode::Progress);
  }
}

bool TrackerEngine::SetAttributeString(int id, const char* text) {
  ControlCall call(*state_, "SetAttributeString");
  if (!call.IsOpen() || !call.IsGiven(text, "str")) return false;
  const auto attribute = static_cast<EngineAttribute>(id);
  const bool known =
      attribute == EngineAttribute::TrackerName || attribute == EngineAttribute::CurrentStatus ||
      attribute == EngineAttribute::Protocol || attribute == EngineAttribute::ControlString;
  if (!known) return call.Refuse("Invalid Attribute");
  const bool stops = attribute == EngineAttribute::Protocol;
  const bool set = ChangeWhileStopped(call, stops, [&] {
    call.lock().AssertHolds(state_->mutex);
    return SetText(call, attribute, text);
  });
  if (!set) state_->status.SetStatus(StatusCode::Port, "SetAttributeFloatArray: Set Failed");
  return set;
}

bool TrackerEngine::SetText(ControlCall& call, EngineAttribute attribute, const char* text) {
  if (attribute == EngineAttribute::CurrentStatus) return true;  // accepted without effect
  if (attribute == EngineAttribute::TrackerName) {
    state_->trackerName = text;
    return true;
  }
  if (attribute == EngineAttribute::Protocol) return SetProtocol(call, text);
  if (!call.UseDevice()) return false;
  if (call.device().SetControlString(text)) {
    state_->requests.KeepControlString(text);
    return true;
  }
  state_->status.SetStatusF(StatusCode::Refused, "SetAttributeString: SetControlString(%s) failed",
                            text);
  return false;
}

bool TrackerEngine::SetProtocol(ControlCall& call, const char* text) {
  int asked = 0;
  if (!ReadLeadingInt(text, asked)) {
    return call.Refuse("Invalid Protocol.  Protocol string must start with an integer.");
  }
  if (!call.UseDevice()) return false;
  const int got = call.device().SetProtocol(asked);
  if (got == asked) {
    state_->requests.protocol = asked;
    return true;
  }
  state_->status.SetStatusF(
      StatusCode::Refused,
      "SetAttributeString: MtsProtocol failed. Requested protocol %d, returned %d.", asked, got);
  return false;
}

}  // namespace kinetrel
