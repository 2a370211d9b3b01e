#include "drivers/flock_device.h"

#include <algorithm>
#include <iterator>

#include "devices/wire.h"
#include "platform/console.h"

namespace kinetrel {
namespace {

// ---- The wire --------------------------------------------------------------------------------

constexpr int kBaud = 115200;

constexpr std::uint8_t kExamine = 'O';
constexpr std::uint8_t kChange = 'P';
constexpr std::uint8_t kHemisphere = 'L';
constexpr std::uint8_t kBusAddress = 0xF0;  // plus the address of the bird the next command is for
constexpr std::uint8_t kBirds = 3;          // that the bus is configured for
constexpr unsigned kErrorBit = 0x2000;      // of the status word

bool IsMarked(std::byte byte) { return (byte & std::byte{0x80}) != std::byte{0}; }

constexpr unsigned kSensors = 5;
constexpr int kLastAddress = 14;
constexpr int kFlockStatus = 3;  // the status word of a booted flock

// ---- How long a bird may take, ms ------------------------------------------------------------

// For question and answer. A bird needs far less, but USB adapters hold received bytes for up to
// 16 ms, and the machine may be busy.
constexpr int kAnswerPatience = 100;
constexpr int kMasterPatience = 180;
constexpr int kConfigurationPatience = 700;  // a bird ignores questions while it configures the bus
constexpr Milliseconds kFirstBoot{5000};     // the bird may be starting up
constexpr Milliseconds kLaterBoot{2000};     // the engine boots it again; sampling may be stopped
constexpr int kSilence = 30;                 // a streaming bird never pauses that long
constexpr Milliseconds kLongestNoise{300};

constexpr int kReadConstant = 35;
constexpr int kReadPerByte = 18;
constexpr int kReadInterval = 16;

// A byte that is wrongly marked shifts the reading twice before it fits again.
constexpr int kMostFills = 3;

// ---- Scales ----------------------------------------------------------------------------------

constexpr double kFullScale = 32768.0;
constexpr double kRangeInCm = 365.76;
constexpr double kSteps = 8192;  // in which a word is sent

struct UnitRow {
  int units;
  double range;  // full scale of a position, in that unit
};
constexpr UnitRow kInches = {0, 144.0};
constexpr UnitRow kUnits[] = {kInches, {1, kRangeInCm}, {3, 3.6576}};

double RangeIn(int units) {
  const auto row = std::ranges::find(kUnits, units, &UnitRow::units);
  return row != std::end(kUnits) ? row->range : kInches.range;
}

// Signs from the bird's frame to ours.
constexpr std::array<double, 6> kSigns = {1, -1, -1, -1, -1, 1};

struct HemisphereRow {
  std::size_t axis;
  float value;
  std::uint8_t axisCode;
  std::uint8_t signCode;
};
constexpr HemisphereRow kForward = {0, 1.0F, 0, 0};
constexpr HemisphereRow kHemispheres[] = {kForward,         {0, -1.0F, 0, 1}, {1, 1.0F, 6, 0},
                                          {1, -1.0F, 6, 1}, {2, 1.0F, 12, 0}, {2, -1.0F, 12, 1}};

HemisphereRow HemisphereOf(const float zenith[3]) {
  for (const HemisphereRow& row : kHemispheres) {
    if (zenith[row.axis] == row.value) return row;
  }
  return kForward;
}

// Measurements a second by the bird's own formula; 0 if the crystal's speed is unknown.
unsigned MeasurementRate(float crystalSpeed, unsigned count) {
  if (crystalSpeed <= 0) return 0;
  const double period = (8 / double{crystalSpeed}) * count * 0.001 * 4.0 + 0.3;
  return static_cast<unsigned>(1000 / period);
}

// ---- Printing --------------------------------------------------------------------------------

// The line with the label shows the first byte only; the rows show the bits of all bytes.
void PrintBits(const char* label, std::span<const std::uint8_t> bytes) {
  PrintOutput("\n%s: %X\n", label, unsigned{bytes[0]});
  for (const std::uint8_t byte : bytes) {
    for (int bit = 0; bit < 8; ++bit) PrintOutput("\t%d", byte >> bit & 1);
    std::putchar('\n');
  }
}

// Replaces control characters: text from the line must not steer the terminal.
std::array<char, 11> Printable(std::array<char, 11> text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c != '\0' && (c < ' ' || c > '~'); }, '?');
  return text;
}

}  // namespace

