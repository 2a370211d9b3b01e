#include "emulate/liberty_emulator.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <utility>

namespace kinetrel::emulate {
namespace {

// From the last byte of a command to the first byte of its answer.
constexpr Moment kReplyDelay = std::chrono::milliseconds(1);
constexpr Moment kStartTime = std::chrono::seconds(5);

constexpr std::size_t kLongestCommand = 200;
constexpr std::size_t kMostItems = 20;
constexpr unsigned kStations = 16;
constexpr unsigned kPatriotStations = 2;
constexpr double kCentimetresPerInch = 2.54;
constexpr char Control(char letter) { return static_cast<char>(letter & 0x1F); }

constexpr unsigned kInvalidCommand = 1, kInvalidStation = 2, kInvalidParameter = 3;

// The stations that a field names: a number, or '*' for all. 0: not a station.
std::uint32_t StationsOf(std::string_view field) {
  if (field == "*") return 0xFFFF;
  const auto number = ParseNumber(field, 1U, kStations);
  return number ? 1U << (*number - 1) : 0;
}

std::string TwoDigits(unsigned number) { return (number < 10 ? "0" : "") + std::to_string(number); }

// Numbers of a record in text, with blanks between.
std::string Columns(std::span<const double> numbers, int width, int decimals) {
  std::string text;
  for (const double number : numbers) {
    char column[64];
    std::snprintf(column, sizeof column, " %*.*f", width, decimals, number);
    text += column;
  }
  return text;
}

}  // namespace

// ---- Life ---------------------------------------------------------------------------------------

LibertyEmulator::LibertyEmulator(LibertySettings settings, std::shared_ptr<const Motion> motion)
    : settings_(std::move(settings)), motion_(std::move(motion)) {
  SetFactory();
}

void LibertyEmulator::SetFactory() {
  binary_ = streaming_ = metric_ = sync_ = buffers_ = false;
  rate_ = 4;
  active_ = settings_.plugged;
  bit_ = settings_.bit;
  items_.fill({2, 4, 1});
  heard_.clear();
}

void LibertyEmulator::PowerOn(Moment now, DeviceLine& line) {
  SetFactory();
  start_ = timeZero_ = now;
  cycle_ = zero_ = 0;
  if (std::exchange(poweredBefore_, true)) return Restart(now, {}, line);
  if (settings_.start == LibertyStart::HalfCommand) heard_ = "O*,2";
  if (settings_.start == LibertyStart::Streaming) streaming_ = binary_ = true;
}

void LibertyEmulator::Restart(Moment now, std::string_view, DeviceLine& line) {
  SetFactory();
  deafUntil_ = now + kStartTime;
  line.SendReply(deafUntil_, AsBytes(settings_.isPatriot ? "\r\nPATRIOT Ready!\r\n"
                                                         : "\r\nLIBERTY Ready!\r\n"));
}

bool LibertyEmulator::RaiseError(Moment, std::optional<int> code) {
  bit_ = static_cast<std::uint32_t>(code.value_or(1));
  return true;
}

// ---- Commands -----------------------------------------------------------------------------------

struct LibertyEmulator::CommandRow {
  char name;
  void (LibertyEmulator::*obey)(Moment now, std::string_view values, DeviceLine& line);
};

void LibertyEmulator::Receive(Moment now, std::span<const std::byte> bytes, DeviceLine& line) {
  for (const std::byte byte : bytes) {
    if (now < deafUntil_) continue;
    const char letter = static_cast<char>(byte);
    if (heard_.empty() && (letter == 'P' || letter == 'p')) {
      const bool wasStreaming = std::exchange(streaming_, false);
      SkipTo(now);
      if (!wasStreaming || settings_.lastCycle) SendCycle(now, 'P', line);
    } else if (letter == '\r') {
      Obey(now, std::exchange(heard_, {}), line);
    } else if (heard_.size() < kLongestCommand) {
      heard_ += letter;
    }
  }
}

void LibertyEmulator::Obey(Moment now, std::string_view command, DeviceLine& line) {
  using Self = LibertyEmulator;
  static constexpr CommandRow kCommands[] = {
      {'C', &Self::Stream},
      {'F', &Self::Format},
      {'U', &Self::Units},
      {'R', &Self::RateCode},
      {'Z', &Self::Sync},
      {'O', &Self::Items},
      {'Q', &Self::Counters},
      {Control('U'), &Self::Stations},
      {Control('T'), &Self::SelfTest},
      {Control('Y'), &Self::Restart},
      {Control('V'), &Self::WhoAmI},
      {Control('R'), &Self::Take},
      {'@', &Self::Buffer},
      {Control('B'), &Self::Take},
      {'A', &Self::Take},
      {'H', &Self::Take},
      {'L', &Self::Take},
      {'N', &Self::Take},
      {'X', &Self::Take},
      {'Y', &Self::Take},
      {'B', &Self::Take},
      {'G', &Self::Take},
  };
  if (line.Shown()) line.Say(now, "command of " + std::to_string(command.size()) + " letters");
  const char first = command.empty() ? '\0' : command[0];
  const char name = first >= 'a' && first <= 'z' ? static_cast<char>(first - 'a' + 'A') : first;
  const bool known = !settings_.isPatriot || (name != 'R' && name != 'Z');
  for (const CommandRow& row : kCommands) {
    if (known && row.name == name) return (this->*row.obey)(now, command.substr(1), line);
  }
  Refuse(now, name, kInvalidCommand, line);
}

void LibertyEmulator::Take(Moment, std::string_view, DeviceLine&) {}

void LibertyEmulator::Stream(Moment now, std::string_view, DeviceLine&) {
  SkipTo(now);
  streaming_ = true;
  fresh_.Clear();
}

void LibertyEmulator::Format(Moment now, std::string_view values, DeviceLine& line) {
  if (values.empty()) return AnswerNumber(now, 'F', binary_ ? 1 : 0, line);
  const auto value = ParseNumber(values, 0, 1);
  if (!value) return Refuse(now, 'F', kInvalidParameter, line);
  binary_ = *value == 1;
}

void LibertyEmulator::Units(Moment now, std::string_view values, DeviceLine& line) {
  if (values.empty()) return AnswerNumber(now, 'U', metric_ ? 1 : 0, line);
  const auto value = ParseNumber(values, 0, 1);
  if (!value) return Refuse(now, 'U', kInvalidParameter, line);
  metric_ = *value == 1;
}

void LibertyEmulator::RateCode(Moment now, std::string_view values, DeviceLine& line) {
  if (values.empty()) return AnswerNumber(now, 'R', rate_, line);
  const auto value = ParseNumber(values, 3U, 4U);
  if (!value) return Refuse(now, 'R', kInvalidParameter, line);
  const std::uint64_t counted = cycle_ - zero_;
  rate_ = *value;
  start_ = now;
  cycle_ = counted;
  zero_ = 0;
  start_ -= NthOf(Moment(0), cycle_, Rate());
}

void LibertyEmulator::Sync(Moment now, std::string_view values, DeviceLine& line) {
  if (values.empty()) return AnswerNumber(now, 'Z', sync_ ? 1 : 0, line);
  const auto value = ParseNumber(values, 0, 1);
  if (!value) return Refuse(now, 'Z', kInvalidParameter, line);
  sync_ = *value == 1;
}

void LibertyEmulator::Counters(Moment now, std::string_view values, DeviceLine&) {
  SkipTo(now);
  if (values != "2") zero_ = cycle_;
  if (values != "1") timeZero_ = now;
}

// "B" asks, "B0" and "B1" set.
void LibertyEmulator::Buffer(Moment now, std::string_view values, DeviceLine& line) {
  if (values == "B" || values == "b") return AnswerNumber(now, '@', buffers_ ? 1 : 0, line);
  buffers_ = values.ends_with('1');
}

// "<n>,0|1", "0,<hex>", or "0" alone: the active stations, and in the high half the plugged ones.
void LibertyEmulator::Stations(Moment now, std::string_view values, DeviceLine& line) {
  const std::string_view station = NextField(values, ',');
  if (station == "0" && values.empty()) {
    return AnswerNumber(now, Control('U'), Plugged(now) << 16 | active_, line);
  }
  std::uint32_t map = 0;
  if (station == "0") {
    const char* const end = values.data() + values.size();
    const auto read = std::from_chars(values.data(), end, map, 16);
    if (read.ec != std::errc() || read.ptr != end) {
      return Refuse(now, Control('U'), kInvalidParameter, line);
    }
  } else {
    const std::uint32_t meant = StationsOf(station);
    if (meant == 0) return Refuse(now, Control('U'), kInvalidStation, line);
    map = values == "1" ? active_ | meant : active_ & ~meant;
  }
  active_ = map & Plugged(now);
}

void LibertyEmulator::Items(Moment now, std::string_view values, DeviceLine& line) {
  const std::uint32_t stations = StationsOf(NextField(values, ','));
  if (stations == 0) return Refuse(now, 'O', kInvalidStation, line);
  if (values.empty()) {
    WireWriter codes;
    for (const int item : items_[static_cast<std::size_t>(std::countr_zero(stations))]) {
      codes.U32Le(static_cast<std::uint32_t>(item));
    }
    return Answer(now, 'O', codes.U32Le(0xFFFFFFFF), "", line);
  }
  std::vector<int> items;
  while (!values.empty()) {
    const auto item = ParseNumber(NextField(values, ','), 0, 12);
    if (!item || items.size() == kMostItems) return Refuse(now, 'O', kInvalidParameter, line);
    items.push_back(*item);
  }
  for (unsigned i = 0; i < kStations; ++i) {
    if ((stations >> i & 1) != 0) items_[i] = items;
  }
}

void LibertyEmulator::WhoAmI(Moment now, std::string_view values, DeviceLine& line) {
  WireWriter body;
  if (!values.empty()) {
    const std::uint32_t station = StationsOf(values) & Plugged(now);
    if (station == 0) return Refuse(now, Control('V'), kInvalidStation, line);
    const unsigned index = static_cast<unsigned>(std::countr_zero(station)) + 1;
    const std::string number = std::to_string(index);
    const std::string serial = settings_.serial + "-" + number;
    const std::string head = "Station " + number;
    return Answer(now, Control('V'), body.U32Le(1).Text("sensor " + serial),
                  head + " ID: 1\r\n" + head + " Serial Number: " + serial, line, index);
  }
  const std::string text = WhoText();
  body.U8(static_cast<unsigned>(std::popcount(Plugged(now)))).U8(0).U8(0).Text(text);
  Answer(now, Control('V'), body, text, line);
}

// The unit's number stands in its first line, so that a host tells two units apart.
std::string LibertyEmulator::WhoText() const {
  std::string text = settings_.isPatriot ? "Polhemus PATRIOT" : "Polhemus LIBERTY HST";
  text += " emulator, unit " + settings_.unit + "\r\n" +
          std::to_string(settings_.isPatriot ? kPatriotStations : kStations) + " Stations\r\n\r\n";
  for (const char* const part : {"Boot Loader", "System Controller", "Source Controller",
                                 "Sensor Processor", "I/O Processor"}) {
    text += part + std::string(" Version: 1.00\r\n");
  }
  return text + "\r\nFirmware Packet Load: emulated";
}

void LibertyEmulator::SelfTest(Moment now, std::string_view values, DeviceLine& line) {
  if (values == "0") {
    bit_ = 0;
    return;
  }
  WireWriter words;
  words.U32Le(bit_);
  for (int i = 1; i < 9; ++i) words.U32Le(0);
  Answer(now, Control('T'), words, std::to_string(bit_), line);
}

// ---- Answers ------------------------------------------------------------------------------------

WireWriter LibertyEmulator::Header(unsigned station, char command, unsigned error,
                                   std::size_t size) const {
  const unsigned good = settings_.blankMeansGood ? ' ' : 0;
  WireWriter header;
  header.Text(settings_.isPatriot ? "PA" : "LY")
      .U8(station)
      .U8(static_cast<unsigned char>(command));
  header.U8(error == 0 ? good : error).U8(0).U16Le(static_cast<std::uint32_t>(size));
  return header;
}

void LibertyEmulator::Answer(Moment now, char command, const WireWriter& body,
                             std::string_view text, DeviceLine& line, unsigned station) {
  if (binary_) {
    line.SendReply(now + kReplyDelay, Header(0, command, 0, body.bytes().size()).bytes());
    line.SendReply(now + kReplyDelay, body.bytes());
    return;
  }
  const char shown = command < ' ' ? static_cast<char>(command + 'a' - 1) : command;
  line.SendReply(now + kReplyDelay,
                 AsBytes(TwoDigits(station) + shown + "  " + std::string(text) + "\r\n"));
}

void LibertyEmulator::AnswerNumber(Moment now, char command, std::uint32_t value,
                                   DeviceLine& line) {
  WireWriter body;
  body.U32Le(value);
  Answer(now, command, body, std::to_string(value), line);
}

void LibertyEmulator::Refuse(Moment now, char command, unsigned code, DeviceLine& line) {
  static constexpr std::string_view kTexts[] = {"Invalid Command", "Invalid Station",
                                                "Invalid Parameter"};
  const std::string text = std::string(kTexts[code - 1]) + "\r\n";
  if (binary_) {
    line.SendReply(now + kReplyDelay, Header(0, command, code, text.size()).bytes());
  }
  line.SendReply(now + kReplyDelay, AsBytes(text));
}

// ---- Poses --------------------------------------------------------------------------------------

std::uint32_t LibertyEmulator::Plugged(Moment now) const {
  const bool gone = now >= settings_.unplugFrom && now < settings_.unplugTo;
  return settings_.plugged & ~(gone ? settings_.unplugged : 0);
}

Moment LibertyEmulator::NextEvent() const {
  if (!streaming_) return kNever;
  return motion_->IsLive() ? fresh_.Next() : NthOf(start_, cycle_ + 1, Rate());
}

// The unit measures all the time, asked or not.
void LibertyEmulator::SkipTo(Moment now) {
  const double since = std::chrono::duration<double>(now - start_).count();
  cycle_ = std::max(cycle_, static_cast<std::uint64_t>(std::max(0.0, since) * Rate()));
}

void LibertyEmulator::OnEvent(Moment now, DeviceLine& line) {
  if (motion_->IsLive()) return SendFresh(now, line);
  ++cycle_;
  const Moment period = NthOf(Moment(0), 1, Rate());
  if (line.FreeAt() > now + period) return;  // the line is behind: this cycle is lost
  SendCycle(now, 'C', line);
}

void LibertyEmulator::SendCycle(Moment now, char command, DeviceLine& line) {
  active_ &= Plugged(now);  // a sensor that is plugged in again stays inactive until it is set
  for (unsigned i = 0; i < kStations; ++i) {
    if ((active_ >> i & 1) != 0 && motion_->Has(i)) SendStation(now, i, command, line);
  }
}

void LibertyEmulator::NewPoses(Moment now, std::uint32_t stations, DeviceLine& line) {
  if (!streaming_) return;
  fresh_.Add(now, stations & active_);
  SendFresh(now, line);
}

// A station whose sensor was lost meanwhile sends nothing, as without a sensor.
void LibertyEmulator::SendFresh(Moment now, DeviceLine& line) {
  SkipTo(now);
  active_ &= Plugged(now);
  const auto count = static_cast<unsigned>(std::popcount(active_));
  while (const auto i = fresh_.Take(now, line, Rate() * std::max(1U, count), count)) {
    if ((active_ >> *i & 1) != 0 && motion_->Has(*i)) SendStation(now, *i, 'C', line);
  }
}

void LibertyEmulator::SendStation(Moment now, unsigned i, char command, DeviceLine& line) {
  const double seconds = std::chrono::duration<double>(now).count();
  const auto stamp = std::chrono::duration_cast<std::chrono::milliseconds>(now - timeZero_);
  const Cycle cycle{motion_->At(i, cycle_ - zero_, seconds),
                    static_cast<std::uint32_t>(stamp.count()), (motion_->Buttons(i) & 1) != 0};
  if (!binary_) {
    std::string text = TwoDigits(i + 1) + (bit_ != 0 ? "I" : " ");
    for (const int item : items_[i]) text += TextOf(item, cycle);
    return line.SendRecord(now, AsBytes(text));
  }
  WireWriter body;
  for (const int item : items_[i]) AddItem(body, item, cycle);
  WireWriter frame = Header(i + 1, command, bit_ != 0 ? 'I' : 0, body.bytes().size());
  for (const std::byte byte : body.bytes()) frame.U8(std::to_integer<unsigned>(byte));
  line.SendRecord(now, frame.bytes());
}

std::string LibertyEmulator::TextOf(int item, const Cycle& cycle) const {
  const double unit = metric_ ? 1 : kCentimetresPerInch;
  const MotionPose& pose = cycle.pose;
  const std::array<double, 3> place = {pose.x / unit, pose.y / unit, pose.z / unit};
  const std::array<double, 3> angles = {pose.azimuth, pose.elevation, pose.roll};
  const bool precise = item == 3 || item == 5;
  switch (item) {
    case 0:
      return " ";
    case 1:
      return "\r\n";
    case 2:
    case 3:
      return precise ? Columns(place, 13, 6) : Columns(place, 8, 3);
    case 4:
    case 5:
      return precise ? Columns(angles, 13, 6) : Columns(angles, 8, 3);
    case 6: {
      std::string text;
      for (const Vector3& row : RotationOf(pose)) text += Columns(row, 8, 5);
      return text;
    }
    case 7:
      return Columns(QuaternionOf(pose), 8, 5);
    case 8:
      return " " + std::to_string(cycle.milliseconds);
    case 9:
      return " " + std::to_string(cycle_ - zero_);
    default:
      return item == 10 && cycle.pressed ? " 1" : " 0";
  }
}

void LibertyEmulator::AddItem(WireWriter& body, int item, const Cycle& cycle) const {
  const double unit = metric_ ? 1 : kCentimetresPerInch;
  const MotionPose& pose = cycle.pose;
  switch (item) {
    case 0:
      body.U8(' ');
      break;
    case 1:
      body.Text("\r\n");
      break;
    case 2:
    case 3:
      body.F32Le(pose.x / unit).F32Le(pose.y / unit).F32Le(pose.z / unit);
      break;
    case 4:
    case 5:
      body.F32Le(pose.azimuth).F32Le(pose.elevation).F32Le(pose.roll);
      break;
    case 6:
      for (const Vector3& row : RotationOf(pose)) {
        for (const double part : row) body.F32Le(part);
      }
      break;
    case 7:
      for (const double part : QuaternionOf(pose)) body.F32Le(part);
      break;
    case 8:
      body.U32Le(cycle.milliseconds);
      break;
    case 9:
      body.U32Le(static_cast<std::uint32_t>(cycle_ - zero_));
      break;
    default:
      body.U32Le(item == 10 && cycle.pressed ? 1 : 0);
  }
}

// ---- Options ------------------------------------------------------------------------------------

namespace {

struct StartRow {
  std::string_view option;
  LibertyStart start;
};
constexpr StartRow kStarts[] = {
    {"text", LibertyStart::Text},
    {"streaming", LibertyStart::Streaming},
    {"half-command", LibertyStart::HalfCommand},
};

constexpr OptionRow kOptions[] = {
    {"--start", "STATE",
     "state at the start: text (just switched on), streaming (to another\n"
     "program) or half-command (another program sent half a command)"},
    {"--stations", "N", "number of sensors plugged in, from the first station on (1)"},
    {"--unplug", "N", "unplugs the sensor of station N from 3 s to 6 s after the start"},
    {"--bit", "WORD", "error word of its built-in test, 0 for none (0)"},
    {"--unit", "NUMBER", "its serial number, which tells units apart (1)"},
    {"--blank-good", "", "send a blank, not 0, for no error"},
    {"--last-cycle", "", "send a frame with the command that ends the stream"},
};

}  // namespace

OptionTable LibertyOptions() { return kOptions; }

namespace {

std::unique_ptr<EmulatedDevice> MakeOneOf(bool isPatriot, OptionValues& options,
                                          std::shared_ptr<const Motion> motion) {
  const unsigned most = isPatriot ? kPatriotStations : kStations;
  LibertySettings settings;
  settings.isPatriot = isPatriot;
  settings.start = kStarts[options.Choice("--start", kStarts)].start;
  const unsigned served = std::clamp(motion->Stations(), 1U, most);
  settings.plugged = (1U << options.Get("--stations", served, 0U, most)) - 1;
  if (const unsigned station = options.Get("--unplug", 0U, 1U, most)) {
    settings.unplugged = 1U << (station - 1);
    settings.unplugFrom = std::chrono::seconds(3);
    settings.unplugTo = std::chrono::seconds(6);
  }
  settings.bit = options.Get("--bit", 0U, 0U, 0xFFFFFFFFU);
  settings.unit = settings.serial = options.Text("--unit", "1");
  settings.blankMeansGood = options.Has("--blank-good");
  settings.lastCycle = options.Has("--last-cycle");
  return std::make_unique<LibertyEmulator>(std::move(settings), std::move(motion));
}

}  // namespace

std::unique_ptr<EmulatedDevice> MakeLiberty(OptionValues& options,
                                            std::shared_ptr<const Motion> motion) {
  return MakeOneOf(false, options, std::move(motion));
}

std::unique_ptr<EmulatedDevice> MakePatriot(OptionValues& options,
                                            std::shared_ptr<const Motion> motion) {
  return MakeOneOf(true, options, std::move(motion));
}

}  // namespace kinetrel::emulate
