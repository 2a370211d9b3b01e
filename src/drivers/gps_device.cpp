#include "drivers/gps_device.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <span>
#include <utility>

#include "devices/bounded_text.h"

namespace kinetrel {
namespace {

constexpr int kBaud = 9600;
constexpr unsigned kRtsOff = 0;
constexpr int kSettingsRefused = -5;
constexpr int kNotOpen = -4;
constexpr int kNoStatusText = -13;

constexpr unsigned kSensors = 15;
constexpr int kFirstSatellite = 3;
constexpr unsigned kAnythingHeard = 1U << kFirstSatellite;
constexpr unsigned kPositionSensors = 7;
constexpr int kReportsPerSecond = 5;

constexpr unsigned kFamily = static_cast<unsigned>(DeviceFamily::Gps);
constexpr unsigned kFlagsCleared = 0x000F0000;
constexpr unsigned kFlagsSet = 0x00100000;

// Requests for the time and the receiver's health. They are sent without the frame of a packet; a
// receiver that ignores them still reports by itself.
constexpr char kRequests[] = {0x21, 0x26};
constexpr int kAnswerMs = 500;
constexpr int kAnswerSize = 10;

// A receiver reports at least once a second.
constexpr Milliseconds kReportWait{1500};

// The most that one frame reads, so that a line that never pauses does not hold up the sampling
// thread.
constexpr unsigned kMostBytesPerFrame = 4096;

constexpr char kNmeaHint[] =
    "The receiver sends text lines and no TSIP packets. It looks like NMEA: switch it to TSIP at "
    "9600 "
    "baud with its maker's program.";

struct LengthUnit {
  int code;
  double perMetre;
};
constexpr LengthUnit kLengthUnits[] = {{0, 39.37007874015748}, {1, 100.0}, {2, 1.0}};

}  // namespace

GpsDevice::GpsDevice() {
  sensorCount_ = kSensors;
  totalFrameRate_ = kReportsPerSecond;
  componentMask_ = kPositionComponent;
  units_ = 2;
  continuousByte_ = '6';
  pollByte_ = 'k';
  stopByte_ = '6';
  deviceType_ = static_cast<int>(DeviceName::GpsTsip);
  statusWord_ = kFamily;
  SetName(DeviceName::GpsTsip);
}

// ---- Port ----------------------------------------------------------------------------------

int GpsDevice::OpenPort(const char* name, int) {
  if (portStatus() == PortStatus::Simulated || HasHandle()) return 1;
  if (TrackerDevice::OpenPort(name, kBaud) == 0) return 0;
  if (portStatus() == PortStatus::Simulated) return 1;
  return SetLineSettings(kBaud, 8, 0, 0, kRtsOff) ? 1 : kSettingsRefused;
}

// The next receiver on this port must identify itself again.
int GpsDevice::ClosePort() {
  booted_ = false;
  return TrackerDevice::ClosePort() == 1 ? 1 : kNotOpen;
}

// ---- Life ----------------------------------------------------------------------------------

BootResult GpsDevice::Boot(int) {
  if (booted_) return kBooted;
  if (!HasHandle() && portStatus() != PortStatus::Simulated) return kPortNotOpen;
  reports_.Restart();
  for (const char request : kRequests) Write(&request, 1);
  WaitForRX(kAnswerMs, kAnswerSize);
  if (Listen(kReportWait, 0) == 0) return kPortNotOpen;
  statusWord_ = (statusWord_ & ~(0xFFFFU | kFlagsCleared)) | kFamily | kFlagsSet;
  if (!AllocateSensors(kSensors)) return kPortNotOpen;
  packetDue_ = fixDue_ = Deadline(kSilence);
  booted_ = true;
  return kBooted;
}

int GpsDevice::QueryStatus(char*, int) { return kNoStatusText; }

// ---- Sampling ------------------------------------------------------------------------------

unsigned GpsDevice::ReadFrame(double* sampleTime) {
  const unsigned linesBefore = reports_.textLines();
  const unsigned accepted = Listen(kReportWait, sensorMask_);
  const unsigned mask = UpdatedSensors() | kAnythingHeard;
  WatchReceiver(mask);
  const bool moved = reports_.TakePositionNews();
  if (moved) PublishPosition();
  if (reports_.TakeSatelliteNews()) PublishSatellites();
  const double time = ElapsedSeconds();
  if (sampleTime != nullptr) *sampleTime = time;
  // The other sensors' numbers are not lengths: arcs, degrees, satellites.
  if (moved) TellRecords(1, time);
  // Text lines are life too: to start such a receiver anew would not help.
  return accepted > 0 || reports_.textLines() != linesBefore ? mask : 0;
}

// The sensors that have new values.
unsigned GpsDevice::UpdatedSensors() const {
  return (reports_.HasPositionNews() ? kPositionSensors : 0) |
         (reports_.HasSatelliteNews() ? SatelliteMask() : 0);
}

unsigned GpsDevice::SatelliteMask() const {
  const int count = std::min(gps().satelliteCount, static_cast<int>(kSensors) - kFirstSatellite);
  return FirstStations(count) << kFirstSatellite;
}

// Reads until a sensor of `wanted` has new values or, with `wanted` 0, until the first byte of the
// protocol. Returns the number of bytes that belong to the protocol.
unsigned GpsDevice::Listen(Milliseconds patience, unsigned wanted) {
  const Deadline deadline(patience);
  unsigned accepted = 0;
  unsigned taken = 0;
  while (taken < kMostBytesPerFrame) {
    const int left = static_cast<int>(deadline.Remaining().count());
    if (left == 0 || !WaitForRX(left, 1)) break;
    const unsigned got = ReadWaiting(accepted);
    if (got == 0) break;
    taken += got;
    if (HasEnough(wanted, accepted)) break;
  }
  return accepted;
}

// A packet without news of an active sensor is published only when sensor 3 is active. Without
// sensor 3 the wait goes on, because the engine would count such a frame as a failure.
bool GpsDevice::HasEnough(unsigned wanted, unsigned accepted) {
  if (wanted == 0) return accepted > 0;
  if ((UpdatedSensors() & wanted) != 0) return true;
  return (wanted & kAnythingHeard) != 0 && reports_.HasPacketEnd();
}

// Reads all waiting bytes, also those behind a wanted report: the newest report counts.
unsigned GpsDevice::ReadWaiting(unsigned& accepted) {
  std::array<std::byte, 512> bytes;
  unsigned got = 0;
  const unsigned count = std::min(BytesInHand(), static_cast<unsigned>(bytes.size()));
  ReadSome(bytes.data(), count, &got);
  for (const std::byte byte : std::span(bytes).first(got)) accepted += reports_.Take(byte) ? 1 : 0;
  return got;
}

void GpsDevice::WatchReceiver(unsigned updated) {
  if ((updated & kPositionSensors) != 0) {
    if (std::exchange(noFixReported_, false)) ReportFix("a fix");
    everFixed_ = true;
    fixDue_ = Deadline(kSilence);
  }
  if (reports_.TakePacketEnd()) {
    packetDue_ = Deadline(kSilence);
    nmeaReported_ = false;
  }
  if (packetDue_.Passed()) {
    if (reports_.textLines() == 0 || std::exchange(nmeaReported_, true)) return;
    if (statusLog_ != nullptr) Announce(*statusLog_, "\n\t", StatusCode::Report, "%s", kNmeaHint);
  } else if (fixDue_.Passed() && (sensorMask_ & kPositionSensors) != 0) {
    if (!std::exchange(noFixReported_, true)) ReportFix(everFixed_ ? "no fix" : "no fix yet");
  }
}

void GpsDevice::ReportFix(const char* what) {
  if (statusLog_ == nullptr) return;
  Announce(*statusLog_, "\n\t", StatusCode::Report, "%s: %s (%d satellites).", deviceName_, what,
           gps().satelliteCount);
}

void GpsDevice::PublishPosition() {
  if (poses_.empty()) return;
  const GpsState& fix = gps();
  const auto put = [this](std::size_t sensor, double x, double y, double z) {
    poses_[sensor] = {static_cast<float>(x), static_cast<float>(y), static_cast<float>(z)};
  };
  put(0, static_cast<double>(fix.localNorth) * unitScale_,
      static_cast<double>(fix.localEast) * unitScale_,
      static_cast<double>(fix.localUp) * unitScale_);
  put(1, fix.northArc * 0.001, fix.eastArc * 0.001, fix.altitude * unitScale_);
  put(2, fix.latitudeText.degrees, fix.longitudeText.degrees, fix.altitude * unitScale_);
}

void GpsDevice::PublishSatellites() {
  const unsigned mask = SatelliteMask();
  for (std::size_t sensor = kFirstSatellite; sensor < poses_.size(); ++sensor) {
    if (!HasStation(mask, static_cast<int>(sensor))) break;
    const GpsSatellite& satellite = gps().satellites[sensor - kFirstSatellite];
    poses_[sensor] = {static_cast<float>(gps().satelliteCount),
                      static_cast<float>(satellite.prn),
                      satellite.signalLevel,
                      satellite.elevation,
                      satellite.azimuth,
                      0.0F};
  }
}

void GpsDevice::Poll() {}

// ---- Settings ------------------------------------------------------------------------------

int GpsDevice::SetUnits(int units) {
  for (const LengthUnit& unit : kLengthUnits) {
    if (unit.code != units) continue;
    unitScale_ = unit.perMetre;
    units_ = units;
  }
  return units_;
}

int GpsDevice::SetProtocol(int protocol) {
  protocol_ = protocol;
  reports_.state().MoveOriginHere();
  return protocol_;
}

// ---- Identity ------------------------------------------------------------------------------

int GpsDevice::GetProtocolText(char* text, int size) {
  char line[32];
  std::snprintf(line, sizeof line, "%d: %s", protocol_, "Invalid");
  CopyTruncated(text, size, line);
  return protocol_;
}

int GpsDevice::GetFrameRate() { return totalFrameRate_; }

}  // namespace kinetrel