// Parameters that a bird can be asked for.
enum class FlockDevice::Parameter : std::uint8_t {
  BirdStatus = 0,
  SoftwareRevision = 1,
  CrystalSpeed = 2,
  MeasurementCount = 6,
  SampleRate = 7,
  ErrorCode = 10,
  ModelId = 15,
  BirdsOnBus = 33,
  GroupMode = 35,
  FlockStatus = 36,
  AutoConfiguration = 50,
};

// ---- Decoding --------------------------------------------------------------------------------

std::array<int, 6> DecodeFlockRecord(std::span<const std::byte, kFlockRecordSize> record) {
  WireReader reader(record);
  std::array<int, 6> words;
  for (int& word : words) word = reader.I14Pair() * 4;
  return words;
}

// The last mark counts; the record before it was cut.
std::size_t FindFlockRecord(std::span<const std::byte, kFlockRecordSize> bytes) {
  std::size_t start = bytes.size() - 1;
  while (start > 0 && !IsMarked(bytes[start])) --start;
  return start;
}

// ---- Life ------------------------------------------------------------------------------------

FlockDevice::FlockDevice() {
  sensorCount_ = kSensors;
  totalFrameRate_ = 144;
  componentMask_ = kPositionComponent | kEulerComponent;
  continuousByte_ = '@';
  pollByte_ = 'B';
  stopByte_ = 'B';
  deviceType_ = static_cast<int>(DeviceName::AscensionFlock);
  SetName(DeviceName::AscensionFlock);
  FlockDevice::SetUnits(units_);
}

int FlockDevice::OpenPort(const char* name, int) { return TrackerDevice::OpenPort(name, kBaud); }

BootResult FlockDevice::Boot(int) {
  StartOver();
  SetHandshake(0);
  SetHandshake(2);
  const std::uint16_t status = AwaitMaster();
  if (status == 0) return kPortNotOpen;
  if ((status & kErrorBit) != 0 && !ReportBirdError()) return kPortNotOpen;
  ConfigureBus();
  PrintOutput("\n\n****** CALLING STATUS.. **********\n");
  FlockDevice::QueryStatus(nullptr, 0);
  PrintParameters();
  // The line was lost meanwhile: the values above did not come from a bird.
  if (LineLost()) return kPortNotOpen;
  booted_ = AllocateSensors(kSensors);
  FlushOutput();
  SetReadTimeouts(kReadConstant, kReadPerByte, kReadInterval);
  statusWord_ = kFlockStatus;
  known_ = known_ || booted_;
  return booted_ ? kBooted : kPortNotOpen;
}

// After an unplug, another flock may be on the line.
void FlockDevice::StartOver() {
  booted_ = false;
  lastModeByte_ = 0;
  answerDue_ = false;
  window_.Clear();
  gate_.Forget();
  parameters_ = {};
}

// More than the two bytes asked for means that the bird still streams for an earlier program.
std::uint16_t FlockDevice::AwaitMaster() {
  const std::array<std::uint8_t, 2> request = {kExamine, 0};
  const Deadline deadline(known_ ? kLaterBoot : kFirstBoot);
  do {
    DiscardInput();
    if (Write(request.data(), request.size()) != request.size()) return 0;
    FlushOutput();
    std::array<std::byte, 2> answer{};
    if (WaitForRX(kMasterPatience, 2) && Read(answer.data(), answer.size())) {
      if (!WaitForRX(kSilence, 1)) return WireReader(answer).U16Le();
      Write(&stopByte_, 1);
      AwaitSilence();
    }
  } while (!LineLost() && !deadline.Passed());
  return 0;
}

bool FlockDevice::ReportBirdError() {
  std::uint8_t code = 0;
  if (Ask(Parameter::ErrorCode, {&code, 1}) != 1) return false;
  PrintOutput("\nBird error: 0x%02X", unsigned{code});
  return true;
}

void FlockDevice::ConfigureBus() {
  Ask(Parameter::AutoConfiguration, parameters_.autoConfig);
  PrintBits("AUTO configuration", parameters_.autoConfig);
  const std::array<std::uint8_t, 3> change = {
      kChange, static_cast<std::uint8_t>(Parameter::AutoConfiguration), kBirds};
  if (Write(change.data(), change.size()) == change.size()) {
    PrintOutput("\nautoconfig request successful.\n");
  }
  Ask(Parameter::AutoConfiguration, parameters_.autoConfig, kConfigurationPatience);
  PrintBits("AUTO configuration", parameters_.autoConfig);
}

