#include "engine/sample_loop.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "filters/rigid_math.h"
#include "platform/console.h"
#include "platform/thread.h"

namespace kinetrel {
namespace {

constexpr Milliseconds kBackOff{20};
const std::int64_t kLongestGiveWay = ClockTicksPerSecond() / 1000;
constexpr Milliseconds kNapStep{10};  // how late a nap may end for a stop or a control call
constexpr int kNapMargin = 10;  // ms; a streaming device is read this much before its next frame

const char* UnitsText(unsigned units) { return units == 1 ? "CM" : units == 3 ? "METER" : "INCH"; }

// An old filtered pose must not stand for a sensor without records.
bool IsFresh(const PoseSample& sample) {
  constexpr std::int64_t kHold = 500'000'000;  // ns
  return StreamNanoseconds(ClockTicks()) - sample.timeNs <= kHold;
}

// For what is printed but not logged.
void Print(const char* text) { PrintError("%s", text); }

void PutBits(std::uint32_t& word, std::uint32_t known, std::uint32_t bits) {
  word = (word & ~known) | (bits & known);
}

}  // namespace

std::uint32_t SampleLoop::Header::Flags() const {
  return (units << TrackFlags::kUnitsShift) | (components << TrackFlags::kComponentShift) |
         (sensors & TrackFlags::kLowSensors);
}

SampleLoop::SampleLoop(std::shared_ptr<EngineState> state, const StopEvent& stop)
    : state_(std::move(state)), stop_(stop) {}

void SampleLoop::Run() {
  EngineLock lock(state_->mutex);
  run_ = ++state_->samplingRun;
  device_ = state_->device;
  if (device_ == nullptr) return;  // the engine was closed before this thread ran
  ownButtons_ = dynamic_cast<const ButtonBits*>(device_.get());
  packed_ = dynamic_cast<PackedRecords*>(device_.get());
  RaisePriority();
  ChooseMode();
  if (OpenSharedMemory()) {
    ReportHeader();
    OpenStream();
    WriteBinHeaders();
    BeginDevice(lock);
    while (!stop_.IsSet()) Pass(lock);
    End(lock);
  }
  CloseSharedMemory();
}

// ---- Start -----------------------------------------------------------------------------------

int SampleLoop::MaxBin() const {
  return state_->mappings.empty() ? 0 : state_->mappings.rbegin()->first.bin;
}

void SampleLoop::ChooseMode() {
  int& streaming = state_->config.streaming;
  const int status = device_->GetStatusCode();
  const DeviceFamily family = FamilyOf(status);
  const bool oldSerial =
      (status & static_cast<int>(DeviceFamily::Serial)) != 0 && (status & 1) == 0;
  const bool pollOnly = oldSerial || family == DeviceFamily::HeadTracker ||
                        family == DeviceFamily::VendorLibrary || family == DeviceFamily::PanTilt;
  const bool streamOnly = family == DeviceFamily::StreamOnly || family == DeviceFamily::Gps;
  if (streaming != 0 && pollOnly) {
    Announce(state_->status, "\n\t\t", StatusCode::Setup, "Streaming not supported on %s.",
             device_->GetDeviceName());
    streaming = 0;
  }
  if (streaming == 0 && streamOnly) {
    Announce(state_->status, "\n\t\t", StatusCode::Setup, "Polling not supported on %s.",
             device_->GetDeviceName());
    streaming = 1;
  }
  // A mode that is set while sampling takes effect at the next start.
  streaming_ = streaming != 0;
}

void SampleLoop::RaisePriority() {
  const Status raised = RaiseToTimeCritical();
  if (raised.Ok()) return;
  Announce(state_->status, "\n\t", StatusCode::Refused,
           "Sampling without real-time priority: %s. Other programs may delay the poses. "
           "Run as administrator, or on Linux give your account a limit of rtprio 50.",
           Describe(raised).c_str());
}

bool SampleLoop::OpenSharedMemory() {
  const int device = state_->config.shmDevice;
  writer_.emplace(device, kSharedBins);
  if (!writer_->OpenAll()) {
    Announce(state_->status, "\n\a", StatusCode::SharedMemory, "MTS failed to open.");
    Print(" ");
    Announce(state_->status, "\n\t\t", StatusCode::SharedMemory, "%s",
             Describe(writer_->failure()).c_str());
    return false;
  }
  if (writer_->rivalPresent()) {
    Announce(state_->status, "\n\t", StatusCode::SharedMemory,
             "SharedMemory(%d) is being written by another program as well.", device + 1);
  }
  if (!writer_->failure().Ok()) {
    Announce(state_->status, "\n\t", StatusCode::SharedMemory,
             "SharedMemory(%d) lacks some bins: %s", device + 1,
             Describe(writer_->failure()).c_str());
  }
  Announce(state_->status, "\n\t", StatusCode::Setup, "SharedMemory(%d) open ... ", device + 1);
  return true;
}

SampleLoop::Header SampleLoop::ReadHeader() {
  // The block has room for the low four bits of both.
  return {device_->GetSensorMask(), device_->GetComponentMask() & 0xF,
          static_cast<unsigned>(device_->GetUnits()) & 0xF};
}

void SampleLoop::ReportHeader() {
  header_ = ReadHeader();
  const auto sensor = [this](int i) {
    return HasStation(header_.sensors, i) ? static_cast<char>('1' + i) : '0';
  };
  const auto component = [this](unsigned bit, const char* name) {
    return (header_.components & bit) != 0 ? name : "";
  };
  StatusLog& log = state_->status;
  Announce(log, "\n\t", StatusCode::Setup,
           "Flags: Sensors(%c%c%c%c), Components(%s|%s|%s), Units(%s) .", sensor(0), sensor(1),
           sensor(2), sensor(3), component(kPositionComponent, "CART"),
           component(kEulerComponent, "EULR"), component(kQuaternionComponent, "QUAT"),
           UnitsText(header_.units));
  rate_ = device_->GetFrameRate();
  Announce(log, "\n\t", StatusCode::Setup, "Rate = %d Hz.", rate_);
  ReportSlowLine();
  nap_ = streaming_ && rate_ > 0 ? std::max(0, 1000 / rate_ - kNapMargin) : 0;
}

// The rate above is the one at which the device measures.
void SampleLoop::ReportSlowLine() {
  constexpr int kBitsPerByte = 10;
  const auto* const records = dynamic_cast<const SerialRecords*>(device_.get());
  if (records == nullptr || device_->GetPortNumber() == kUsbPortNumber) return;
  const int baud =
      static_cast<int>(device_->GetBaudRate());  // other devices may have to measure it
  if (baud <= 0) return;
  const int bits =
      kBitsPerByte * static_cast<int>(records->RecordSize()) * device_->GetActiveSensorCount();
  if (bits <= 0 || baud / bits >= rate_) return;
  Announce(state_->status, "\n\t\t", StatusCode::Setup,
           "The line carries %d of them at %d baud: set the tracker to a higher rate.", baud / bits,
           baud);
}

void SampleLoop::OpenStream() {
  stream_.emplace(state_->status, state_->filters, run_);
  stream_->CaptureInto(state_->capture);
  stream_->Open(state_->config.shmDevice, *device_, state_->config.deviceType, rate_,
                writer_->timer().startCount());
  stream_->NameSensors(state_->config.sensors);
  state_->stream = stream_->writer();
}

void SampleLoop::WriteBinHeaders() {
  for (auto& [key, mapping] : state_->mappings) mapping.ResetStatistics();
  for (int bin = 0; bin <= MaxBin(); ++bin) {
    if (writer_->SelectBin(bin) != bin) continue;
    namesDue_ |= 1U << bin;
    if (!EnterBin()) continue;
    WriteHeader(*writer_->block());
    LeaveBin();
  }
}

void SampleLoop::WriteHeader(SharedTrackBlock& block) {
  block.flags = header_.Flags();
  block.frameRate = rate_;
  block.sensorMask = header_.sensors;
  const std::uint32_t bin = 1U << writer_->currentBin();
  if ((namesDue_ & bin) == 0) return;
  SetDeviceName(block, device_->GetDeviceName());
  namesDue_ &= ~bin;
}

void SampleLoop::BeginDevice(EngineLock& lock) {
  Announce(state_->status, "\n\t", StatusCode::Setup, "Nap = %d msecs.", nap_);
  Announce(state_->status, "\n", StatusCode::Setup, "Running ...  ");
  // Without the engine lock: an abandoned run may still be in the device.
  lock.Leave([this] {
    {
      const std::lock_guard inUse(device_->inUse());
      device_->SetTimeOrigin(writer_->timer().startCount());
    }
    if (streaming_) StartContinuous();
  });
  if (!streaming_) Poll(lock);
  recovery_.emplace(state_, device_);
}

// ---- Bins ------------------------------------------------------------------------------------

bool SampleLoop::EnterBin() {
  const bool entered = writer_->Enter();
  ReportNews();
  return entered;
}

void SampleLoop::LeaveBin() {
  writer_->Leave();
  ReportNews();
}

void SampleLoop::ReportNews() {
  const std::optional<BinNews> news = writer_->TakeNews();
  if (!news.has_value()) return;
  StatusLog& log = state_->status;
  const int slot = writer_->device() + 1;
  switch (news->kind) {
    case BinNews::Kind::Held:
      Announce(
          log, "\n\t", StatusCode::SharedMemory,
          "Another program (process %s) holds SharedMemory(%d), bin %d. It is skipped until it "
          "is free.",
          news->process != 0 ? std::to_string(news->process).c_str() : "unknown", slot, news->bin);
      break;
    case BinNews::Kind::Free:
      Announce(log, "\n\t", StatusCode::Progress,
               "SharedMemory(%d), bin %d is free again after %.1f seconds.", slot, news->bin,
               news->seconds);
      break;
    case BinNews::Kind::TakenBack:
      Announce(log, "\n\t", StatusCode::SharedMemory,
               "The owner of SharedMemory(%d), bin %d was not found. The bin was taken back after "
               "%.1f seconds.",
               slot, news->bin, news->seconds);
      break;
    case BinNews::Kind::Repaired:
      Announce(log, "\n\t", StatusCode::SharedMemory,
               "The mutex of SharedMemory(%d), bin %d was unusable. It was repaired.", slot,
               news->bin);
      break;
    case BinNews::Kind::Overwritten:
      Announce(log, "\n\t", StatusCode::SharedMemory,
               "Another program has overwritten the mutex of SharedMemory(%d), bin %d.", slot,
               news->bin);
      break;
  }
}

// ---- One frame -------------------------------------------------------------------------------

void SampleLoop::Pass(EngineLock& lock) {
  header_ = ReadHeader();
  const Frame frame = ReadFrame(lock);
  if (Superseded()) return;
  ++state_->passes;
  if ((frame.updated & header_.sensors) != 0) {
    stream_->EndGoodFrame();
    PublishFrame(lock, frame);
    if (Superseded()) return;
    ++state_->frames;
    NoteSuccess();
  } else {
    NoteFailure(lock, frame);
  }
  ++runLength_;
  if (!streaming_ && !stop_.IsSet()) Poll(lock);
}

void SampleLoop::StartContinuous() {
  const std::lock_guard inUse(device_->inUse());
  device_->StartContinuous();
}

void SampleLoop::Poll(EngineLock& lock) {
  lock.Leave([this] {
    const std::lock_guard inUse(device_->inUse());
    device_->Poll();
  });
}

// Call it without the engine lock and the device. Control calls that wait for them run now: a
// thread of this priority would otherwise take both again first.
void SampleLoop::GiveWay() const {
  const std::int64_t until = ClockTicks() + kLongestGiveWay;
  while (state_->pendingCalls > 0 && ClockTicks() < until) {
    std::this_thread::sleep_for(std::chrono::microseconds(50));
  }
}

SampleLoop::Frame SampleLoop::ReadFrame(EngineLock& lock) {
  joystick_ = state_->joystick;
  stream_->BeginFrame(header_.sensors, {header_.components, header_.units, state_->azimuthZero});
  return lock.Leave([this] {
    GiveWay();
    const std::lock_guard inUse(device_->inUse());
    Frame frame;
    frame.buttonsValid = joystick_ != nullptr && joystick_->Read(0) != 0;
    stream_->SetButtons(JoystickButtons(frame));
    device_->SetRecordReceiver(&*stream_);
    const std::int64_t before = ClockTicks();
    frame.updated = device_->ReadFrame(&frame.sampleTime);
    device_->SetRecordReceiver(nullptr);
    frame.atOnce = ClockTicks() - before < ClockTicksPerSecond() / 1000;
    return frame;
  });
}

// A nap leaves the engine lock, so each mapping is looked up again: a control call may have changed
// them.
void SampleLoop::PublishFrame(EngineLock& lock, const Frame& frame) {
  MappingTable& mappings = state_->mappings;
  for (auto next = mappings.begin(); next != mappings.end();) {
    const MappingKey key = next->first;
    if (HasStation(header_.sensors, next->second.sensor) &&
        writer_->SelectBin(key.bin) == key.bin) {
      if (PublishMapping(key, next->second, frame)) Nap(lock);
      if (Superseded()) return;
      Blink();
    }
    next = mappings.upper_bound(key);
  }
}

// False: another program holds the bin, and it is skipped.
bool SampleLoop::PublishMapping(const MappingKey& key, Mapping& mapping, const Frame& frame) {
  if (!EnterBin()) return false;
  SharedTrackBlock& block = *writer_->block();
  if (key.poseIndex >= 0 && key.poseIndex < kPoseSlots) {
    const auto slot = static_cast<std::size_t>(key.poseIndex);
    const bool delivered = WritePose(block, slot, mapping.sensor);
    const std::optional<FilteredPose> filtered = state_->filters.NewestOf(key);
    if (filtered.has_value() && (delivered || IsFresh(filtered->sample))) {
      WriteFilteredPose(block, slot, filtered->sample);
    }
  }
  WriteHeader(block);
  WriteButtons(block, frame);
  block.sampleTime = frame.sampleTime;
  writer_->Publish(0);
  LeaveBin();
  KeepStatistics(mapping, frame.sampleTime);
  return true;
}

// A sensor without a record is published as zeros, never with its old pose. False then.
bool SampleLoop::WritePose(SharedTrackBlock& block, std::size_t slot, int sensor) {
  static constexpr std::array<float, 3> kZeros{};
  if (packed_ != nullptr) sensor = packed_->RecordOf(sensor);
  // With position and angles, both come from one record.
  const bool whole = header_.components == (kPositionComponent | kEulerComponent);
  const float* const record = whole ? device_->GetSensorPose(sensor) : nullptr;
  float* const pose = block.poses[slot];
  bool delivered = false;
  if ((header_.components & kPositionComponent) != 0) {
    const float* const xyz = whole ? record : device_->GetSensorPosition(sensor);
    std::copy_n(xyz != nullptr ? xyz : kZeros.data(), 3, pose);
    delivered = xyz != nullptr;
  }
  if ((header_.components & kEulerComponent) != 0) {
    const float* angles = whole ? record : device_->GetSensorEuler(sensor);
    if (whole && angles != nullptr) angles += 3;
    std::copy_n(angles != nullptr ? angles : kZeros.data(), 3, pose + 3);
    if (angles != nullptr) {
      delivered = true;
      state_->lastRawAzimuth = angles[0];
      pose[3] -= state_->azimuthZero;
    }
  }
  if ((header_.components & kQuaternionComponent) != 0) {
    const float* const quaternion = device_->GetSensorQuaternion(sensor);
    std::copy_n(quaternion != nullptr ? quaternion : kIdentityQuaternion.data(), 4,
                block.quaternions[slot]);
    delivered = delivered || quaternion != nullptr;
  }
  return delivered;
}

// In the unit and the components that WritePose has written. What the filters declared invalid is
// published as zeros, as a sensor without a record is.
void SampleLoop::WriteFilteredPose(SharedTrackBlock& block, std::size_t slot,
                                   const PoseSample& sample) {
  const auto narrow = [](double value) { return static_cast<float>(value); };
  float* const pose = block.poses[slot];
  Quaternion q = kIdentityQuaternion;
  std::array<float, 3> angles{};
  if (sample.hasOrientation) {
    std::ranges::transform(sample.orientation, q.begin(), narrow);
    angles = QuaternionToEuler(q.data());
    // The zero is taken off after the filters, so the next one is the azimuth that they made.
    if ((header_.components & kEulerComponent) != 0) state_->lastRawAzimuth = angles[0];
    angles[0] -= state_->azimuthZero;
  }
  if ((header_.components & kPositionComponent) != 0) {
    const double units = 1.0 / MetresOf(header_.units);
    const Vector3 place = sample.hasPosition ? units * sample.position : Vector3{};
    std::ranges::transform(place, pose, narrow);
  }
  if ((header_.components & kEulerComponent) != 0) std::ranges::copy(angles, pose + 3);
  if ((header_.components & kQuaternionComponent) != 0) {
    std::ranges::copy(q, block.quaternions[slot]);
  }
}

ButtonBits::Buttons SampleLoop::JoystickButtons(const Frame& frame) const {
  if (!frame.buttonsValid) return {};
  const int channels = std::clamp(joystick_->digitalChannels(), 0, 32);
  return {channels == 32 ? ~0U : (1U << channels) - 1, joystick_->digitalBits()};
}

// Only a joystick sets the valid flag. The device's own buttons are written in any case.
void SampleLoop::WriteButtons(SharedTrackBlock& block, const Frame& frame) {
  if (frame.buttonsValid) {
    const ButtonBits::Buttons joystick = JoystickButtons(frame);
    PutBits(block.buttons, joystick.known, joystick.bits);
    block.flags |= TrackFlags::kButtonsValid;
  }
  if (ownButtons_ == nullptr) return;
  const ButtonBits::Buttons own = ownButtons_->OwnButtons();
  PutBits(block.buttons, own.known, own.bits);
}

void SampleLoop::KeepStatistics(Mapping& mapping, double sampleTime) {
  const double age = writer_->timer().ElapsedSeconds() - sampleTime;
  // Two samples of the same moment give no rate.
  if (mapping.lastSampleTime != 0.0 && sampleTime != mapping.lastSampleTime) {
    mapping.latency.Add(age);
    mapping.rate.Add(1.0 / (sampleTime - mapping.lastSampleTime));
  }
  mapping.lastSampleTime = sampleTime;
}

// Ends early for a stop, for a control call or a simulated tracker's key that waits, and when the
// port holds input: a device that streams several stations must not be read slower than it sends.
void SampleLoop::Nap(EngineLock& lock) {
  if (nap_ <= 0) return;
  const bool keyboard = device_->GetStatusCode() == kKeyboardStatus;
  lock.Leave([this, keyboard] {
    const Deadline deadline{Milliseconds(nap_)};
    while (!stop_.IsSet() && state_->pendingCalls == 0 && !deadline.Passed()) {
      if (keyboard && IsKeyWaiting()) break;
      const Milliseconds step = std::min(deadline.Remaining(), kNapStep);
      const std::lock_guard inUse(device_->inUse());
      if (device_->WaitForRX(static_cast<int>(step.count()), 1)) break;
    }
    GiveWay();
  });
}

void SampleLoop::Blink() {
  if (rate_ <= 0) return;
  const int phase = static_cast<int>(static_cast<std::uint32_t>(writer_->block()->frameCount) %
                                     (2 * static_cast<std::uint32_t>(rate_)));
  if (phase == 0) ShowTransient(" \b");
  if (phase == rate_) ShowTransient("*\b");
}

void SampleLoop::NoteSuccess() {
  recovery_->NoteFrame();
  if (!inError_) return;
  state_->status.SetStatusF(StatusCode::Progress, "Running. (after %u error samples)", runLength_);
  inError_ = false;
  runLength_ = 0;
}

void SampleLoop::NoteFailure(EngineLock& lock, const Frame& frame) {
  const bool keyboard = device_->GetStatusCode() == kKeyboardStatus;
  stream_->EndFailedFrame(keyboard);
  // A read that failed at once must not be repeated at once: at this priority it would block the
  // machine. After a damaged record the next one is as near as ever.
  const bool silent = nap_ == 0 && !keyboard && !stream_->hasDropped();
  if (frame.atOnce || silent) lock.Leave([] { SleepFor(kBackOff); });
  if (keyboard) return;  // no key pressed is no failure
  if (!inError_) LogFailure();
  ShowTransient("e\b");
  // A device that sends is alive, also when it sends nothing about an active sensor.
  if (frame.updated != 0) recovery_->NoteFrame();
  // Not during a stop: a boot takes seconds, and the engine may be closed by then.
  if (stop_.IsSet()) return;
  const bool booted = recovery_->Try(lock);
  stream_->SetTrouble(recovery_->trouble());
  if (booted && streaming_) StartContinuous();
}

void SampleLoop::LogFailure() {
  StatusLog& log = state_->status;
  log.SetStatusF(StatusCode{device_->reportCode()},
                 "Error: Sampling error. (after %u valid samples)", runLength_);
  device_->ClearReportCode();
  const auto report = [&](const char* what, const char* text) {
    if (*text == '\0') return;
    log.SetStatusF(StatusCode{device_->reportCode()}, "%s: %s", what, text);
    device_->ClearReportCode();
  };
  if (device_->reportCode() != 1) {
    report("Tracker Error", device_->errorText());
    report("Tracker Read String", device_->readText());
  }
  inError_ = true;
  runLength_ = 0;
}

// ---- End -------------------------------------------------------------------------------------

void SampleLoop::End(EngineLock& lock) {
  if (streaming_ && !Superseded()) Poll(lock);  // this ends continuous output
  if (Superseded()) return;
  if (SharedTrackBlock* const block = writer_->block()) {
    const bool entered = EnterBin();
    if (entered) block->flags = header_.Flags();
    Announce(state_->status, "\t", StatusCode::Counts, "%d frames sampled.", block->frameCount);
    Announce(state_->status, "\n\t", StatusCode::Counts, "%8.1f seconds elapsed.",
             block->publishTime);
    if (entered) LeaveBin();
  }
  Announce(state_->status, "\n", StatusCode::Closing, "Closing");
  Print(" ... ");
}

void SampleLoop::CloseSharedMemory() {
  if (Superseded() && state_->config.shmDevice == writer_->device()) {
    writer_->CloseForSuccessor();
  }
  writer_.reset();
  if (!Superseded()) {
    Announce(state_->status, "\n\t", StatusCode::Closing, "MTS closed.");
    Print(" ");
  }
  stream_.reset();
}

}  // namespace kinetrel
