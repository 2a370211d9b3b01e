#include "devices/keyboard_device.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "platform/console.h"
#include "platform/mutex.h"

namespace kinetrel {
namespace {

constexpr unsigned kIdentity = kKeyboardStatus;  // device type and status word alike
constexpr unsigned kSteeredBit = StationBit(KeyboardDevice::kSteeredSensor);
constexpr unsigned kSteeredComponentBit = 1U << 15;

constexpr double kTurnPerFrame = 0.004363323129985824;   // pi / 720: 15 degrees a second
constexpr double kRollPerFrame = 0.0004363323129985824;  // a tenth of it
constexpr double kFullTurn = 6.283185307179586;

constexpr float kStepFactorChange = 0.05F;

constexpr int kBackspace = 8, kTab = 9, kLineFeed = 10, kEnter = 13, kEscape = 27;

struct FieldRow {
  const char* name;
  char key;
};
constexpr FieldRow kFields[] = {
    {"NONE", 0},  {"X", 'x'},     {"Y", 'y'},    {"Z", 'z'},
    {"YAW", 'a'}, {"PITCH", 'e'}, {"ROLL", 'r'}, {"Vector", 'v'},
};

struct MoveRow {
  ExtendedKey key;
  unsigned component;
  float direction;
};
constexpr MoveRow kMoves[] = {
    {ExtendedKey::Up, 0, 1.0F},         {ExtendedKey::Down, 0, -1.0F},
    {ExtendedKey::Left, 1, 1.0F},       {ExtendedKey::Right, 1, -1.0F},
    {ExtendedKey::PageUp, 2, 1.0F},     {ExtendedKey::PageDown, 2, -1.0F},
    {ExtendedKey::CtrlLeft, 3, 1.0F},   {ExtendedKey::CtrlRight, 3, -1.0F},
    {ExtendedKey::CtrlUp, 4, 1.0F},     {ExtendedKey::CtrlDown, 4, -1.0F},
    {ExtendedKey::CtrlPageUp, 5, 1.0F}, {ExtendedKey::CtrlPageDown, 5, -1.0F},
};

// What the operator typed into the line editor, and the offset by which the steered sensor was
// last moved. One for all devices of the process, because the process has one keyboard. The
// sampling threads use it under its lock.
struct OperatorEntry {
  Mutex lock;
  std::array<char, 32> text GUARDED_BY(lock){};
  std::size_t length GUARDED_BY(lock) = 0;
  Pose lastAppliedOffset GUARDED_BY(lock){};

