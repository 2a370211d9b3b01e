#include "engine/stream_publisher.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <span>
#include <utility>

#include "devices/pose.h"
#include "devices/tracker_device.h"
#include "filters/rigid_math.h"
#include "platform/clock.h"

namespace kinetrel {
namespace {

constexpr std::int64_t kSilence = 1'000'000'000;   // ns without a record that are worth telling
constexpr std::int64_t kSecond = 1'000'000'000;    // ns
constexpr std::int64_t kShortestGap = 50'000'000;  // ns
constexpr int kMissedRecords = 3;                  // that make a gap
constexpr float kAbsent = std::numeric_limits<float>::quiet_NaN();

std::int64_t Now() { return StreamNanoseconds(ClockTicks()); }

bool AllFinite(const float* values, int count) {
  return std::all_of(values, values + count, [](float value) { return std::isfinite(value); });
}

// Position and angles as one record where the device delivers both; else each by itself.
struct PoseParts {
  const float* position = nullptr;  // null: none
  const float* angles = nullptr;
  const float* quaternion = nullptr;
};

PoseParts PartsOf(TrackerDevice& device, int sensor, unsigned components) {
  PoseParts parts;
  if (components == (kPositionComponent | kEulerComponent)) {
    parts.position = device.GetSensorPose(sensor);
    if (parts.position != nullptr) parts.angles = parts.position + 3;
    return parts;
  }
  if ((components & kPositionComponent) != 0) parts.position = device.GetSensorPosition(sensor);
  if ((components & kEulerComponent) != 0) parts.angles = device.GetSensorEuler(sensor);
  if ((components & kQuaternionComponent) != 0) {
    parts.quaternion = device.GetSensorQuaternion(sensor);
  }
  return parts;
}

void PutPosition(kinetrel_record& record, const float* position, unsigned units) {
  record.flags |= kinetrel_device_position;
  if (!AllFinite(position, 3)) return;
  const double metres = MetresOf(units);
  for (int i = 0; i < 3; ++i) record.position[i] = double{position[i]} * metres;
  record.flags |= kinetrel_position_valid;
}

// The unit quaternion of what the device delivered; zeros for what cannot be one.
Quaternion OrientationOf(const PoseParts& parts) {
  if (parts.quaternion == nullptr) {
    return AllFinite(parts.angles, 3) ? EulerToQuaternion(parts.angles) : Quaternion{};
  }
  Quaternion q;
  std::copy_n(parts.quaternion, 4, q.begin());
  if (!AllFinite(q.data(), 4)) return {};
  NormalizeQuaternion(q.data());
  return q;
}

void PutOrientation(kinetrel_record& record, const PoseParts& parts, float azimuthZero) {
  if (parts.angles != nullptr) record.flags |= kinetrel_device_angles;
  if (parts.quaternion != nullptr) record.flags |= kinetrel_device_quaternion;
  Quaternion q = OrientationOf(parts);
  if (q == Quaternion{}) return;
  if (azimuthZero != 0.0F) {
    const std::array<float, 3> back = {-azimuthZero, 0.0F, 0.0F};
    q = UnitProduct(EulerToQuaternion(back.data()).data(), q.data());
  }
  std::array<float, 3> angles{};
  if (parts.angles != nullptr && AllFinite(parts.angles, 3)) {
    std::copy_n(parts.angles, 3, angles.begin());
    angles[0] =
        static_cast<float>(std::remainder(double{angles[0]} - double{azimuthZero}, 2 * kPi));
  } else {
    angles = QuaternionToEuler(q.data());
  }
  std::ranges::copy(q, record.orientation);
  std::ranges::copy(angles, record.angles);
  record.flags |= kinetrel_orientation_valid;
}

// Brings a filtered pose into a record. What the filters declared invalid becomes NaN.
void PutFiltered(kinetrel_record& record, const FilteredPose& filtered, float azimuthZero) {
  const PoseSample& pose = filtered.sample;
  record.flags &= ~unsigned{kinetrel_position_valid | kinetrel_orientation_valid};
  record.flags |= kinetrel_filtered;
  if (!filtered.whole) record.flags |= kinetrel_filter_failed;
  std::ranges::fill(record.position, double{kAbsent});
  std::ranges::fill(record.orientation, kAbsent);
  std::ranges::fill(record.angles, kAbsent);
  if (pose.hasPosition) {
    std::ranges::copy(pose.position, record.position);
    record.flags |= kinetrel_position_valid;
  }
  if (!pose.hasOrientation) return;
  const Rotation turned = FromTurn({0.0, 0.0, -double{azimuthZero}}) * pose.orientation;
  Quaternion q{};
  std::ranges::transform(turned, q.begin(), [](double value) { return static_cast<float>(value); });
  std::ranges::copy(QuaternionToEuler(q.data()), record.angles);
  std::ranges::copy(q, record.orientation);
  record.flags |= kinetrel_orientation_valid;
}

}  // namespace

double MetresOf(unsigned units) {
  switch (units) {
    case 0:
      return 0.0254;
    case 1:
      return 0.01;
    default:
      return 1.0;
  }
}

kinetrel_record MakeRecord(TrackerDevice& device, int index, const RecordContext& context) {
  kinetrel_record record{};
  std::ranges::fill(record.position, double{kAbsent});
  std::ranges::fill(record.orientation, kAbsent);
  std::ranges::fill(record.angles, kAbsent);
  const PoseParts parts = PartsOf(device, index, context.components);
  if (parts.position != nullptr) PutPosition(record, parts.position, context.units);
  if (parts.angles != nullptr || parts.quaternion != nullptr) {
    PutOrientation(record, parts, context.azimuthZero);
  }
  return record;
}

// ---- Life ------------------------------------------------------------------------------------

StreamPublisher::~StreamPublisher() {
  if (writer_ != nullptr) log_.Detach(*this);
}

void StreamPublisher::Open(int shmDevice, TrackerDevice& device, int deviceType, int rate,
                           std::int64_t origin) {
  device_ = &device;
  slot_ = shmDevice + 1;
  deviceType_ = deviceType;
  packed_ = dynamic_cast<PackedRecords*>(&device);
  rate_ = rate;
  origin_ = StreamNanoseconds(origin);
  filters_.Begin(run_);
  ownButtons_ = dynamic_cast<const ButtonBits*>(&device);
  told_ = {};
  Result<std::unique_ptr<RecordStreamWriter>> opened = RecordStreamWriter::Open(shmDevice);
  if (!opened.Ok()) {
    Announce(log_, "\n\t", StatusCode::SharedMemory,
             "Record stream %d failed to open; clients of the blocks go on. %s", shmDevice + 1,
             Describe(opened.status()).c_str());
    return;
  }
  writer_ = std::move(*opened);
  lastNews_ = Now();
  DescribeDevice(device.GetSensorMask());
  log_.Attach(*this);
}

void StreamPublisher::DescribeDevice(unsigned sensors) {
  sensors_ = sensors;
  if (writer_ != nullptr) writer_->ChangeRun([this](kinetrel_run& run) { FillRun(run); });
  if (capture_ == nullptr) return;
  kinetrel_run run{};
  FillRun(run);
  capture_->OnRun(slot_, run);
}

void StreamPublisher::FillRun(kinetrel_run& run) const {
  std::snprintf(run.device_name, sizeof run.device_name, "%s", device_->GetDeviceName());
  run.device_type = deviceType_;
  run.port = device_->GetPortNumber();
  run.unit = context_.units;
  run.components = context_.components;
  run.sensor_mask = sensors_;
  run.nominal_rate = rate_;
  run.azimuth_zero = double{context_.azimuthZero};
}

void StreamPublisher::NameSensors(const std::vector<SensorSettings>& sensors) {
  if (writer_ == nullptr) return;
  writer_->ChangeRun([&sensors](kinetrel_run& run) {
    for (const SensorSettings& each : sensors) {
      if (each.name.empty()) continue;
      auto& name = run.sensor_names[each.sensor];
      std::snprintf(name, sizeof name, "%s", each.name.c_str());
    }
  });
}

// ---- Frames ----------------------------------------------------------------------------------

void StreamPublisher::BeginFrame(unsigned sensors, const RecordContext& context) {
  const bool same = sensors == sensors_ && context == context_;
  context_ = context;
  sensors_ = sensors;
  hasDropped_ = false;
  if (!same && (writer_ != nullptr || capture_ != nullptr)) DescribeDevice(sensors);
}

void StreamPublisher::OnRecords(unsigned sensors, double sampleTime, int code) {
  if (writer_ == nullptr && capture_ == nullptr && filters_.IsEmpty()) return;
  std::array<kinetrel_record, kinetrel_stream_sensors> records;
  std::array<kinetrel_device_pose, kinetrel_stream_sensors> own;
  std::size_t count = 0;
  for (int sensor = 0; sensor < kinetrel_stream_sensors; ++sensor) {
    if (!HasStation(sensors & sensors_, sensor)) continue;
    FillRecord(records[count], own[count], sensor, sampleTime, code);
    ++count;
  }
  if (count == 0) return;
  if (frameTime_ == 0) frameTime_ = records[0].sample_ns;
  Publish(std::span(records).first(count), own.data());
}

void StreamPublisher::Publish(std::span<kinetrel_record> records, kinetrel_device_pose* own) {
  if (writer_ != nullptr) writer_->Publish(records, own);
  if (capture_ != nullptr) CaptureRecords(records, own);
}

// Without a stream the records have no time of publication.
void StreamPublisher::CaptureRecords(std::span<kinetrel_record> records,
                                     const kinetrel_device_pose* own) {
  if (writer_ == nullptr) {
    for (kinetrel_record& record : records) record.publish_ns = Now();
  }
  capture_->OnRecords(slot_, records, own);
}

void StreamPublisher::FillRecord(kinetrel_record& record, kinetrel_device_pose& devicePose,
                                 int sensor, double sampleTime, int code) {
  const int index = packed_ != nullptr ? packed_->RecordOf(sensor) : sensor;
  record = MakeRecord(*device_, index, context_);
  record.sensor = static_cast<std::uint32_t>(sensor);
  record.frame = frame_;
  record.sample_ns = origin_ + std::llround(sampleTime * 1e9);
  told_[record.sensor] = record.sample_ns;
  if (!filters_.IsEmpty()) {
    FilterRecord(record, devicePose, index);
  } else if (HasStation(lagging_, sensor)) {
    ShowLag(sensor, 0.0);
  }
  const ButtonBits::Buttons own =
      ownButtons_ != nullptr ? ownButtons_->OwnButtons() : ButtonBits::Buttons{};
  record.buttons = (joystick_.bits & joystick_.known & ~own.known) | (own.bits & own.known);
  record.buttons_known = joystick_.known | own.known;
  if (record.buttons_known != 0) record.flags |= kinetrel_buttons_valid;
  if (code == kNoRecordCode) return;
  record.device_code = code;
  record.flags |= kinetrel_code_valid;
}

// The filters get the orientation as the tracker has it: a tool's tip lies along that one. The
// azimuth zero comes after them.
void StreamPublisher::FilterRecord(kinetrel_record& record, kinetrel_device_pose& devicePose,
                                   int index) {
  RecordContext unturned = context_;
  unturned.azimuthZero = 0.0F;
  const kinetrel_record raw = MakeRecord(*device_, index, unturned);
  PoseSample sample;
  std::ranges::copy(raw.position, sample.position.begin());
  std::ranges::copy(raw.orientation, sample.orientation.begin());
  sample.hasPosition = (raw.flags & kinetrel_position_valid) != 0;
  sample.hasOrientation = (raw.flags & kinetrel_orientation_valid) != 0;
  sample.timeNs = record.sample_ns;
  sample.sensor = static_cast<int>(record.sensor);
  sample.metresPerUnit = MetresOf(context_.units);
  const std::optional<FilteredPose> filtered = filters_.Filter(run_, sample);
  ShowLag(sample.sensor, filtered.has_value() ? filtered->lag : 0.0);
  if (!filtered.has_value()) return;
  devicePose.flags = record.flags;
  std::ranges::copy(record.position, devicePose.position);
  std::ranges::copy(record.orientation, devicePose.orientation);
  std::ranges::copy(record.angles, devicePose.angles);
  PutFiltered(record, *filtered, context_.azimuthZero);
}

void StreamPublisher::ShowLag(int sensor, double seconds) {
  lagging_ = seconds > 0.0 ? lagging_ | StationBit(sensor) : lagging_ & ~StationBit(sensor);
  if (writer_ != nullptr) writer_->SetFilterLag(sensor, seconds);
}

// Publishes what the filters make of the sensors that have sent no record for a while. The device's
// own pose beside such a record has no valid part.
bool StreamPublisher::BridgeGaps(std::int64_t timeNs) {
  if (filters_.IsEmpty()) return false;
  bool published = false;
  const std::int64_t patience =
      std::max(kShortestGap, rate_ > 0 ? kMissedRecords * kSecond / rate_ : kShortestGap);
  for (int sensor = 0; sensor < kinetrel_stream_sensors; ++sensor) {
    const std::int64_t told = told_[static_cast<std::size_t>(sensor)];
    if (!HasStation(sensors_, sensor) || told == 0 || timeNs - told < patience) continue;
    const std::optional<FilteredPose> pose = filters_.FilterMissing(run_, sensor, timeNs);
    if (!pose.has_value()) continue;
    kinetrel_record record = BridgingRecord(sensor, timeNs, *pose);
    kinetrel_device_pose own{};
    std::ranges::fill(own.position, double{kAbsent});
    std::ranges::fill(own.orientation, kAbsent);
    std::ranges::fill(own.angles, kAbsent);
    Publish({&record, 1}, &own);
    published = true;
  }
  return published;
}

kinetrel_record StreamPublisher::BridgingRecord(int sensor, std::int64_t timeNs,
                                                const FilteredPose& pose) const {
  kinetrel_record record{};
  record.sensor = static_cast<std::uint32_t>(sensor);
  record.frame = frame_;
  record.sample_ns = timeNs;
  PutFiltered(record, pose, context_.azimuthZero);
  return record;
}

void StreamPublisher::OnDropped() {
  hasDropped_ = true;
  if (writer_ != nullptr) writer_->NoteDropped(1);
}

// The port's counts wrap around; the stream's do not.
void StreamPublisher::CountBytes() {
  bytesIn_ += device_->bytesRead() - static_cast<unsigned>(bytesIn_);
  bytesOut_ += device_->bytesWritten() - static_cast<unsigned>(bytesOut_);
  writer_->SetBytes(bytesIn_, bytesOut_);
}

void StreamPublisher::EndGoodFrame() {
  if (const std::int64_t frameTime = std::exchange(frameTime_, 0); frameTime != 0) {
    BridgeGaps(frameTime);
    if (writer_ != nullptr) writer_->NoteFrame(frameTime);
    ++frame_;
  }
  if (writer_ == nullptr) return;
  CountBytes();
  lastNews_ = Now();
  if (state_ == kinetrel_state_running) return;
  if (state_ == kinetrel_state_recovering) writer_->NoteRecovery();
  SetState(kinetrel_state_running, "", " is running.");
}

void StreamPublisher::EndFailedFrame(bool quiet) {
  if (quiet) return;
  if (BridgeGaps(Now()) && frameTime_ == 0) ++frame_;
  if (writer_ == nullptr) return;
  writer_->NoteFailedRead();
  CountBytes();
  if (state_ == kinetrel_state_recovering || Now() - lastNews_ < kSilence) return;
  SetState(kinetrel_state_silent, "",
           " sends nothing usable. Check its power, its cable and the settings of its port.");
}

void StreamPublisher::SetTrouble(Recovery::Trouble trouble) {
  if (writer_ == nullptr || trouble == Recovery::Trouble::None) return;
  if (trouble == Recovery::Trouble::PortGone) {
    SetState(kinetrel_state_recovering, "The port of ",
             " has gone. Plug it in again; sampling then goes on by itself.");
  } else {
    SetState(kinetrel_state_recovering, "",
             " sends nothing usable and is being started anew. Check its power and its cable.");
  }
}

void StreamPublisher::SetState(kinetrel_state state, const char* before, const char* after) {
  std::array<char, 256> sentence{};
  std::snprintf(sentence.data(), sentence.size(), "%s%s%s", before, device_->GetDeviceName(),
                after);
  state_ = state;
  writer_->SetState(state, sentence.data());
}

void StreamPublisher::OnEntry(const StatusEntry& entry) {
  writer_->AddLogLine(entry.when, entry.code, entry.text.c_str());
}

}  // namespace kinetrel