void FlockDevice::PrintParameters() const {
  const FlockParameters& p = parameters_;
  PrintOutput("\nsystem status: %X", unsigned{p.systemStatus});
  PrintOutput("\nversion is: %f", double{p.softwareRevision});
  PrintOutput("\ncrys speed is: %f", double{p.crystalSpeed});
  PrintOutput("\nmeasurement count: %u", p.measurementRate);
  PrintOutput("\nsample rate: %f", double{p.sampleRate});
  PrintOutput("\nerror code: %u", p.errorCode);
  PrintOutput("\nsystem model ID: %s", Printable(p.modelId).data());
  PrintOutput("\nmaster groupmode: %d", p.groupMode ? 1 : 0);
  PrintBits("flock system status", p.flockStatus);
  PrintBits("FBB configuration", p.fbbConfig);
}

// ---- Questions and answers -------------------------------------------------------------------

// Keeps the line free for questions and answers while it lives. The constructor ends a stream and
// takes in an answer that is due; the destructor starts the stream or polls again.
class FlockDevice::QuietLine {
 public:
  explicit QuietLine(FlockDevice& device)
      : device_(device),
        streaming_(device.booted_ && device.lastModeByte_ == device.continuousByte_),
        polled_(device.answerDue_) {
    if (streaming_) device_.Write(&device_.stopByte_, 1);
    if (streaming_ || polled_) device_.AwaitSilence();
  }
  ~QuietLine() {
    if (streaming_) {
      device_.StartContinuous();
    } else if (polled_) {
      device_.Poll();
    }
  }
  QuietLine(const QuietLine&) = delete;
  QuietLine& operator=(const QuietLine&) = delete;

 private:
  FlockDevice& device_;
  const bool streaming_;
  const bool polled_;
};

int FlockDevice::QueryStatus(char*, int) {
  const QuietLine quiet(*this);
  FlockParameters& p = parameters_;
  p.systemStatus = static_cast<std::uint16_t>(AskWord(Parameter::BirdStatus));
  const unsigned revision = AskWord(Parameter::SoftwareRevision);
  p.softwareRevision =
      static_cast<float>(revision & 0xFF) + static_cast<float>(revision >> 8) * 0.01F;
  Ask(Parameter::FlockStatus, p.flockStatus);
  Ask(Parameter::AutoConfiguration, p.fbbConfig);
  p.groupMode = AskByte(Parameter::GroupMode) != 0;
  std::array<std::uint8_t, 10> model{};
  Ask(Parameter::ModelId, model);
  std::ranges::copy(model, p.modelId.begin());
  p.crystalSpeed = static_cast<float>(AskWord(Parameter::CrystalSpeed) & 0xFF) * 1'000'000.0F;
  p.measurementRate = MeasurementRate(p.crystalSpeed, AskWord(Parameter::MeasurementCount));
  p.sampleRate = static_cast<float>(AskWord(Parameter::SampleRate)) / 256.0F;
  p.errorCode = AskByte(Parameter::ErrorCode);
  return 0;
}

std::size_t FlockDevice::Ask(Parameter parameter, std::span<std::uint8_t> into) {
  return Ask(parameter, into, kAnswerPatience);
}

// Returns how many bytes came; the rest of `into` stays as it was. Drops bytes that came before the
// question.
std::size_t FlockDevice::Ask(Parameter parameter, std::span<std::uint8_t> into, int patience) {
  DiscardInput();
  const std::array<std::uint8_t, 2> request = {kExamine, static_cast<std::uint8_t>(parameter)};
  if (Write(request.data(), request.size()) != request.size()) return 0;
  unsigned count = static_cast<unsigned>(into.size());
  if (!WaitForRX(patience, static_cast<int>(count))) count = std::min(count, InputQueueLength());
  unsigned got = 0;
  if (count > 0) ReadSome(into.data(), count, &got);
  return got;
}

// Returns 0 unless both bytes came.
unsigned FlockDevice::AskWord(Parameter parameter) {
  std::array<std::uint8_t, 2> answer{};
  if (Ask(parameter, answer) != answer.size()) return 0;
  return answer[0] | unsigned{answer[1]} << 8;
}

unsigned FlockDevice::AskByte(Parameter parameter) {
  std::uint8_t answer = 0;
  Ask(parameter, {&answer, 1});
  return answer;
}

void FlockDevice::DiscardInput() {
  PurgeInput();
  window_.Clear();
}

void FlockDevice::AwaitSilence() {
  for (const Deadline deadline(kLongestNoise); !deadline.Passed();) {
    DiscardInput();
    Pause(kSilence);
    if (InputQueueLength() == 0) return;
  }
}

// ---- Sampling --------------------------------------------------------------------------------