  void Clear() REQUIRES(lock) { text[length = 0] = '\0'; }
  void Append(char letter) REQUIRES(lock) {
    if (length + 1 >= text.size()) return;
    text[length++] = letter;
    text[length] = '\0';
  }
  void RemoveLast() REQUIRES(lock) {
    if (length > 0) text[--length] = '\0';
  }
};
// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables)
OperatorEntry entry;

// Prints for the operator. If the terminal is stopped (Ctrl-S) the line is left out, so that
// sampling goes on. The line has no line feed, so it is flushed.
[[gnu::format(printf, 1, 2)]] void Print(const char* format, ...) {
  if (!OutputTakesLine()) return;
  std::va_list arguments;
  va_start(arguments, format);
  std::vprintf(format, arguments);
  va_end(arguments);
  std::fflush(stdout);
}

double UnitsPerMetre(int units) {
  constexpr double kInchesPerMetre = 39.370079F;
  constexpr double kCentimetresPerMetre = 100.0;
  if (units == 0) return kInchesPerMetre;
  return units == 1 ? kCentimetresPerMetre : 1.0;
}

// A step key that is held down for minutes must not reach infinity.
void SetIfFinite(float& value, float next) {
  if (std::isfinite(next)) value = next;
}

bool IsAngle(KeyboardDevice::Field field) {
  return field >= KeyboardDevice::Field::Yaw && field <= KeyboardDevice::Field::Roll;
}

// Edits the text by one key; false for an unknown key.
bool EditText(KeyboardDevice::Field field, int key) REQUIRES(entry.lock) {
  if (key == kBackspace) {
    entry.RemoveLast();
  } else if (key == ',' || key == ';') {
    if (field == KeyboardDevice::Field::Vector) entry.Append(static_cast<char>(key));
  } else if (key == '-' || key == '.' || (key >= '0' && key <= '9')) {
    entry.Append(static_cast<char>(key));
  } else {
    return key == 0;
  }
  return true;
}

}  // namespace

KeyboardDevice::KeyboardDevice() {
  SetName(DeviceName::SimulatedTrajectory);
  deviceType_ = kIdentity;
  statusWord_ = kIdentity;
  totalFrameRate_ = 60;
  AllocateSensors(32);
  if (!resolution_.IsRaised()) Print("Function call timeGetDevCaps error\n");
}

KeyboardDevice::~KeyboardDevice() {
  if (!resolution_.IsRaised()) Print("Function call timeGetDevCaps error\n");
}

// ---- Port ----------------------------------------------------------------------------------

int KeyboardDevice::OpenPort(const char*, int) {
  return SerialPort::OpenPort("~SimulateOpenPort", 115200);
}

int KeyboardDevice::OpenPortNumber(int, int) { return OpenPort(nullptr, 0); }

// ---- Life ----------------------------------------------------------------------------------

BootResult KeyboardDevice::Boot(int reset) {
  booted_ = true;
  if (reset != 0) {
    protocol_ = 1;
    componentMask_ = kPositionComponent | kEulerComponent | kQuaternionComponent;
    lastModeByte_ = 0;
    sensorMask_ = 1;
    statusWord_ = 0;
    reportCode_ = 0;
  }
  ClaimKeys();
  return kBooted;
}

int KeyboardDevice::QueryStatus(char*, int) {
  statusWord_ = (statusWord_ & 0xFFFF0000U) | kIdentity;
  return 1;
}

// ---- Sampling ------------------------------------------------------------------------------

unsigned KeyboardDevice::ReadFrame(double* sampleTime) {
  if (!booted_) return 0;
  const double unitsPerMetre = UnitsPerMetre(GetUnits());
  ++frameCounter_;
  unsigned moved = 0;
  unsigned rest = sensorMask_;
  for (int sensor = 0; rest != 0 && sensor < sensorCount_; ++sensor, rest >>= 1) {
    if ((rest & 1U) == 0) continue;
    if (sensor == kSteeredSensor) {
      if (!HandleKeys()) continue;
    } else {
      FollowPath(sensor, unitsPerMetre);
    }
    moved |= StationBit(sensor);
  }
  resolution_.Sleep(Milliseconds{std::max(1, 1000 / totalFrameRate_)});
  const double time = ElapsedSeconds();
  if (sampleTime != nullptr) *sampleTime = time;
  TellRecords(moved, time);
  return moved;
}

void KeyboardDevice::Poll() {}
void KeyboardDevice::StartContinuous() {}

// The mounting offset turns the angles only; the quaternion stays that of the path.
void KeyboardDevice::FollowPath(int sensor, double unitsPerMetre) {
  constexpr double kStretch[] = {1.0, 3.0, 9.0, 27.0};
  const double along = frameCounter_ * kTurnPerFrame + sensor;
  const double angle = std::fmod(along, kFullTurn);
  const double height = 0.2 * std::cos(angle);
  const double scale = unitsPerMetre * kStretch[sensor % 4];
  const auto index = static_cast<std::size_t>(sensor);
  Pose& pose = poses_[index];
  pose = {static_cast<float>(0.8 * std::cos(angle) * scale),
          static_cast<float>(0.8 * std::sin(angle) * scale),
          static_cast<float>(height * scale),
          static_cast<float>(along + kPi),
          static_cast<float>(std::asin(1.25 * height)),
          static_cast<float>(frameCounter_ * kRollPerFrame + sensor)};
  quaternions_[index] = EulerToQuaternion(pose.data() + 3);
  AddPoseOffset(pose.data(), offsets_[index].data());
}

// ---- Stations ------------------------------------------------------------------------------

unsigned KeyboardDevice::SetSensorMask(unsigned mask, int sensorCount) {
  const int bits = sensorCount != 0 ? sensorCount : sensorCount_;
  if (bits > 0) mask &= FirstStations(bits);
  sensorMask_ = mask;
  ClaimKeys();
  SetComponentMask(componentMask_);
  return sensorMask_;
}

// ---- Settings ------------------------------------------------------------------------------

unsigned KeyboardDevice::SetComponentMask(unsigned mask) {
  const bool steered = (sensorMask_ & kSteeredBit) != 0;
  componentMask_ = steered ? mask | kSteeredComponentBit : mask & ~kSteeredComponentBit;
  return componentMask_;
}

// ---- Keys ----------------------------------------------------------------------------------

void KeyboardDevice::ClaimKeys() {
  const bool steered = booted_ && (sensorMask_ & kSteeredBit) != 0;
  if (!steered) {
    claim_.reset();
  } else if (!claim_) {
    claim_.emplace();
  }
}

bool KeyboardDevice::HandleKeys() {
  if (sensorCount_ <= kSteeredSensor) return false;
  if (applyOffsetPending_) ApplySteeredOffset();
  const std::optional<Key> key = TakeKey();
  if (!key) return false;
  return key->extended ? HandleExtendedKey(key->code) : HandleCharacter(key->code);
}

void KeyboardDevice::ApplySteeredOffset() {
  const Lock guard(entry.lock);
  const Pose& offset = offsets_[kSteeredSensor];
  Pose& pose = SteeredPose();
  for (std::size_t i = 0; i < 3; ++i) pose[i] += offset[i] - entry.lastAppliedOffset[i];
  NormalizeEuler(pose.data() + 3);
  entry.lastAppliedOffset = offset;
  applyOffsetPending_ = false;
}

bool KeyboardDevice::HandleExtendedKey(int code) {
  const auto key = static_cast<ExtendedKey>(code);
  const auto* const move = std::find_if(std::begin(kMoves), std::end(kMoves),
                                        [key](const MoveRow& row) { return row.key == key; });
  if (move != std::end(kMoves)) {
    const float step = move->component < 3 ? positionStep_ : angleStep_;
    float& value = SteeredPose()[move->component];
    SetIfFinite(value, value + move->direction * step);
  } else if (key == ExtendedKey::CtrlTab) {
    stepFactor_ -= kStepFactorChange;
  } else {
    Print("\nKey = 0x%02X", static_cast<unsigned>(code));
    return false;
  }
  PrintStatusLine();
  return true;
}

bool KeyboardDevice::HandleCharacter(int code) {
  const bool editing = entryField_ != Field::None;
  for (int field = 1; field < static_cast<int>(std::size(kFields)); ++field) {
    const char key = kFields[field].key;
    if (code == key || code == key - 'a' + 'A') return EnterValue(static_cast<Field>(field), 0);
  }
  if (code == kEscape || code == 'O' || code == 'o') {
    PushBackKey({code, false});  // for the console loop
  } else if ((code == '-' && editing) || !StepKey(code)) {
    if (editing) return EnterValue(entryField_, code);
    Print("\nKey(%c) = %d", code, code);
    return false;
  }
  PrintStatusLine();
  return true;
}

bool KeyboardDevice::StepKey(int code) {
  struct StepRow {
    const char* keys;
    float KeyboardDevice::*step;
    float direction;
  };
  static constexpr StepRow kSteps[] = {
      {"+=", &KeyboardDevice::positionStep_, 1.0F},
      {"-", &KeyboardDevice::positionStep_, -1.0F},
      {"[{", &KeyboardDevice::angleStep_, 1.0F},
      {"]}", &KeyboardDevice::angleStep_, -1.0F},
  };
  if (code == kTab) {
    stepFactor_ += kStepFactorChange;
    return true;
  }
  for (const StepRow& row : kSteps) {
    if (code == 0 || std::strchr(row.keys, code) == nullptr) continue;
    float& step = this->*row.step;
    SetIfFinite(step, step * (1.0F + row.direction * stepFactor_));
    return true;
  }
  return false;
}

void KeyboardDevice::PrintStatusLine() const {
  const Pose& pose = poses_[kSteeredSensor];
  const auto degrees = [](float angle) { return angle * kDegreesPerRadian; };
  Print("\r(%7.3f,%7.3f,%7.3f;%6.1f,%6.1f,%6.1f) [%4.2f,%4.1f,%4.2f]", static_cast<double>(pose[0]),
        static_cast<double>(pose[1]), static_cast<double>(pose[2]), degrees(pose[3]),
        degrees(pose[4]), degrees(pose[5]), static_cast<double>(positionStep_), degrees(angleStep_),
        static_cast<double>(stepFactor_));
}

// ---- Line editor ---------------------------------------------------------------------------

bool KeyboardDevice::EnterValue(Field field, int key) {
  if (field < Field::None || field > Field::Vector || sensorCount_ <= kSteeredSensor) return false;
  const Lock guard(entry.lock);
  if (field != entryField_) {
    entry.Clear();
    Print("\n");
    entryField_ = field;
  }
  if (key == kLineFeed || key == kEnter) return StoreEntry(entry.text.data());
  if (!EditText(field, key)) return false;
  Print("\rEnter value for %s: %s \b", kFields[static_cast<int>(field)].name, entry.text.data());
  return true;
}

bool KeyboardDevice::StoreEntry(const char* text) {
  if (entryField_ == Field::None) return false;
  if (*text == '\0') {
    Print("\r%-60s\r", "No value stored");
  } else if (entryField_ == Field::Vector) {
    StoreVector(text);
  } else {
    StoreComponent(text);
  }
  entryField_ = Field::None;
  return true;
}

void KeyboardDevice::StoreComponent(const char* text) {
  float value = 0.0F;
  if (std::sscanf(text, "%f", &value) != 1) return;
  const int field = static_cast<int>(entryField_);
  Print("\rNew value for %s = %f\n", kFields[field].name, static_cast<double>(value));
  const double stored = IsAngle(entryField_) ? value * kRadiansPerDegree : value;
  SteeredPose()[static_cast<std::size_t>(field - 1)] = static_cast<float>(stored);
}

// Components that the text does not give stay unchanged.
void KeyboardDevice::StoreVector(const char* text) {
  Pose& pose = SteeredPose();
  std::array<float, 3> degrees;
  for (std::size_t i = 0; i < 3; ++i) {
    degrees[i] = static_cast<float>(pose[i + 3] * kDegreesPerRadian);
  }
  const int got = std::sscanf(text, "%f,%f,%f;%f,%f,%f", &pose[0], &pose[1], &pose[2], &degrees[0],
                              &degrees[1], &degrees[2]);
  if (got < 1) return;
  Print("\rNew vector = (%f,%f,%f;%f,%f,%f)\n", static_cast<double>(pose[0]),
        static_cast<double>(pose[1]), static_cast<double>(pose[2]), static_cast<double>(degrees[0]),
        static_cast<double>(degrees[1]), static_cast<double>(degrees[2]));
  for (int i = 3; i < got; ++i) {
    const auto angle = static_cast<std::size_t>(i);
    pose[angle] = static_cast<float>(degrees[angle - 3] * kRadiansPerDegree);
  }
}

}  // namespace kinetrel
