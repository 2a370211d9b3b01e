// The settings of the FASTRAK family: commands of a letter, arguments and CR.
#include "drivers/fastrak_device.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <string>
#include <utility>

#include "devices/bounded_text.h"
#include "devices/polhemus_usb.h"
#include "platform/console.h"

namespace kinetrel {
namespace {

constexpr unsigned kStationPause = 8;      // ms after every command to one station
constexpr unsigned kLetterPause = 2;       // ms after a single letter
constexpr unsigned kOutputListPause = 50;  // ms
constexpr int kAnswerMs = 200;             // the longest wait for a record or a reply
constexpr Milliseconds kLongestTail{300};  // of a stream that was ended
constexpr int kMostStations = 9;           // a station number is one digit
constexpr unsigned kAllStations = ~0U;
constexpr const char* kAnyUsbUnit = "usb";

// Items of the output list: position, Euler angles, quaternion.
constexpr std::array<const char*, 3> kItems16 = {"18", "19", "20"};
constexpr std::array<const char*, 3> kItems = {" 2", " 4", "11"};

}  // namespace

FastrakDevice::FastrakDevice() {
  SetName(DeviceName::Polhemus);
  continuousByte_ = 'C';
  pollByte_ = 'P';
  stopByte_ = 'c';
}

void FastrakDevice::WriteCommand(std::string_view command, unsigned pauseMs) {
  Write(command.data(), static_cast<unsigned>(command.size()));
  Pause(pauseMs);
}

// ---- Port ----------------------------------------------------------------------------------

int FastrakDevice::OpenPort(const char* name, int baud) {
  if (name == nullptr || !IsUsbName(name)) return TrackerDevice::OpenPort(name, baud);
  // After an unplug the same unit is meant, not another one.
  const bool known =
      !usbUnit_.empty() && (std::string_view(name) == kAnyUsbUnit || name == usbUnit_);
  std::string why;
  auto unit = OpenPolhemusUnit(PolhemusFamily::Fastrak, known ? usbUnit_ : name, why,
                               known ? usbProduct_ : std::uint16_t{0});
  if (!unit.Ok()) {
    // Nothing else tells the user what is at the place of a unit that is waited for.
    if (known && why != usbRefusal_) PrintError("\n%s\n", why.c_str());
    usbRefusal_ = why;
    return RefuseUsb(unit.status(), std::move(why));
  }
  usbRefusal_.clear();
  usbUnit_ = unit->name;
  usbProduct_ = unit->product;
  return OpenOnUsb(std::move(unit->line), baud);
}

int FastrakDevice::OpenPortNumber(int number, int baud) {
  return number == kUsbPortNumber ? OpenPort(kAnyUsbUnit, baud)
                                  : TrackerDevice::OpenPortNumber(number, baud);
}

// ---- Quiet line ----------------------------------------------------------------------------

FastrakDevice::QuietLine::QuietLine(FastrakDevice& device)
    : device_(device), streamed_(device.IsStreaming()) {
  device_.AwaitQuiet();
}

FastrakDevice::QuietLine::~QuietLine() {
  if (streamed_) device_.StartContinuous();
}

void FastrakDevice::AwaitQuiet() {
  if (!booted_ || lastModeByte_ == 0) return;
  if (IsStreaming()) {
    Write(&stopByte_, 1);
    FlushOutput();
  } else {
    const auto active = static_cast<std::size_t>(GetActiveSensorCount());
    WaitForRX(kAnswerMs, static_cast<int>(active * layout_.Size()));
  }
  const Deadline deadline(kLongestTail);
  do {
    PurgeInput();
  } while (WaitForRX(kFastrakQuietMs, 1) && !deadline.Passed());
  window_.Clear();
  lastModeByte_ = 0;
}

// ---- Stations ------------------------------------------------------------------------------

int FastrakDevice::SendStationCommand(const char* command, unsigned stationMask, int stations) {
  if (!AcceptsCommands() || command == nullptr) return 0;
  if (stations == 0) stations = sensorCount_;
  std::array<char, 256> text{};
  const int length = CopyTruncated(text.data(), static_cast<int>(text.size()), command);
  if (length < 2) return 0;
  for (int i = 0; i < std::min(stations, kMostStations); ++i) {
    if (!HasStation(stationMask, i)) continue;
    text[1] = static_cast<char>('1' + i);
    WriteCommand({text.data(), static_cast<std::size_t>(length)}, kStationPause);
  }
  return stations + 1;
}

unsigned FastrakDevice::SetSensorMask(unsigned mask, int stations) {
  if (!AcceptsCommands() || (statusWord_ & kFastrakInterSense) != 0) return sensorMask_;
  const QuietLine quiet(*this);
  stations = std::min(stations == 0 ? sensorCount_ : stations, kMostStations);
  mask &= FirstStations(stations);
  if (mask != 0) SwitchStations(mask, stations);
  LayOutRecords();
  return sensorMask_;
}

void FastrakDevice::SwitchStations(unsigned mask, int stations) {
  FlushOutput();
  PurgeInput();
  window_.Clear();
  if (IsFastrakClass()) {
    SendStationCommand("l1,1\r", mask, stations);
    SendStationCommand("l1,0\r", ~mask, stations);
  }
  WriteCommand(IsFastrakClass() ? "l1\r" : "l\r", kStationPause);
  std::array<char, kMostStations + 5> reply{};
  const auto size = static_cast<unsigned>(stations) + 5;
  unsigned got = 0;
  WaitForRX(kAnswerMs, static_cast<int>(size));  // a busy machine or a USB adapter delivers it late
  ReadSome(reply.data(), size, &got);
  unsigned reported = mask;
  ParseActiveStations({reply.data(), got}, stations, reported);
  TakeReportedStations(mask, stations, reported);
}

// The FASTRAK class has switched its stations; its report counts. The IsoTRAK class switches a
// station over each time the command names it.
void FastrakDevice::TakeReportedStations(unsigned mask, int stations, unsigned reported) {
  sensorMask_ = reported;
  if (IsFastrakClass()) return;
  for (int i = 0; i < stations; ++i) {
    if (HasStation(reported ^ mask, i)) SendStationCommand("l1\r", StationBit(i), 0);
  }
  sensorMask_ = mask;
}

// ---- Settings ------------------------------------------------------------------------------

int FastrakDevice::SetUnits(int units) {
  const QuietLine quiet(*this);
  WriteCommand(units == 0 ? "U" : "u", kLetterPause);
  units_ = units;
  LayOutRecords();
  return units_;
}

int FastrakDevice::SetCrLf(int on) {
  const int crLf = on != 0 ? 1 : 0;
  if (booted_) SetOutputList(protocol_, componentMask_, crLf, kAllStations);
  crLf_ = crLf;
  return 1;
}

int FastrakDevice::SetProtocol(int protocol) {
  if (!booted_ || protocol < 1 || protocol > 3) return 0;
  const QuietLine quiet(*this);
  const bool bits14 = protocol == static_cast<int>(FastrakProtocol::Bits14);
  if (IsFastrakClass()) {
    if (protocol == static_cast<int>(FastrakProtocol::Bits16)) return 0;
    if (bits14 && Model() != kFastrakProper) return 0;  // InterSense units have no such records
    const char* const plain = bits14 ? "O1,18,19\r" : "O1,2,4\r";
    const char* const ended = bits14 ? "O1,18,19,1\r" : "O1, 2, 4,1\r";
    SendStationCommand(crLf_ != 0 ? ended : plain, kAllStations, 0);
  } else {
    if (!bits14) protocol = static_cast<int>(FastrakProtocol::Bits16);
    WriteCommand(crLf_ != 0 ? "O2,4,1\r" : "O2,4\r", 0);
  }
  SetOutputList(protocol, componentMask_, crLf_, kAllStations);
  return protocol_;
}

unsigned FastrakDevice::SetComponentMask(unsigned mask) {
  return SetOutputList(protocol_, mask, crLf_, kAllStations) ? 1 : 0;
}

bool FastrakDevice::SetOutputList(int protocol, unsigned components, int crLf,
                                  unsigned stationMask) {
  if (!booted_) return false;
  const QuietLine quiet(*this);
  const bool bits32 = protocol == static_cast<int>(FastrakProtocol::Bits32);
  protocol_ = !IsFastrakClass() && bits32 ? static_cast<int>(FastrakProtocol::Bits16) : protocol;
  componentMask_ = components;
  crLf_ = crLf;
  WriteOutputList(IsFastrakClass() && !bits32 ? kItems16 : kItems, stationMask);
  LayOutRecords();
  return true;
}

void FastrakDevice::WriteOutputList(const std::array<const char*, 3>& items, unsigned stationMask) {
  std::array<char, 32> room;
  TextAppender command(room);
  command.Append(IsFastrakClass() ? "O1," : "O");
  for (std::size_t i = 0; i < items.size(); ++i) {
    if ((componentMask_ >> i & 1) != 0) command.AppendF("%s,", items[i]);
  }
  if (crLf_ != 0) {
    command.Append("1");
  } else if (room[command.length() - 1] == ',') {
    command.DropLast();
  }
  command.Append("\r");
  if (IsFastrakClass()) {
    SendStationCommand(command.c_str(), stationMask, 0);
  } else {
    WriteCommand(command.c_str(), 0);
  }
  Pause(kOutputListPause);
  WriteCommand(IsFastrakClass() ? "O1\r" : "O\r", kOutputListPause);
  std::array<char, 12> echo;  // of the list; not used
  unsigned got = 0;
  ReadSome(echo.data(), static_cast<unsigned>(echo.size()), &got);
}

// Follows from model, protocol, components, units and stations. frameLength_ counts 4 bytes for a
// 14-bit value too; a longer search for a head does no harm.
void FastrakDevice::LayOutRecords() {
  const bool bits14 = Model() == kFastrakProper && protocol_ == 1;
  layout_.format = bits14 ? FastrakFormat::Bits14 : modelFormat_;
  layout_.components = componentMask_;
  layout_.crLf = crLf_ != 0;
  const int valueSize = protocol_ == static_cast<int>(FastrakProtocol::Bits16) ? 2 : 4;
  const int recordSize = layout_.ValueCount() * valueSize + (layout_.crLf ? 5 : 3);
  frameLength_ = recordSize * std::popcount(sensorMask_ & FirstStations(sensorCount_));
  for (MotionGate& gate : gates_) gate.Forget();
  SetFastrakScales(IsFastrakClass(), units_, layout_.format, channels_);
}

// No unit of the family has such vectors, so nothing is sent.
int FastrakDevice::SetSensorVector4(int, float a, float b, float c, float d) {
  const float product = a * b * c * d;
  return std::fabs(product) < 1e9F ? 1 - static_cast<int>(product) : 0;
}

struct FastrakDevice::Alignment {
  std::array<float, 3> origin;
  std::array<float, 3> xPoint;
  std::array<float, 3> yPoint;
};

int FastrakDevice::SetAlignment(int sensor, const float xAxis[3], const float yAxis[3]) {
  return SendAlignment(sensor,
                       {{}, {xAxis[0], xAxis[1], xAxis[2]}, {yAxis[0], yAxis[1], yAxis[2]}});
}

int FastrakDevice::SetAlignmentPose(int sensor, const float pose[6]) {
  const float cosA = std::cos(pose[3]);
  const float sinA = std::sin(pose[3]);
  const float cosE = std::cos(pose[4]);
  const float sinE = std::sin(pose[4]);
  const float cosR = std::cos(pose[5]);
  const float sinR = std::sin(pose[5]);
  return SendAlignment(
      sensor, {{pose[0], pose[1], pose[2]},
               {cosA * cosE, sinA * cosE, -sinE},
               {sinE * cosA * sinR - cosR * sinA, sinE * sinA * sinR + cosR * cosA, cosE * sinR}});
}

int FastrakDevice::ResetAlignment(int sensor) {
  return SendAlignment(sensor, {{}, {1, 0, 0}, {0, 1, 0}});
}

namespace {

// The unit takes points, not directions: a direction becomes a point 200 units away.
void PutFarOut(std::array<float, 3>& point) {
  const float squared = point[0] * point[0] + point[1] * point[1] + point[2] * point[2];
  if (squared >= 10000.0F || squared == 0.0F) return;
  const float factor = squared < 1.0F ? 200.0F / std::sqrt(squared) : 200.0F;
  for (float& part : point) part *= factor;
}

}  // namespace

int FastrakDevice::SendAlignment(int sensor, Alignment alignment) {
  if (sensor < -1 || sensor > sensorCount_) return 0;
  if (!IsFastrakClass()) sensor = 0;
  PutFarOut(alignment.xPoint);
  PutFarOut(alignment.yPoint);
  const auto& [origin, x, y] = alignment;
  const int first = std::max(sensor, 0);
  const int last = sensor < 0 ? sensorCount_ : sensor + 1;
  for (int station = first; station < last; ++station) {
    std::array<char, 128> text;
    const int length = std::snprintf(
        text.data(), text.size(), "A%d, %.4f,%.4f,%.4f, %.4f,%.4f,%.4f, %.4f,%.4f,%.4f\r",
        station + 1, double{origin[0]}, double{origin[1]}, double{origin[2]}, double{x[0]},
        double{x[1]}, double{x[2]}, double{y[0]}, double{y[1]}, double{y[2]});
    // A command cut before its CR would swallow the next one.
    if (length < 0 || static_cast<std::size_t>(length) >= text.size()) return 0;
    WriteCommand({text.data(), static_cast<std::size_t>(length)}, 0);
  }
  return last;
}

int FastrakDevice::SetSynchronization(int mode) {
  if (mode < 0 || mode > 2) return 0;
  for (const char letter : {'y', static_cast<char>('0' + mode), '\r'}) Write(&letter, 1);
  return 1;
}

int FastrakDevice::SetHemisphere(int sensor, const float zenith[3]) {
  std::array<char, 64> text;
  const int length = std::snprintf(text.data(), text.size(), "H%1d,%.1f,%.1f,%.1f\r", sensor & 7,
                                   double{zenith[0]}, double{zenith[1]}, double{zenith[2]});
  if (length < 0 || static_cast<std::size_t>(length) >= text.size()) return 0;
  if (sensor > 0) {
    WriteCommand({text.data(), static_cast<std::size_t>(length)}, 0);
  } else {
    SendStationCommand(text.data(), kAllStations, 0);
  }
  return 1;
}

bool FastrakDevice::SetControlString(const char* text) {
  WriteString(text, '\0', false);
  WriteString("\r\n", '\0', false);
  return true;
}

// ---- Identity ------------------------------------------------------------------------------

int FastrakDevice::GetProtocolText(char* text, int size) {
  static constexpr std::array kNames = {"14 bit", "16 bit", "32 bit"};
  const bool known = protocol_ >= 1 && protocol_ <= 3;
  const char* const name = known ? kNames[static_cast<std::size_t>(protocol_) - 1] : "Invalid";
  std::array<char, 32> room;
  TextAppender description(room);
  description.AppendF("%d: %s", protocol_, name);
  CopyTruncated(text, size, description.c_str());
  return protocol_;
}

}  // namespace kinetrel