unsigned FlockDevice::ReadFrame(double* sampleTime) {
  if (poses_.empty()) return 0;
  if (lastModeByte_ == continuousByte_) {
    backlog_.DropOld(*this, window_, {deviceName_, kFlockRecordSize, totalFrameRate_}, statusLog_);
  }
  // The next record tells whether one that was held back was damaged.
  const bool streams = lastModeByte_ == continuousByte_;
  for (int tries = streams ? 2 : 1; tries > 0; --tries) {
    if (!FetchRecord()) return 0;
    const double time = ElapsedSeconds();
    answerDue_ = false;
    if (!TakeRecord(time)) continue;
    if (sampleTime != nullptr) *sampleTime = time;
    TellRecords(1, time);
    return 1;
  }
  return 0;
}

// False for a record that was probably damaged.
bool FlockDevice::TakeRecord(double time) {
  const auto words = DecodeFlockRecord(window_.bytes().first<kFlockRecordSize>());
  window_.Drop(kFlockRecordSize);
  Pose pose;
  for (std::size_t i = 0; i < 3; ++i) channels_[i].offset = double{offsets_[0][i]};
  for (std::size_t i = 0; i < words.size(); ++i) {
    channels_[i].raw = words[i];
    pose[i] = static_cast<float>(channels_[i].Value());
  }
  const double unitInCm = kRangeInCm / RangeIn(units_);
  if (!gate_.Accept(MotionGate::SampleOf(pose, unitInCm, time),
                    {1.0 / totalFrameRate_, kRangeInCm / kSteps, kPi / kSteps})) {
    Post(statusLog_, StatusCode::Refused, "A record was damaged: the pose jumps.");
    TellDropped();
    return false;
  }
  poses_[0] = pose;
  return true;
}

// True if a whole record is at the start of the window. A record that came in part is kept for the
// next call only if its start is marked: otherwise its next bytes could not be told from noise.
bool FlockDevice::FetchRecord() {
  for (int fill = 0; fill < kMostFills; ++fill) {
    if (!window_.Want(*this, kFlockRecordSize)) {
      if (window_.size() > 0 && !IsMarked(window_.bytes()[0])) window_.Clear();
      return false;
    }
    const std::size_t before = FindFlockRecord(window_.bytes().first<kFlockRecordSize>());
    if (before == 0) return true;
    window_.Drop(before);
  }
  return false;
}

// A late answer would be read as the answer to the next poll; every later pose would be one poll
// old.
void FlockDevice::DropLateAnswer() {
  if (answerDue_) DiscardInput();
  answerDue_ = false;
}

void FlockDevice::Poll() {
  if (!booted_) return;
  DropLateAnswer();
  TrackerDevice::Poll();
  answerDue_ = true;
}

void FlockDevice::StartContinuous() {
  DropLateAnswer();
  TrackerDevice::StartContinuous();
}

// ---- Stations --------------------------------------------------------------------------------

unsigned FlockDevice::SetSensorMask(unsigned mask, int sensorCount) {
  return TrackerDevice::SetSensorMask(MaskWithFirstSensor(mask), sensorCount);
}

// ---- Settings --------------------------------------------------------------------------------

int FlockDevice::SetUnits(int units) {
  const double range = RangeIn(units);
  for (std::size_t i = 0; i < kSigns.size(); ++i) {
    channels_[i].scale = kSigns[i] * (i < 3 ? range : kPi) / kFullScale;
  }
  units_ = units;
  return 1;
}

unsigned FlockDevice::SetComponentMask(unsigned) { return 0; }

int FlockDevice::SetHemisphere(int sensor, const float zenith[3]) {
  const HemisphereRow hemisphere = HemisphereOf(zenith);
  gate_.Forget();  // the pose moves at once
  const auto send = [&](int address) {
    const std::array<std::uint8_t, 4> command = {static_cast<std::uint8_t>(kBusAddress + address),
                                                 kHemisphere, hemisphere.axisCode,
                                                 hemisphere.signCode};
    Write(command.data(), command.size());
  };
  if (sensor != -1) {
    // Bytes beyond the last address are commands of their own.
    if (sensor >= 0 && sensor <= kLastAddress) send(sensor);
    return 0;
  }
  const QuietLine quiet(*this);
  std::array<std::uint8_t, 5> birds{};
  Ask(Parameter::BirdsOnBus, birds);
  const unsigned mask = birds[1] | unsigned{birds[2]} << 8;
  for (int address = 1; address <= kLastAddress; ++address) {
    if ((mask >> address & 1) != 0) send(address);
  }
  return 0;
}

}  // namespace kinetrel
