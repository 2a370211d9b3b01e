// What each command of the FASTRAK family does.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <span>

#include "emulate/fastrak_emulator.h"

namespace kinetrel::emulate {
namespace {

// From the last byte of a command to the first byte of its answer.
constexpr Moment kReplyDelay = std::chrono::milliseconds(1);

constexpr double kInch = 2.54;  // cm
constexpr std::size_t kMostItems = 32;

std::string OfStation(double number, const std::string& text) {
  return "station " + std::to_string(static_cast<int>(number)) + text;
}

// The beginning of a station's answer.
std::string AnswerHead(double station, char letter) {
  return "2" + std::to_string(static_cast<int>(station)) + letter;
}

std::string Listed(const std::vector<FastrakItem>& items) {
  std::string text;
  for (const FastrakItem item : items) {
    const char* const name = NameOf(item);
    text += text.empty() ? " " : ", ";
    text += name != nullptr ? name : "item " + std::to_string(static_cast<int>(item));
  }
  return text.empty() ? " nothing" : text;
}

// As the unit answers numbers: seven characters each.
std::string Sevens(std::span<const double> numbers, int decimals) {
  std::string text;
  for (const double number : numbers) {
    char seven[32];
    std::snprintf(seven, sizeof seven, "%7.*f", decimals, number);
    text += seven;
  }
  return text;
}

std::string Triple(const std::vector<double>& numbers, std::size_t from) {
  char text[96];
  std::snprintf(text, sizeof text, " (%g, %g, %g)", numbers[from], numbers[from + 1],
                numbers[from + 2]);
  return text;
}

}  // namespace

// ---- The table ----------------------------------------------------------------------------------

struct FastrakEmulator::CommandRow {
  char letter;
  std::string (FastrakEmulator::*obey)(const Numbers& numbers, Context context);
};

std::span<const FastrakEmulator::CommandRow> FastrakEmulator::Commands() {
  using Self = FastrakEmulator;
  static constexpr CommandRow kRows[] = {
      {'C', &Self::StartStream},
      {'c', &Self::StopStream},
      {'P', &Self::Poll},
      {'S', &Self::TellStatus},
      {'U', &Self::UseInches},
      {'u', &Self::UseCentimetres},
      {'f', &Self::UseBinary},
      {'F', &Self::UseAscii},
      {'K', &Self::Save},
      {'\x19', &Self::Reinitialize},
      {'O', &Self::OutputList},
      {'l', &Self::ActiveStations},
      {'A', &Self::Align},
      {'R', &Self::ResetAlignment},
      {'H', &Self::Hemisphere},
      {'N', &Self::TipOffset},
      {'y', &Self::Synchronization},
      {'T', &Self::ClearError},
      {'x', &Self::PositionFilter},
      {'v', &Self::AttitudeFilter},
      {'e', &Self::StylusMode},
      {'b', &Self::Boresight},
      {'B', &Self::Boresight},
      {'G', &Self::BoresightReference},
      {'d', &Self::PassOver},
      {'D', &Self::PassOver},
      {'t', &Self::PassOver},
      {'Y', &Self::PassOver},
  };
  return kRows;
}

const FastrakEmulator::CommandRow* FastrakEmulator::FindCommand(char letter) {
  for (const CommandRow& row : Commands()) {
    if (row.letter == letter) return &row;
  }
  return nullptr;
}

void FastrakEmulator::Obey(const FastrakCommand& command, Context context) {
  const CommandRow* const row = command.known ? FindCommand(command.letter) : nullptr;
  const auto numbers = command.Numbers();
  std::string done = row != nullptr && numbers ? (this->*row->obey)(*numbers, context) : "";
  if (command.known && command.letter == 'M') done = ObeyInterSense(command.arguments, context);
  if (done.empty()) {
    done = "not understood: answered with an error";
    Reply(context, "21E*ERROR* EC -99 " + command.Shown() + "\r\n");
  }
  if (!context.line.Shown()) return;
  char text[256];
  std::snprintf(text, sizeof text, "%-24s %s", command.Shown().c_str(), done.c_str());
  context.line.Say(context.now, text);
}

void FastrakEmulator::Reply(Context context, const std::string& text) const {
  context.line.SendReply(context.now + kReplyDelay, AsBytes(text));
}

// The station that the first number names; null if there are fewer than `count` numbers.
FastrakEmulator::Station* FastrakEmulator::StationOf(const Numbers& numbers, std::size_t count) {
  if (numbers.size() < count || numbers.empty()) return nullptr;
  const double number = numbers[0];
  if (number < 1 || number > model_.stations || std::floor(number) != number) return nullptr;
  return &stations_[static_cast<std::size_t>(number) - 1];
}

Vector3 FastrakEmulator::Length(const Numbers& numbers, std::size_t from) const {
  const double unit = metric_ ? 1 : kInch;
  return {numbers[from] * unit, numbers[from + 1] * unit, numbers[from + 2] * unit};
}

// ---- Records ------------------------------------------------------------------------------------

std::string FastrakEmulator::StartStream(const Numbers&, Context context) {
  if (streaming_) return "records are already sent as they are measured";
  streaming_ = true;
  RestartStream(context.now);
  return "sends records as they are measured";
}

std::string FastrakEmulator::StopStream(const Numbers&, Context context) {
  streaming_ = false;
  RestartStream(context.now);
  return "stops sending";
}

std::string FastrakEmulator::Poll(const Numbers&, Context context) {
  if (streaming_) return "a record is asked for, while records are sent anyway";
  if (pollAt_ == kNever) pollAt_ = std::max(context.now + kReplyDelay, nextMeasured_);
  return "one record of each active station is asked for";
}

std::string FastrakEmulator::UseBinary(const Numbers&, Context) {
  binary_ = true;
  return "binary records";
}

std::string FastrakEmulator::UseAscii(const Numbers&, Context) {
  binary_ = false;
  return "ASCII records";
}

std::string FastrakEmulator::UseInches(const Numbers&, Context) {
  metric_ = false;
  return "inches";
}

std::string FastrakEmulator::UseCentimetres(const Numbers&, Context) {
  metric_ = true;
  return "centimetres";
}

std::string FastrakEmulator::OutputList(const Numbers& numbers, Context context) {
  const std::size_t first = model_.stationInLists ? 1 : 0;
  Station* const station = first == 0 ? &stations_[0] : StationOf(numbers, 1);
  if (station == nullptr) return "";
  if (numbers.size() == first) {
    std::string reply =
        first == 0 ? "21O" : "2" + std::to_string(static_cast<int>(numbers[0])) + "O";
    for (const FastrakItem item : station->items) {
      char text[8];
      std::snprintf(text, sizeof text, "%2d", static_cast<int>(item) % 100);
      reply += text;
    }
    Reply(context, reply + "\r\n");
    return "the output list is asked for";
  }
  std::vector<FastrakItem> items;
  for (std::size_t i = first; i < numbers.size(); ++i) {
    const double code = numbers[i];
    if (code < 0 || code > 66 || std::floor(code) != code || items.size() == kMostItems) return "";
    items.push_back(static_cast<FastrakItem>(static_cast<int>(code)));
  }
  const std::string sends = " sends" + Listed(items);
  if (first == 0) {
    for (Station& each : stations_) each.items = items;
    return "each station" + sends;
  }
  station->items = std::move(items);
  return OfStation(numbers[0], sends);
}

// ---- Stations -----------------------------------------------------------------------------------

std::string FastrakEmulator::ActiveStations(const Numbers& numbers, Context context) {
  const bool asks = model_.stationInLists ? numbers.size() < 2 : numbers.empty();
  if (asks) {
    std::string reply = "21l";
    for (const Station& station : stations_) reply += station.active ? '1' : '0';
    Reply(context, reply + "\r\n");
    return "the active stations are asked for";
  }
  Station* const station = StationOf(numbers, 1);
  if (station == nullptr) return "";
  const bool on = model_.stationInLists ? numbers[1] != 0 : !station->active;
  return SetStationActive(static_cast<unsigned>(station - stations_.data()), on, context.now);
}

std::string FastrakEmulator::SetStationActive(unsigned index, bool on, Moment now) {
  const bool plugged = index < settings_.receivers;
  Station& station = stations_[index];
  if (station.active != (on && plugged)) RestartStream(now);
  station.active = on && plugged;
  return OfStation(index + 1, !on ? " off" : plugged ? " on" : " stays off: no receiver is there");
}

std::string FastrakEmulator::Align(const Numbers& numbers, Context) {
  Station* const station = StationOf(numbers, 10);
  if (station == nullptr) return "";
  const auto frame = FrameFrom(Length(numbers, 1), Length(numbers, 4), Length(numbers, 7));
  if (!frame) return "";
  station->frame = *frame;
  return OfStation(numbers[0], " is aligned to origin") + Triple(numbers, 1) + ", x" +
         Triple(numbers, 4) + ", y" + Triple(numbers, 7);
}

std::string FastrakEmulator::ResetAlignment(const Numbers& numbers, Context) {
  Station* const station = StationOf(numbers, 1);
  if (station == nullptr) return "";
  station->frame = Frame{};
  return OfStation(numbers[0], " is not aligned any more");
}

// Known motion needs no hemisphere to be unambiguous.
std::string FastrakEmulator::Hemisphere(const Numbers& numbers, Context) {
  if (StationOf(numbers, 4) == nullptr) return "";
  return OfStation(numbers[0], " works in the hemisphere toward") + Triple(numbers, 1);
}

std::string FastrakEmulator::TipOffset(const Numbers& numbers, Context context) {
  Station* const station = StationOf(numbers, 1);
  if (station == nullptr) return "";
  if (numbers.size() == 1) {
    Vector3 tip = station->tip;
    for (double& length : tip) length /= metric_ ? 1 : kInch;
    Reply(context, AnswerHead(numbers[0], 'N') + Sevens(tip, 3) + "\r\n");
    return OfStation(numbers[0], ": its tip is asked for");
  }
  if (numbers.size() < 4) return "";
  station->tip = Length(numbers, 1);
  return OfStation(numbers[0], " has its tip at") + Triple(numbers, 1);
}

// The poses stay as they are: a boresight would need a person at the receiver.
std::string FastrakEmulator::Boresight(const Numbers& numbers, Context) {
  if (StationOf(numbers, 1) == nullptr) return "";
  return OfStation(numbers[0], ": boresight, not played");
}

std::string FastrakEmulator::BoresightReference(const Numbers& numbers, Context context) {
  Station* const station = StationOf(numbers, 1);
  if (station == nullptr) return "";
  if (numbers.size() == 1) {
    Reply(context, AnswerHead(numbers[0], 'G') + Sevens(station->reference, 2) + "\r\n");
    return OfStation(numbers[0], ": its boresight reference is asked for");
  }
  if (numbers.size() < 4) return "";
  station->reference = {numbers[1], numbers[2], numbers[3]};
  return OfStation(numbers[0], ": boresight reference") + Triple(numbers, 1);
}

std::string FastrakEmulator::StylusMode(const Numbers& numbers, Context) {
  if (StationOf(numbers, 2) == nullptr || numbers[1] < 0 || numbers[1] > 1) return "";
  return OfStation(numbers[0], numbers[1] == 0 ? ": the button is shown" : ": the button acts");
}

// ---- Filters ------------------------------------------------------------------------------------

// x: told, or x2 to x5: one of the unit's own. The poses are not filtered.
std::string FastrakEmulator::ServeFilter(char letter, Filter& filter, const Numbers& numbers,
                                         Context context) {
  if (numbers.empty()) {
    Reply(context, std::string("2 ") + letter + Sevens(filter, 3) + "\r\n");
    return "the filter is asked for";
  }
  if (numbers.size() == 1) return numbers[0] >= 2 && numbers[0] <= 5 ? "a filter of its own" : "";
  if (numbers.size() != filter.size()) return "";
  std::copy(numbers.begin(), numbers.end(), filter.begin());
  return "a filter, not played";
}

std::string FastrakEmulator::PositionFilter(const Numbers& numbers, Context context) {
  return ServeFilter('x', positionFilter_, numbers, context);
}

std::string FastrakEmulator::AttitudeFilter(const Numbers& numbers, Context context) {
  return ServeFilter('v', attitudeFilter_, numbers, context);
}

// ---- The unit -----------------------------------------------------------------------------------

// Compensation of metal, and letters that drivers send to a unit that does not answer.
std::string FastrakEmulator::PassOver(const Numbers&, Context) { return "accepted, not played"; }

std::string FastrakEmulator::ObeyInterSense(std::string_view arguments, Context context) {
  const char what = arguments.empty() ? ' ' : arguments[0];
  if (what == 'Z') {
    timeZero_ = context.now;
    return "the time stamp begins at zero";
  }
  if (what == 'S') {
    Reply(context, "31S000\r\n");
    return "the tracker's status is asked for";
  }
  if (what == 's') {
    const auto station = ParseNumber(arguments.substr(1), 1U, model_.stations);
    if (!station) return "";
    Reply(context, "3" + std::to_string(*station) + "s000\r\n");
    return OfStation(*station, ": its status is asked for");
  }
  return "InterSense's own setting, accepted";
}

std::string FastrakEmulator::TellStatus(const Numbers&, Context context) {
  const int error = errors_.empty() ? 0 : errors_.front();
  Reply(context, StatusRecord({error, binary_, metric_, streaming_}, model_));
  return "the status is asked for";
}

std::string FastrakEmulator::Save(const Numbers&, Context) { return "the configuration is saved"; }

std::string FastrakEmulator::Reinitialize(const Numbers&, Context context) {
  context.line.DropWaiting();
  SetDefaults();
  busyUntil_ = context.now + settings_.resetTime;
  return "starts anew";
}

std::string FastrakEmulator::Synchronization(const Numbers& numbers, Context) {
  constexpr const char* kNames[] = {"internal", "external", "with a CRT"};
  if (numbers.size() != 1 || numbers[0] < 0 || numbers[0] > 2) return "";
  return std::string("synchronization ") + kNames[static_cast<std::size_t>(numbers[0])];
}

std::string FastrakEmulator::ClearError(const Numbers& numbers, Context) {
  if (numbers.empty() || numbers[0] < 0 || numbers[0] > 255) return "";
  const auto code = static_cast<int>(numbers[0]);
  const std::string name = "BIT error " + std::to_string(code);
  const auto found = std::find(errors_.begin(), errors_.end(), code);
  if (found == errors_.end()) return name + " is not pending";
  if (settings_.stickyErrors) return name + " is cleared, and comes back";
  errors_.erase(found);
  return name + " is cleared";
}

}  // namespace kinetrel::emulate
