#include "drivers/isense_device.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "devices/bounded_text.h"
#include "drivers/isense_library.h"
#include "platform/console.h"

namespace kinetrel {
namespace {

// ---- The library ---------------------------------------------------------------------------

constexpr int kFirstRebroadcastPort = 1001;
constexpr int kLastPort = 0xFFFF;
constexpr std::uint16_t kStation = 1;
constexpr int kQuiet = 0;  // no message windows

constexpr Milliseconds kSourcePause{1000};
constexpr Milliseconds kRecordPause{1};
constexpr int kTestReads = 100;
constexpr float kUnknownKBits = 38.4F;
constexpr float kMostKBits = 4.0e6F;  // what an unsigned number of bits a second holds

constexpr unsigned kFamily = static_cast<unsigned>(DeviceFamily::VendorLibrary);
constexpr unsigned kBootedFamily = kFamily | 2;
constexpr unsigned kFlagsCleared = 0x000F0000;
constexpr unsigned kFlagsSet = 0x00100000;
constexpr double kRadiansPerCount = kPi / 32767;

constexpr std::array<const char*, 3> kLevels = {"Accurate", "AccuSmooth", "Smooth"};

// ---- Models --------------------------------------------------------------------------------

constexpr std::uint32_t kInertiaCube2 = 8;

struct ModelSetup {
  DeviceName name;
  unsigned components;
  int sensors;
};

struct ModelRow {
  std::uint32_t first, last;  // models
  int rate;                   // Hz
  std::optional<ModelSetup> setup;
  bool resetsLevel;
};

constexpr unsigned kPositionAndEuler = kPositionComponent | kEulerComponent;

constexpr ModelRow kModels[] = {
    {1, 1, 150, ModelSetup{DeviceName::InterSense300, kEulerComponent, 4}, false},
    {2, 2, 180, ModelSetup{DeviceName::InterSense600, kPositionAndEuler, 4}, false},
    {3, 3, 180, std::nullopt, false},
    {4, 7, 256, ModelSetup{DeviceName::InterSenseIntertrax, kEulerComponent, 1}, false},
    {8, 9, 120, ModelSetup{DeviceName::InertiaCube2, kEulerComponent, 1}, true},
    {11, 11, 180, ModelSetup{DeviceName::InertiaCube3, kEulerComponent, 1}, true},
};

const ModelRow* FindModel(std::uint32_t model) {
  for (const ModelRow& row : kModels) {
    if (row.first <= model && model <= row.last) return &row;
  }
  return nullptr;
}

int PortOfName(const char* name) {
  int number = 0;
  return name != nullptr && std::sscanf(name, "%*s%d", &number) == 1 ? number : 0;
}

constexpr int CodeOf(IsenseFailure failure) { return static_cast<int>(failure); }

}  // namespace

IsenseDevice::IsenseDevice() {
  sensorCount_ = 1;
  totalFrameRate_ = 120;
  componentMask_ = kEulerComponent;
  deviceType_ = static_cast<int>(DeviceName::InterSenseLibrary);
  SetName(DeviceName::InterSenseLibrary);
  statusWord_ = kFamily;
}

IsenseDevice::~IsenseDevice() { CloseTracker(); }

// ---- Port ----------------------------------------------------------------------------------

int IsenseDevice::OpenPort(const char* name, int baud) {
  return OpenPortNumber(PortOfName(name), baud);
}

int IsenseDevice::OpenPortNumber(int number, int) {
  return OpenSource(number) ? 1 : CodeOf(IsenseFailure::OpenFailed);
}

int IsenseDevice::ClosePort() {
  if (trackerHandle_ >= 0) {
    CloseTracker();
    port_ = 0;
  }
  return 1;
}

int IsenseDevice::GetPortNumber() { return port_; }

bool IsenseDevice::IsTrackerLive() const {
  if (!HasTracker()) return false;
  // A library without the function would lose its tracker at each look.
  if (!IsenseLibrary::OfProcess().HasCommInfo()) return true;
  IsenseTrackerInfo info;
  return ISD_GetCommInfo(trackerHandle_, &info) != 0;
}

bool IsenseDevice::OpenSource(int port) {
  if (IsTrackerLive()) return true;
  if (port >= kFirstUdpPort) {
    LookForSource(port);
  } else {
    probe_.Close();
    if (!OpenTracker(port, true)) return false;
  }
  port_ = port;
  return true;
}

// The sender may start later, so the library gets the port only when a datagram has arrived.
void IsenseDevice::LookForSource(int port) {
  if (probe_.port() != port) ReportUdpPort(port, probe_.Open(port));
  if (!probe_.IsOpen() || probe_.Drain() == 0) return;
  probe_.Close();
  OpenTracker(port, false);
}

void IsenseDevice::ReportUdpPort(int port, const Status& opened) {
  if (!opened.Ok() && !busyReported_ && statusLog_ != nullptr) {
    Announce(*statusLog_, "\n\t", StatusCode::Port, "UDP port %d cannot be opened yet: %s.", port,
             Describe(opened).c_str());
  }
  busyReported_ = !opened.Ok();
}

// A tracker that the library has lost is closed first. Otherwise it would keep its port and the
// library loaded.
bool IsenseDevice::OpenTracker(int port, bool infoScreen) {
  if (HasTracker()) ISD_CloseTracker(trackerHandle_);
  trackerHandle_ =
      ISD_OpenTracker(nullptr, static_cast<std::uint32_t>(port), infoScreen ? 1 : 0, kQuiet);
  return trackerHandle_ >= 0;
}

void IsenseDevice::CloseTracker() {
  if (HasTracker()) ISD_CloseTracker(trackerHandle_);
  trackerHandle_ = 0;
  probe_.Close();
}

unsigned IsenseDevice::GetBaudRate() {
  IsenseTrackerInfo info;
  if (!HasTracker() || ISD_GetCommInfo(trackerHandle_, &info) == 0) return 0;
  float kBits = info.kBitsPerSec != 0 ? info.kBitsPerSec : MeasureKBits();
  if (kBits == 0) kBits = kUnknownKBits;
  if (!(kBits >= 0 && kBits <= kMostKBits)) return 0;
  return static_cast<unsigned>(kBits * 1000.0F);
}

// Some trackers know their rate only after they have sent data for a while.
float IsenseDevice::MeasureKBits() {
  PrintOutput("\nsizeof(ISD_TRACKER_DATA_TYPE) = %d", static_cast<int>(sizeof data_));
  PrintOutput("\nTesting port ");
  for (int i = 0; i < kTestReads; ++i) {
    PrintOutput(".");
    ISD_GetData(trackerHandle_, &data_);
  }
  PrintOutput("*\n");
  IsenseTrackerInfo info;
  ISD_GetTrackerConfig(trackerHandle_, &info, kQuiet);
  PrintOutput("\nKBitsPerSec:\t%f", double{info.kBitsPerSec});
  PrintOutput("\nRecordsPerSec:\t%u", info.recordsPerSec);
  PrintOutput("\nSyncRate:\t%f", double{info.syncRate});
  return info.kBitsPerSec;
}

// ---- Life ----------------------------------------------------------------------------------

BootResult IsenseDevice::Boot(int) {
  booted_ = false;
  if (!OpenSource(port_)) return kPortNotOpen;
  IsenseTrackerInfo info;
  if (!ReadTrackerConfig(info, nullptr, 0)) {
    if (port_ < kFirstUdpPort) return CodeOf(IsenseFailure::NoTrackerConfig);
    info.trackerModel = kInertiaCube2;
  }
  SetUpModel(info.trackerModel);
  StartTimer();
  statusWord_ = (statusWord_ & ~(0xFFFFU | kFlagsCleared)) | kBootedFamily | kFlagsSet;
  SetScales();
  if (!AllocateSensors(static_cast<unsigned>(sensorCount_))) return 0;
  booted_ = true;
  return kBooted;
}

void IsenseDevice::SetUpModel(std::uint32_t model) {
  if (const ModelRow* const row = FindModel(model)) {
    if (row->setup) {
      deviceType_ = static_cast<int>(row->setup->name);
      componentMask_ = row->setup->components;
      sensorCount_ = row->setup->sensors;
    }
    totalFrameRate_ = row->rate;
    if (row->resetsLevel) SetProtocol(0);
  }
  SetName(static_cast<DeviceName>(deviceType_));
}

// Without a timer, Poll returns at its time-out, so frames come more slowly.
void IsenseDevice::StartTimer() {
  framePeriodMs_ = totalFrameRate_ > 0 ? std::max(1, 1000 / totalFrameRate_) : 10;
  static_cast<void>(frameTimer_.Start(Milliseconds(framePeriodMs_)));
}

void IsenseDevice::SetScales() {
  for (std::size_t i = 0; i < 6; ++i) {
    const bool reversed = i == 1 || i == 2;
    channels_[i].scale = reversed ? -kRadiansPerCount : kRadiansPerCount;
  }
}

bool IsenseDevice::ConnectionLost() { return port_ < kFirstUdpPort && !IsTrackerLive(); }

int IsenseDevice::QueryStatus(char* text, int size) {
  IsenseTrackerInfo info;
  return ReadTrackerConfig(info, text, size) ? 1 : CodeOf(IsenseFailure::NoTrackerConfig);
}

bool IsenseDevice::ReadTrackerConfig(IsenseTrackerInfo& info, char* text, int size) {
  info = {};
  if (ISD_GetTrackerConfig(trackerHandle_, &info, kQuiet) == 0) return false;
  FormatTrackerInfo(info, text, size);
  return true;
}

bool IsenseDevice::ReadStationConfig(IsenseStationInfo& info, char* text, int size) {
  info = {};
  if (ISD_GetStationConfig(trackerHandle_, &info, kStation, kQuiet) == 0) return false;
  FormatStationInfo(info, text, size);
  return true;
}

// ---- Sampling ------------------------------------------------------------------------------

unsigned IsenseDevice::ReadFrame(double* sampleTime) {
  if (poses_.empty()) return 0;
  if (!HasTracker() && port_ >= kFirstUdpPort) {
    OpenSource(port_);
    if (!HasTracker()) return ReportNoSource(sampleTime);
  }
  if (!TakeNewData()) return 0;
  const double time = ElapsedSeconds();
  if (sampleTime != nullptr) *sampleTime = time;
  StoreOrientation(data_.stations[0]);
  TellRecords(1, time);
  const bool passesOn = rebroadcastPort_ >= kFirstRebroadcastPort;
  if (!passesOn) return 1;
  const auto to = static_cast<std::uint32_t>(rebroadcastPort_);
  return ISD_UdpBroadcastData(trackerHandle_, to, &data_, nullptr) != 0 ? 1 : 0;
}

// The timer is a little faster than the tracker, so about every tenth record is not ready at once.
// Reporting that as a failure would make the engine pause and miss the next records.
bool IsenseDevice::TakeNewData() {
  const Deadline patience{Milliseconds(2 * framePeriodMs_)};
  do {
    if (ISD_GetData(trackerHandle_, &data_) == 0) return false;
    if (data_.stations[0].newData != 0) return true;
    SleepFor(kRecordPause);
  } while (!patience.Passed());
  return false;
}

unsigned IsenseDevice::ReportNoSource(double* sampleTime) {
  SleepFor(kSourcePause);
  if (sampleTime != nullptr) *sampleTime = ElapsedSeconds();
  poses_[0] = {};
  return 1;
}

void IsenseDevice::StoreOrientation(const IsenseStationData& station) {
  const auto& from = station.orientation;
  if ((componentMask_ & kEulerComponent) != 0) {
    poses_[0][3] = static_cast<float>(from[0] * -kRadiansPerDegree);
    poses_[0][4] = static_cast<float>(from[1] * -kRadiansPerDegree);
    poses_[0][5] = static_cast<float>(from[2] * kRadiansPerDegree);
  }
  if ((componentMask_ & kQuaternionComponent) != 0) {
    quaternions_[0] = {from[0], from[1], -from[2], -from[3]};
  }
}

void IsenseDevice::Poll() { frameTimer_.Wait(Milliseconds(2 * framePeriodMs_)); }

// ---- Settings ------------------------------------------------------------------------------

int IsenseDevice::SetProtocol(int level) {
  const bool inRange = level >= 0 && level < static_cast<int>(kLevels.size());
  if (!inRange) return CodeOf(IsenseFailure::LevelOutOfRange);
  if (HasTracker()) {
    IsenseStationInfo info;
    if (!ReadStationConfig(info, nullptr, 0)) return CodeOf(IsenseFailure::NoStationConfig);
    info.enhancement = static_cast<std::uint32_t>(level);
    if (ISD_SetStationConfig(trackerHandle_, &info, kStation, kQuiet) == 0) {
      return CodeOf(IsenseFailure::StationConfigRefused);
    }
  }
  return protocol_ = level;
}

unsigned IsenseDevice::SetComponentMask(unsigned mask) {
  if ((mask & kEulerComponent) != 0) mask &= ~kQuaternionComponent;
  componentMask_ = mask;
  IsenseStationInfo info;
  if (HasTracker() && ReadStationConfig(info, nullptr, 0)) {
    const bool quaternion = (mask & kQuaternionComponent) != 0;
    info.angleFormat = quaternion ? IsenseAngleFormat::AsQuaternion : IsenseAngleFormat::AsEuler;
    ISD_SetStationConfig(trackerHandle_, &info, kStation, kQuiet);
  }
  return componentMask_;
}

bool IsenseDevice::SetControlString(const char* text) {
  if (text == nullptr || *text == '\0') return true;
  char* end = nullptr;
  const long number = std::strtol(text, &end, 0);
  const bool isPort = end != text && number >= 0 && number <= kLastPort;
  rebroadcastPort_ = isPort ? static_cast<int>(number) : 0;
  return isPort;
}

// ---- Identity ------------------------------------------------------------------------------

int IsenseDevice::GetProtocolText(char* text, int size) {
  const auto level = static_cast<std::size_t>(protocol_);
  std::array<char, 40> line;
  std::snprintf(line.data(), line.size(), "%d: %s", protocol_,
                level < kLevels.size() ? kLevels[level] : "Invalid");
  CopyTruncated(text, size, line.data());
  return protocol_;
}

bool IsenseDevice::GetControlString(char* text, int size) {
  std::array<char, 16> number;
  std::snprintf(number.data(), number.size(), "%d", rebroadcastPort_);
  CopyUpTo(text, size, number.data());
  return true;
}

}  // namespace kinetrel
