#include "engine/tracker_engine.h"

#include <new>
#include <utility>

#include "engine/apply_configuration.h"
#include "engine/sample_loop.h"
#include "platform/console.h"

namespace kinetrel {
namespace {

// Its library delivers Euler angles from the start, whatever was configured before.
constexpr int kIsenseType = 6;

// Types that had a driver once. They are refused by name.
struct RetiredType {
  int type;
  const char* name;
};
constexpr RetiredType kRetiredTypes[] = {{5, "SpaceBall"}, {7, "Veltrano MTS client"}};

// A port in a message: its path if the configuration has one, else its number.
std::string PortText(const StartConfig& config, int number) {
  const bool isPath = config.port == StartConfig::kNamedPort && !config.PortName().empty();
  return isPath ? config.portName : std::to_string(number);
}

}  // namespace

TrackerEngine::TrackerEngine(DeviceFactory factory)
    : factory_(std::move(factory)), state_(std::make_shared<EngineState>()) {}

TrackerEngine::~TrackerEngine() { Close(); }

bool TrackerEngine::Configure(const StartConfig& config) {
  const EngineLock lock(state_->mutex);
  if (state_->isOpen) {
    state_->status.SetStatus(StatusCode::NotAllowed, "Configure: MTS already open");
    return false;
  }
  ResetMappings(lock);
  state_->config = config;
  return true;
}

StartConfig TrackerEngine::Configuration() const {
  const EngineLock lock(state_->mutex);
  return state_->config;
}

// ---- Open and close --------------------------------------------------------------------------

OpenResult TrackerEngine::Open(int deviceType, int port, bool resetConfiguration) {
  EngineLock lock(state_->mutex);
  // A Close that waits for the sampling thread leaves the lock while the device still exists.
  if (state_->isOpen || state_->device != nullptr) {
    state_->status.SetStatus(StatusCode::NotAllowed, "Open: MTS already open");
    return OpenResult::AlreadyOpen;
  }
  if (resetConfiguration) state_->config = StartConfig{};
  state_->config.deviceType = deviceType;
  state_->config.port = port;
  state_->trackerName.clear();
  state_->requests = {};
  if (deviceType == kIsenseType) state_->config.componentMask = kEulerComponent;
  BeginCapture();
  const OpenResult result = Attach(lock);
  if (result != OpenResult::Opened) {
    state_->capture.reset();
    return result;
  }

  SetSharedMemoryDevice(lock, state_->config.shmDevice);
  state_->isOpen = true;
  return OpenResult::Opened;
}

// Before the port is opened: a tracker that does not boot is what a capture is wanted for.
void TrackerEngine::BeginCapture() {
  const std::string& file = state_->config.captureFile;
  if (file.empty()) return;
  auto begun = Capture::Open(file, state_->config.captureOptions,
                             std::shared_ptr<StatusLog>(state_, &state_->status));
  if (begun.Ok()) {
    state_->capture = std::move(*begun);
    return;
  }
  Announce(state_->status, "\n\t", StatusCode::Refused, "No capture in %s: %s.", file.c_str(),
           Describe(begun.status()).c_str());
}

OpenResult TrackerEngine::Attach(const EngineLock& lock) {
  std::shared_ptr<TrackerDevice> device = MakeDevice(state_->config.deviceType);
  if (device == nullptr) return OpenResult::NoDevice;
  device->SetStatusLog(&state_->status);
  device->SetTap(state_->capture);
  Announce(state_->status, "\n", StatusCode::Progress, "Initializing %s... ",
           device->GetDeviceName());
  if (!OpenPort(*device)) return OpenResult::PortFailed;
  if (!BootDevice(*device)) return OpenResult::BootFailed;
  state_->device = std::move(device);
  if (state_->config.joystickPort != 0) {
    PrintError("\n\tTrying JOYSTICK ... ");
    AttachJoystick(lock);
  }
  ResetMappings(lock);
  ApplyConfiguration(*state_, lock);
  // A device that has none of the sensors asked for samples those that it has.
  const unsigned sensors = state_->device->GetSensorMask();
  if (sensors != 0 && (sensors & state_->config.sensorMask) == 0) {
    state_->config.sensorMask = sensors;
    ResetMappings(lock);
  }
  for (const FilterOption& option : state_->config.filters)
    LogDescription(state_->status, *option.filter);
  return OpenResult::Opened;
}

std::unique_ptr<TrackerDevice> TrackerEngine::MakeDevice(int deviceType) {
  StatusLog& log = state_->status;
  for (const RetiredType& retired : kRetiredTypes) {
    if (retired.type != deviceType) continue;
    PrintError("\n%s instrument (TYPE=%d) not supported.", retired.name, deviceType);
    log.SetStatusF(StatusCode::Refused, "%s instrument not supported.", retired.name);
    return nullptr;
  }
  std::unique_ptr<TrackerDevice> device;
  try {
    device = factory_.device(deviceType);
  } catch (const std::bad_alloc&) {  // reported like a type without a driver
  }
  if (device == nullptr) {
    PrintError("Unknown TYPE tistart.dtyp = %d", deviceType);
    log.SetStatus(StatusCode::Refused, "Unknown device type specified.");
  }
  return device;
}

bool TrackerEngine::OpenPort(TrackerDevice& device) {
  StatusLog& log = state_->status;
  const std::string asked = PortText(state_->config, state_->config.port);
  if (OpenConfiguredPort(device, state_->config) < 1) {
    Announce(log, "\n\t", StatusCode::Port, "Port(%s) failed to open(%d).", asked.c_str(),
             static_cast<int>(device.portStatus()));
    if (!device.openFailure().empty()) {
      Announce(log, "\n\t\t", StatusCode::Port, "%s", device.openFailure().c_str());
    }
    return false;
  }
  const int opened = device.GetPortNumber();
  if (opened > 255) {
    Announce(log, "\n\t", StatusCode::PortOpen, "USB port open ... ");
  } else {
    Announce(log, "\n\t", StatusCode::PortOpen, "Serial port(%s) open ... ",
             PortText(state_->config, opened).c_str());
  }
  return true;
}

bool TrackerEngine::BootDevice(TrackerDevice& device) {
  StatusLog& log = state_->status;
  const BootResult result = device.Boot(0);
  if (result >= kBooted) {
    Announce(log, "\n\t", StatusCode::Setup, "Tracker(%s) booted ... ", device.GetDeviceName());
    return true;
  }
  Announce(log, "\n\t", StatusCode::Boot, "Tracker(%s) failed to boot(%d).", device.GetDeviceName(),
           result);
  if (const char* const text = BootFailureText(result)) {
    PrintOutput("\n\t\t%s\n", text);
    log.SetStatus(StatusCode::Boot, text);
  }
  device.ClosePort();
  return false;
}

bool TrackerEngine::AttachJoystick(const EngineLock&) {
  if (state_->joystick != nullptr) return state_->joystick->Boot(0) == 1;
  // -j only switches the joystick on; the first joystick is used.
  std::shared_ptr<DAQControl> joystick = factory_.joystick(0);
  const int id = joystick != nullptr ? joystick->GetId() : 0;
  const int booted = joystick != nullptr ? joystick->Boot(0) : 0;
  if (booted >= 1) {
    Announce(state_->status, "\n\t", StatusCode::Counts, "Joystick(%d) booted ... ", id);
    state_->joystick = std::move(joystick);
  } else {
    Announce(state_->status, "\n\t", StatusCode::Joystick, "Joystick(%d) failed to boot(%d).", id,
             booted);
  }
  return true;
}

bool TrackerEngine::Close() {
  if (!state_->isOpen.exchange(false)) return false;
  StopAndWait();
  EngineLock lock(state_->mutex);
  // Again, because a call that held the lock may have started a thread since.
  lock.Leave([this] { StopAndWait(); });
  state_->joystick.reset();
  // An abandoned thread still uses the device and co-owns it. The port closes with the device when
  // that thread releases it.
  if (state_->device.use_count() == 1) state_->device->ClosePort();
  state_->device.reset();
  if (state_->capture != nullptr) state_->capture->Close();
  state_->capture.reset();
  state_->config.shmDevice = StartConfig::kShmFromPort;
  return true;
}

bool TrackerEngine::IsOpen() const { return state_->isOpen; }

// ---- Configuration ---------------------------------------------------------------------------

bool TrackerEngine::SetSharedMemoryDevice(int id) {
  EngineLock lock(state_->mutex);
  return SetSharedMemoryDevice(lock, id);
}

bool TrackerEngine::SetSharedMemoryDevice(EngineLock& lock, int id) {
  StartConfig& config = state_->config;
  if (id >= kSharedDevices) return false;
  if (id < 0) id = (config.port % kSharedDevices + kSharedDevices - 1) % kSharedDevices;
  if (id == config.shmDevice) return true;

  const bool wasRunning = worker_.IsRunning();
  if (wasRunning) lock.Leave([this] { StopAndWait(); });
  MappingTable moved;
  while (!state_->mappings.empty()) {
    auto entry = state_->mappings.extract(state_->mappings.begin());
    entry.key().shmDevice = id;
    entry.mapped().ResetStatistics();
    moved.insert(std::move(entry));
  }
  state_->mappings = std::move(moved);
  config.shmDevice = id;
  if (wasRunning) StartSampling(lock);
  return true;
}

bool TrackerEngine::ResetMappings() {
  const EngineLock lock(state_->mutex);
  ResetMappings(lock);
  return true;
}

bool TrackerEngine::AddDefaultMappings() {
  const EngineLock lock(state_->mutex);
  AddDefaultMappings(lock);
  return true;
}

void TrackerEngine::ResetMappings(const EngineLock& lock) {
  state_->mappings.clear();
  state_->filters.Clear();
  AddDefaultMappings(lock);
}

void TrackerEngine::AddDefaultMappings(const EngineLock& lock) {
  for (const ConfiguredMapping& mapping : state_->config.mappings) {
    AddDefaultMapping(lock, mapping);
  }
  if (!state_->config.mappings.empty()) return;
  for (int sensor = 0; sensor < kPoseSlots; ++sensor) AddDefaultMapping(lock, {sensor, 0, sensor});
}

void TrackerEngine::AddDefaultMapping(const EngineLock&, const ConfiguredMapping& mapping) {
  if (!HasStation(state_->config.sensorMask, mapping.sensor)) return;
  const MappingKey key = {state_->config.shmDevice, mapping.bin, mapping.poseSlot};
  if (state_->mappings.contains(key)) return;
  state_->MapSensor(key, mapping.sensor);
  AddConfiguredFilters(key, mapping.sensor);
}

void TrackerEngine::AddConfiguredFilters(const MappingKey& key, int sensor) {
  for (const FilterOption& option : state_->config.filters) {
    if (!HasStation(option.sensors, sensor)) continue;
    const Lock held(state_->filters.mutex);
    state_->filters.ChainOf(key).Append(option.filter->Clone());
    state_->filters.Changed();
  }
}

// ---- Sampling --------------------------------------------------------------------------------

bool TrackerEngine::StartSampling() {
  const EngineLock lock(state_->mutex);
  return StartSampling(lock);
}

// Under the lock, so that no run starts during a Close.
bool TrackerEngine::StartSampling(const EngineLock&) {
  if (!state_->isOpen) return false;
  const bool started =
      worker_.Start([state = state_](const StopEvent& stop) { SampleLoop(state, stop).Run(); });
  if (!started)
    Announce(state_->status, "\n\t", StatusCode::Refused, "Unable to start the sampling thread.");
  return started;
}

bool TrackerEngine::StopSampling(bool wait) {
  wait ? StopAndWait() : static_cast<void>(worker_.Stop(false));
  return true;
}

// Readers of the stream would take a run that was given up for one that goes on: its writer lives.
void TrackerEngine::StopAndWait() {
  if (worker_.Stop(true)) return;
  const EngineLock lock(state_->mutex);
  constexpr const char* kWhy =
      " did not answer for 10 seconds and was given up. Unplug it, and start this program again.";
  const std::string text =
      (state_->device != nullptr ? state_->device->GetDeviceName() : "") + std::string(kWhy);
  Announce(state_->status, "\n\t", StatusCode::Port, "%s", text.c_str());
  if (const auto stream = state_->stream.lock()) {
    stream->SetState(kinetrel_state_failed, text.c_str());
  }
}

bool TrackerEngine::WaitSampling(Milliseconds timeout) const { return worker_.Wait(timeout); }

bool TrackerEngine::HasSamplingThread() const { return worker_.Exists(); }

SamplingProgress TrackerEngine::Progress() const { return {state_->passes, state_->frames}; }

bool TrackerEngine::ZeroAzimuth() {
  const EngineLock lock(state_->mutex);
  state_->azimuthZero = state_->lastRawAzimuth;
  return true;
}

bool TrackerEngine::RestoreAzimuth() {
  const EngineLock lock(state_->mutex);
  state_->azimuthZero = 0.0F;
  return true;
}

}  // namespace kinetrel
