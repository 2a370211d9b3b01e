#include "drivers/liberty_device.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <utility>

#include "devices/bounded_text.h"
#include "devices/polhemus_usb.h"
#include "drivers/liberty_usb.h"
#include "platform/console.h"

namespace kinetrel {
namespace {

constexpr int kDeviceType = 10;
constexpr unsigned kStationBits = 0xFFFF;
constexpr int kAllStations = -1;
constexpr int kFrameWaitMs = 500;
constexpr int kTriesWithoutPeriod = 10;
constexpr Milliseconds kStreamStart{100};
constexpr float kRadians = 0.017453292F;

constexpr std::int32_t kPositionItem = 2;
constexpr std::int32_t kEulerItem = 4;
constexpr std::int32_t kQuaternionItem = 7;
constexpr std::int32_t kFrameCountItem = 9;

// By the library's code.
constexpr unsigned kBauds[] = {1200, 2400, 4800, 9600, 19200, 38400, 57600, 115200};
constexpr int k115200 = 7;

// By the driver's protocol.
struct RateRow {
  int protocol;
  int code;  // the library's
  const char* text;
};
constexpr RateRow kRates[] = {{4, 3, "120 Hz"}, {5, 4, "240 Hz"}};

const RateRow* RateOf(int protocol) {
  const auto* const row = std::ranges::find(kRates, protocol, &RateRow::protocol);
  return row != std::end(kRates) ? row : nullptr;
}

constexpr float kOrigin[3] = {0, 0, 0};
constexpr float kXAxis[3] = {1, 0, 0};
constexpr float kYAxis[3] = {0, 1, 0};

}  // namespace

LibertyDevice::LibertyDevice() : pdiSerial_(k115200, 0, 1) {
  const std::lock_guard lock(pdiLock_);
  if (!resolution_.IsRaised()) PrintError("Function call timeGetDevCaps error\n");
  offsetFilter_.SetSubtract(false);
  offsetFilter_.SetPreTransform(false);
  sensorMask_ = 0xFFFFFFFF;
  deviceType_ = kDeviceType;
  statusWord_ = kDeviceType;
  SetName(DeviceName::PolhemusLiberty);
  productCode_ = static_cast<int>(DeviceName::PolhemusLiberty);
  protocol_ = 5;
  LibertyDevice::SetComponentMask(kPositionComponent | kEulerComponent);
}

LibertyDevice::~LibertyDevice() {
  const std::lock_guard lock(pdiLock_);
  pdiDevice_.Disconnect();
}

// Logs the library's own description of the call's result. True for success.
bool LibertyDevice::LogResult(int result, const char* call) {
  Post(statusLog_, StatusCode::Report, "%s result: %s", call, pdiDevice_.GetLastResultStr());
  return result != 0;
}

// ---- Port ----------------------------------------------------------------------------------

int LibertyDevice::OpenPort(const char* name, int) {
  if (name == nullptr || !IsUsbName(name)) return 0;
  const std::lock_guard lock(pdiLock_);
  pdiSerial_.SetPort(kUsbPortNumber);
  if (!pdiDevice_.IsOnUsb()) pdiDevice_.UseTracker(MakeUsbLiberty(name, tap()));
  return 1;
}

int LibertyDevice::OpenPortNumber(int number, int baud) {
  const std::lock_guard lock(pdiLock_);
  if (number > 0) pdiSerial_.SetPort(number);
  // A library that is installed knows best how to reach the tracker on USB.
  const bool byUs = number == kUsbPortNumber && !pdiDevice_.IsLibraryChosen();
  if (byUs != pdiDevice_.IsOnUsb())
    pdiDevice_.UseTracker(byUs ? MakeUsbLiberty("usb", tap()) : nullptr);
  const auto* const found = std::ranges::find(kBauds, static_cast<unsigned>(baud));
  if (found == std::end(kBauds)) return 0;
  pdiSerial_.SetBaudRate(static_cast<int>(found - kBauds));
  return 1;
}

int LibertyDevice::ClosePort() {
  const std::lock_guard lock(pdiLock_);
  pdiDevice_.Disconnect();
  streaming_ = false;  // disconnecting ends the stream
  return 0;
}

int LibertyDevice::GetPortNumber() {
  const std::lock_guard lock(pdiLock_);
  return pdiSerial_.GetPort();
}

unsigned LibertyDevice::GetBaudRate() {
  const std::lock_guard lock(pdiLock_);
  const int code = pdiSerial_.GetBaudRate();
  return code >= 0 && code < static_cast<int>(std::size(kBauds)) ? kBauds[code] : 0;
}

// ---- Life ----------------------------------------------------------------------------------

BootResult LibertyDevice::Boot(int) {
  const std::lock_guard lock(pdiLock_);
  if (pdiDevice_.CnxReady() == 0) Connect();
  if (pdiDevice_.CnxReady() == 0) return kPortNotOpen;
  LogResult(pdiDevice_.SetSDataList(kAllStations, motionList_), "SetSDataList");
  ReportBitErrors();
  ReadStationMap();
  framePeriodMs_ = 1;
  // Without a timer ReadFrame sleeps between two looks.
  const Status started = frameTimer_.Start(Milliseconds(framePeriodMs_));
  if (!started.Ok())
    Post(statusLog_, StatusCode::Port, "Frame timer: %s", Describe(started).c_str());
  return kBooted;
}

void LibertyDevice::Connect() {
  streaming_ = false;  // a new connection does not stream yet
  pdiDevice_.ReportMissingLibrary();
  pdiDevice_.SetSerialIF(pdiSerial_);
  const int kind = pdiDevice_.DiscoverCnx();
  const char* const text = pdiDevice_.GetLastResultStr();
  switch (static_cast<PdiConnection>(kind)) {
    case PdiConnection::Usb:
      Post(statusLog_, StatusCode::Report, "USB Connection: %s", text);
      break;
    case PdiConnection::Serial:
      Post(statusLog_, StatusCode::Report, "Serial Connection: %s", text);
      break;
    default:
      Post(statusLog_, StatusCode::Report, "DiscoverCnx result: %s", text);
  }
}

void LibertyDevice::ReportBitErrors() {
  CPDIbiterr errors;
  LogResult(pdiDevice_.GetBITErrs(errors), "GetBITErrs");
  std::array<char, 100> text{};
  errors.Parse(text.data(), static_cast<int>(text.size()));
  Post(statusLog_, StatusCode::Report, "BIT Errors: %s", text.data());
  if (!errors.IsClear()) LogResult(pdiDevice_.ClearBITErrs(), "ClearBITErrs");
}

void LibertyDevice::ReadStationMap() {
  const int result = pdiDevice_.GetStationMap(stationMap_);
  stationMap_ &= kStationBits;
  sensorMask_ = stationMap_;
  if (wantedStations_ == 0) wantedStations_ = stationMap_;
  LogResult(result, "GetStationMap");
  Post(statusLog_, StatusCode::Report, "ActiveStationMap: %#x", stationMap_);
}

int LibertyDevice::QueryStatus(char*, int) { return 0; }

bool LibertyDevice::ConnectionLost() {
  const std::lock_guard lock(pdiLock_);
  return pdiDevice_.CnxReady() == 0;
}

// ---- Sampling ------------------------------------------------------------------------------

void LibertyDevice::StopStream() {
  const std::lock_guard lock(pdiLock_);
  if (!streaming_) return;
  pdiDevice_.StopContPno();
  streaming_ = false;
}

void LibertyDevice::StartStream() {
  {
    const std::lock_guard lock(pdiLock_);
    if (streaming_) return;
    pdiDevice_.StartContPno();
    streaming_ = true;
  }
  resolution_.Sleep(kStreamStart);
  const std::lock_guard lock(pdiLock_);
  DropFrames();
  ForgetMotion();  // a new alignment or hemisphere moves the poses at once
}

// A library may have kept the frames of the time that was slept; each would be published late.
// Returns how many records that were.
unsigned LibertyDevice::DropFrames() {
  constexpr int kMost = 256;
  unsigned records = 0;
  for (int i = 0; i < kMost; ++i) {
    const std::uint32_t before = lastFrameCount_;
    if (!TakeFrame() && lastFrameCount_ == before) break;
    records += static_cast<unsigned>(std::popcount(frameStations_));
  }
  toldStations_ = judgedStations_ = 0;
  lastLook_ = ClockTicks();
  return records;
}

// True when this thread did not run for half a second. No wait between two looks is that long.
bool LibertyDevice::WasAway() {
  const std::int64_t now = ClockTicks();
  return now - std::exchange(lastLook_, now) > ClockTicksPerSecond() / 2;
}

void LibertyDevice::ForgetMotion() {
  for (Record& record : records_) record.gate.Forget();
}

// After the thread was away, the frames that wait may be as old as that. USB keeps them for ever.
bool LibertyDevice::DropOld() {
  if (!WasAway()) return false;
  const unsigned dropped = DropFrames();
  ForgetMotion();  // the sensors went on meanwhile
  if (dropped > 0 && statusLog_ != nullptr) {
    Announce(*statusLog_, "\n\t", StatusCode::Counts,
             "%u records of %s waited for more than half a second and were dropped.", dropped,
             deviceName_);
  }
  return true;
}

unsigned LibertyDevice::ReadFrame(double* sampleTime) {
  {
    const std::lock_guard lock(pdiLock_);
    if (pdiDevice_.CnxReady() == 0) return 0;
  }
  if (paused_) {
    StopStream();
  } else {
    StartStream();
  }
  const std::lock_guard lock(pdiLock_);
  // A tracker that does not stream sends a frame only when it is asked.
  if (paused_) {
    toldStations_ = judgedStations_ = 0;
    pdiDevice_.RequestPno();
    lastLook_ = ClockTicks();
  }
  if (!WaitForFrame()) return 0;
  const double time = ElapsedSeconds();
  if (sampleTime != nullptr) *sampleTime = time;
  const std::uint32_t told = toldCount_ == lastFrameCount_ ? std::exchange(toldStations_, 0) : 0;
  if ((frameStations_ & ~told) != 0) TellRecords(frameStations_ & ~told, time);
  return frameStations_;
}

// Some libraries have a record long before its frame is complete.
void LibertyDevice::TellArrived() {
  const std::uint8_t* bytes = nullptr;
  std::uint32_t size = 0;
  while (pdiDevice_.NextRecordPtr(bytes, size) != 0) {
    if (bytes == nullptr || size != layout_.recordSize) return;
    const auto record = std::as_bytes(std::span(bytes, size));
    std::array<int, 1> station{};
    const auto count = LibertyFrameCount(layout_, record);
    const bool named = ReadLibertyStations(layout_, record, station);
    if (!named || !count || !HasStation(stationMap_, station[0])) return;
    if (std::exchange(toldCount_, *count) != *count) toldStations_ = judgedStations_ = 0;
    judgedStations_ |= StationBit(station[0]);
    if (!StoreRecord(station[0], record)) continue;
    toldStations_ |= StationBit(station[0]);
    TellRecords(StationBit(station[0]), ElapsedSeconds());
  }
}

bool LibertyDevice::WaitForFrame() {
  if (!pdiDevice_.CanAwaitRecords()) return LookForFrame();
  constexpr int kStepMs = 20;
  for (const Deadline end{Milliseconds(kFrameWaitMs)}; pdiDevice_.CnxReady() != 0;) {
    // It may fail at once. A thread of this priority must not spin then.
    const std::int64_t asked = ClockTicks();
    if (pdiDevice_.AwaitRecord(kStepMs) == 0 && ClockTicks() - asked < ClockTicksPerSecond() / 1000)
      resolution_.Sleep(Milliseconds(1));
    if (DropOld()) return false;
    TellArrived();
    const std::uint32_t before = lastFrameCount_;
    if (TakeFrame()) return true;
    if (HasAnswered(before)) return TakeTold();
    if (end.Passed()) break;
  }
  return false;
}

bool LibertyDevice::LookForFrame() {
  int tries = framePeriodMs_ > 0 ? kFrameWaitMs / framePeriodMs_ + 1 : kTriesWithoutPeriod;
  while (tries-- > 0) {
    if (!frameTimer_.Wait(Milliseconds(2 * framePeriodMs_))) {
      // The wait on a timer that was not started ends at once, so sleep instead.
      resolution_.Sleep(Milliseconds(1));
    }
    if (DropOld()) return false;
    TellArrived();
    const std::uint32_t before = lastFrameCount_;
    if (TakeFrame()) return true;
    if (HasAnswered(before)) return TakeTold();
  }
  return false;
}

// A polled tracker sends one frame for each request, so nothing more comes: all its records may be
// damaged, or two requests within a cycle brought the same frame.
bool LibertyDevice::HasAnswered(std::uint32_t before) const {
  const bool again = toldCount_ == before && judgedStations_ != 0 && judgedStations_ == stationMap_;
  return paused_ && (lastFrameCount_ != before || again);
}

bool LibertyDevice::TakeTold() {
  frameStations_ = toldStations_;
  return frameStations_ != 0;
}

bool LibertyDevice::TakeFrame() {
  const std::uint8_t* bytes = nullptr;
  std::uint32_t size = 0;
  if (pdiDevice_.LastPnoPtr(bytes, size) == 0 || bytes == nullptr || size == 0) return false;
  // A size beyond that of all stations is false. Then the library gets credit for what the active
  // stations send.
  const bool plausible = size <= kMostStations * layout_.recordSize;
  const auto frame = std::as_bytes(std::span(bytes, plausible ? size : expectedFrameSize_));
  const auto count = LibertyFrameCount(layout_, frame);
  if (!count) return false;
  // The library may return a frame again, or the late rest of one that came without it.
  const std::uint32_t stations = StationsIn(frame);
  const bool again = *count == lastFrameCount_;
  if (again && (stations & ~seenStations_) == 0) return false;
  seenStations_ = again ? seenStations_ | stations : stations;
  lastFrameCount_ = *count;
  StoreRecords(frame);
  WatchStations();
  return frameStations_ != 0;
}

// By the headers; the active ones if the headers do not tell.
std::uint32_t LibertyDevice::StationsIn(std::span<const std::byte> frame) const {
  std::array<int, kMostStations> room{};
  const auto stations = std::span(room).first(frame.size() / layout_.recordSize);
  if (!ReadLibertyStations(layout_, frame, stations)) return stationMap_;
  std::uint32_t bits = 0;
  for (const int station : stations) bits |= StationBit(station);
  return bits;
}

// The headers tell the stations. If they do not, the records are those of the active stations.
void LibertyDevice::StoreRecords(std::span<const std::byte> frame) {
  std::array<int, kMostStations> room{};
  const auto stations = std::span(room).first(frame.size() / layout_.recordSize);
  const bool named = ReadLibertyStations(layout_, frame, stations);
  frameStations_ = 0;
  for (std::size_t i = 0; i < stations.size(); ++i) {
    const int station = named ? stations[i] : StationOf(static_cast<int>(i));
    if (!HasStation(stationMap_ | wantedStations_, station)) continue;
    const auto record = frame.subspan(i * layout_.recordSize, layout_.recordSize);
    const bool judged = toldCount_ == lastFrameCount_ && HasStation(judgedStations_, station);
    const bool good = judged ? HasStation(toldStations_, station) : StoreRecord(station, record);
    if (good) frameStations_ |= StationBit(station);
  }
  AddStations(frameStations_ & ~stationMap_);
}

// False for a record that was probably damaged: it has no checksum.
bool LibertyDevice::StoreRecord(int station, std::span<const std::byte> bytes) {
  Record& record = records_[static_cast<std::size_t>(station)];
  if (!IsPlausible(station, bytes)) {
    Post(statusLog_, StatusCode::Refused, "A record was damaged: the pose of sensor %d jumps.",
         station + 1);
    TellDropped();
    return false;
  }
  std::ranges::copy(bytes, record.bytes.begin());
  record.at = ClockTicks();
  record.held = true;
  return true;
}

bool LibertyDevice::IsPlausible(int station, std::span<const std::byte> bytes) {
  constexpr float kFarthest = 1000;  // cm or inch
  constexpr double kCmPerInch = 2.54;
  constexpr double kFastest = 240;
  Pose pose{};
  MotionGate::Sample sample;
  const auto xyz = std::span(pose).first<3>();
  const auto angles = std::span(pose).last<3>();
  if (ReadLibertyFloats(layout_, bytes, 0, layout_.position, xyz)) {
    for (const float part : xyz) {
      if (!(std::fabs(part) <= kFarthest)) return false;
    }
  }
  if (ReadLibertyFloats(layout_, bytes, 0, layout_.euler, angles)) {
    for (float& angle : angles) {
      if (!(std::fabs(angle) <= 360)) return false;
      angle *= kRadians;
    }
  }
  const double time = ElapsedSeconds();
  sample = MotionGate::SampleOf(pose, units_ == 0 ? kCmPerInch : 1, time);
  if (ReadLibertyFloats(layout_, bytes, 0, layout_.quaternion, sample.rotation)) {
    if (!IsUnit(sample.rotation)) return false;
  }
  MotionGate& gate = records_[static_cast<std::size_t>(station)].gate;
  return gate.Accept(sample, {1 / kFastest, 0, 0});
}

void LibertyDevice::AddStations(std::uint32_t stations) {
  if (stations == 0) return;
  stationMap_ |= stations;
  sensorMask_ |= stations;
  activeStationCount_ = std::popcount(stationMap_);
  expectedFrameSize_ = static_cast<std::size_t>(activeStationCount_) * layout_.recordSize;
}

void LibertyDevice::WatchStations() {
  const std::int64_t now = ClockTicks();
  for (std::size_t i = 0; i < records_.size(); ++i) {
    Record& record = records_[i];
    if (record.at == 0) continue;
    record.held = (now - record.at) * 1000 / ClockTicksPerSecond() <= kHoldMs;
    if (record.lost != record.held) continue;
    record.lost = !record.held;
    if (statusLog_ == nullptr) continue;
    Announce(*statusLog_, "\n\t", StatusCode::Report, "Sensor %d of %s %s.",
             static_cast<int>(i) + 1, deviceName_, record.lost ? "sends nothing" : "is back");
  }
}

// The station (from 0) of a packed record; -1 for a record that is not active.
int LibertyDevice::StationOf(int record) const {
  for (int station = 0; record >= 0 && station < static_cast<int>(kMostStations); ++station) {
    if (HasStation(stationMap_, station) && record-- == 0) return station;
  }
  return -1;
}

void LibertyDevice::Poll() {
  StopStream();
  const std::lock_guard lock(pdiLock_);
  paused_ = true;
}

void LibertyDevice::StartContinuous() {
  {
    const std::lock_guard lock(pdiLock_);
    paused_ = false;
  }
  StartStream();
}

// ---- Stations ------------------------------------------------------------------------------

unsigned LibertyDevice::SetSensorMask(unsigned mask, int) {
  StopStream();
  const std::lock_guard lock(pdiLock_);
  if (pdiDevice_.SetStationMap(mask) != 0) {
    sensorMask_ = mask;
    wantedStations_ = mask & kStationBits;
  }
  RefreshStations();
  return sensorMask_;
}

int LibertyDevice::RecordOf(int sensor) {
  const std::lock_guard lock(pdiLock_);
  if (!HasStation(stationMap_, sensor)) return -1;
  return std::popcount(stationMap_ & FirstStations(sensor));
}

void LibertyDevice::RefreshStations() {
  StopStream();
  std::uint32_t map = 0;
  if (pdiDevice_.GetStationMap(map) != 0) {
    stationMap_ = map & kStationBits;
    sensorMask_ = stationMap_;
    activeStationCount_ = std::popcount(stationMap_ & FirstStations(pdiDevice_.MaxSensors()));
  } else {
    Post(statusLog_, StatusCode::Refused, "%s result: %s", "GetStationMap",
         pdiDevice_.GetLastResultStr());
  }
  LayOutRecord();
}

void LibertyDevice::LayOutRecord() {
  const auto items = static_cast<std::size_t>(motionList_.NumItems());
  layout_ = LibertyLayoutOf(std::span(motionList_.items(), items));
  expectedFrameSize_ = static_cast<std::size_t>(activeStationCount_) * layout_.recordSize;
  records_ = {};
}

// ---- Settings ------------------------------------------------------------------------------

int LibertyDevice::SetUnits(int units) {
  StopStream();
  if (units < 0 || units > 2) return 0;
  const std::lock_guard lock(pdiLock_);
  const int metric = units == 0 ? 0 : 1;
  pdiDevice_.SetMetric(metric);
  units_ = metric;
  return units;
}

int LibertyDevice::SetCrLf(int) { return 0; }

int LibertyDevice::SetProtocol(int protocol) {
  const RateRow* const row = RateOf(protocol);
  if (row == nullptr) return 0;
  StopStream();
  const std::lock_guard lock(pdiLock_);
  const int result = pdiDevice_.SetFrameRate(row->code);
  Post(statusLog_, StatusCode::Report, "%s(%d) result: %s", "SetFrameRate", row->code,
       pdiDevice_.GetLastResultStr());
  if (result != 0) protocol_ = protocol;
  return protocol;
}

int LibertyDevice::SetSensorVector4(int, float, float, float, float) { return 0; }

int LibertyDevice::Align(int sensor, const float origin[3], const float xAxis[3],
                         const float yAxis[3]) {
  StopStream();
  const std::lock_guard lock(pdiLock_);
  const int result = pdiDevice_.SetSAlignment(sensor, origin, xAxis, yAxis);
  LogResult(result, "SetSAlignment");
  return result;
}

int LibertyDevice::SetAlignment(int sensor, const float xAxis[3], const float yAxis[3]) {
  return Align(sensor, kOrigin, xAxis, yAxis);
}

int LibertyDevice::SetAlignmentPose(int sensor, const float pose[6]) {
  if (pose == nullptr) return 0;
  const float cosYaw = std::cos(pose[3]);
  const float sinYaw = std::sin(pose[3]);
  const float cosPitch = std::cos(pose[4]);
  const float sinPitch = std::sin(pose[4]);
  const float cosRoll = std::cos(pose[5]);
  const float sinRoll = std::sin(pose[5]);
  const float xAxis[3] = {cosYaw * cosPitch, sinYaw * cosPitch, -sinPitch};
  const float yAxis[3] = {sinPitch * cosYaw * sinRoll - cosRoll * sinYaw,
                          sinPitch * sinYaw * sinRoll + cosRoll * cosYaw, cosPitch * sinRoll};
  return Align(sensor, pose, xAxis, yAxis);
}

int LibertyDevice::ResetAlignment(int sensor) { return Align(sensor, kOrigin, kXAxis, kYAxis); }

int LibertyDevice::SetSynchronization(int mode) {
  if (mode < 0 || mode > 2) return 0;
  StopStream();
  const std::lock_guard lock(pdiLock_);
  const int result = pdiDevice_.SetSyncEnabled(mode == 0 ? 0 : 1);
  Post(statusLog_, StatusCode::Report, "%s(%s) result: %s", "SetSyncEnabled",
       mode == 0 ? "internal" : "external", pdiDevice_.GetLastResultStr());
  return result != 0 ? mode : 0;
}

unsigned LibertyDevice::SetComponentMask(unsigned mask) {
  StopStream();
  const std::lock_guard lock(pdiLock_);
  motionList_.Empty();
  if ((mask & kPositionComponent) != 0) motionList_.Append(kPositionItem);
  if ((mask & kEulerComponent) != 0) motionList_.Append(kEulerItem);
  if ((mask & kQuaternionComponent) != 0) motionList_.Append(kQuaternionItem);
  if (motionList_.NumItems() == 0) {
    motionList_.Append(kPositionItem);
    mask = kPositionComponent;
  }
  motionList_.Append(kFrameCountItem);
  componentMask_ = mask;
  RefreshStations();
  LogResult(pdiDevice_.SetSDataList(kAllStations, motionList_), "SetSDataList(mask)");
  return componentMask_;
}

int LibertyDevice::SetHemisphere(int, const float zenith[3]) {
  constexpr int kLastStation = 8;
  StopStream();
  const std::lock_guard lock(pdiLock_);
  bool all = true;
  for (int station = 1; station <= kLastStation; ++station) {
    if (!HasStation(sensorMask_, station - 1)) continue;
    all = pdiDevice_.SetSHemisphere(station, zenith) != 0 && all;
    Post(statusLog_, StatusCode::Report, "%s(%d, %f, %f, %f) result: %s", "SetSHemisphere", station,
         static_cast<double>(zenith[0]), static_cast<double>(zenith[1]),
         static_cast<double>(zenith[2]), pdiDevice_.GetLastResultStr());
    all = pdiDevice_.SetSHemiTrack(station) != 0 && all;
    Post(statusLog_, StatusCode::Report, "%s(%d) result: %s", "SetSHemiTrack", station,
         pdiDevice_.GetLastResultStr());
  }
  return all ? 1 : 0;
}

bool LibertyDevice::SetSensorOffsetComponent(int, unsigned component, double value) {
  if (component >= 6) return false;
  const std::lock_guard lock(pdiLock_);
  const bool place = component < 3;
  (place ? positionOffset_[component] : eulerOffset_[component - 3]) = static_cast<float>(value);
  if (place) {
    offsetFilter_.SetPositionOffset(positionOffset_.data());
  } else {
    offsetFilter_.SetEulerOffset(eulerOffset_.data());
  }
  return true;
}

bool LibertyDevice::SetSensorPositionOffset(int, const float xyz[3]) {
  const std::lock_guard lock(pdiLock_);
  std::copy_n(xyz, 3, positionOffset_.begin());
  offsetFilter_.SetPositionOffset(positionOffset_.data());
  return true;
}

bool LibertyDevice::SetSensorOffset(int sensor, const float pose[6]) {
  const std::lock_guard lock(pdiLock_);
  LibertyDevice::SetSensorPositionOffset(sensor, pose);
  std::copy_n(pose + 3, 3, eulerOffset_.begin());
  offsetFilter_.SetEulerOffset(eulerOffset_.data());
  return true;
}

// ---- Identity ------------------------------------------------------------------------------

int LibertyDevice::GetProtocolText(char* text, int size) {
  const RateRow* const row = RateOf(protocol_);
  std::array<char, 256> room{};
  std::snprintf(room.data(), room.size(), "%d: %s", protocol_,
                row != nullptr ? row->text : "Invalid");
  CopyUpTo(text, size, room.data());
  return protocol_;
}

int LibertyDevice::GetFrameRate() {
  const std::lock_guard lock(pdiLock_);
  int code = 3;
  pdiDevice_.GetFrameRate(code);
  if (code == 1) return 60;
  return code == 2 || code == 4 ? 240 : 120;
}

// ---- Records -------------------------------------------------------------------------------

bool LibertyDevice::ReadFloats(int sensor, std::size_t offset, std::span<float> into) {
  const int station = StationOf(sensor);
  if (station < 0 || !records_[static_cast<std::size_t>(station)].held) return false;
  return ReadLibertyFloats(layout_, records_[static_cast<std::size_t>(station)].bytes, 0, offset,
                           into);
}

float* LibertyDevice::GetSensorOffset(int) { return zeroOffset_.data(); }

float* LibertyDevice::GetSensorPose(int sensor) {
  constexpr unsigned kBoth = kPositionComponent | kEulerComponent;
  if ((componentMask_ & kBoth) != kBoth) return nullptr;
  const std::lock_guard lock(pdiLock_);
  const bool whole =
      LibertyDevice::GetSensorPosition(sensor) != nullptr && GetSensorEuler(sensor) != nullptr;
  return whole ? poseOut_.data() : nullptr;
}

float* LibertyDevice::GetSensorPosition(int sensor) {
  const std::lock_guard lock(pdiLock_);
  if (!ReadFloats(sensor, layout_.position, std::span(poseOut_).first<3>())) return nullptr;
  offsetFilter_.SetPosition(poseOut_.data());
  return poseOut_.data();
}

float* LibertyDevice::GetSensorEuler(int sensor) {
  const std::lock_guard lock(pdiLock_);
  const auto angles = std::span(poseOut_).last<3>();
  if (!ReadFloats(sensor, layout_.euler, angles)) return nullptr;
  for (float& angle : angles) angle *= kRadians;
  offsetFilter_.SetEuler(angles.data());
  return angles.data();
}

float* LibertyDevice::GetSensorQuaternion(int sensor) {
  const std::lock_guard lock(pdiLock_);
  if (!ReadFloats(sensor, layout_.quaternion, quaternionOut_)) return nullptr;
  offsetFilter_.SetQuaternion(quaternionOut_.data());
  return quaternionOut_.data();
}

}  // namespace kinetrel
