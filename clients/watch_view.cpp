#include "clients/watch_view.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <span>

#include "clients/watch_text.h"

namespace kinetrel {
namespace {

// ---- Components ------------------------------------------------------------------------------

using Getter = bool (*)(const SharedTrackBlock& block, int slot, float* values);

// One component of a pose, in every form it is shown in.
struct Component {
  std::uint32_t flag;
  const char* plain;
  const char* json;
  std::array<const char*, 4> heads;  // one per value
  std::size_t count;
  bool isAngle;
  Getter get;
};

constexpr std::array kComponents = {
    Component{TrackFlags::kPosition, "position", "position", {"x", "y", "z"}, 3, false, PositionOf},
    Component{
        TrackFlags::kEuler, "angles", "angles", {"azimuth", "elevation", "roll"}, 3, true, EulerOf},
    Component{TrackFlags::kQuaternion,
              "quaternion",
              "quaternion",
              {"q.w", "q.x", "q.y", "q.z"},
              4,
              false,
              QuaternionOf},
};

struct Values {
  std::array<float, 4> value{};
  std::size_t count = 0;
};

Values ValuesOf(const SharedTrackBlock& block, int slot, const Component& component, bool degrees) {
  Values values;
  values.count = component.count;
  component.get(block, slot, values.value.data());
  if (component.isAngle && degrees) {
    for (float& value : values.value) value *= 180.0F / std::numbers::pi_v<float>;
  }
  return values;
}

// Calls `use` with each published component.
template <typename Use>
void ForEachComponent(const SharedTrackBlock& block, const Use& use) {
  for (const Component& component : kComponents) {
    if ((block.flags & component.flag) != 0) use(component);
  }
}

// Calls `use` with the pose slot of each sensor.
template <typename Use>
void ForEachSensor(const SharedTrackBlock& block, const Use& use) {
  const std::uint32_t mask = SensorMaskOf(block);
  for (int slot = 0; slot < kPoseSlots; ++slot) {
    if (((mask >> slot) & 1U) != 0) use(slot);
  }
}

// ---- Head of the table -----------------------------------------------------------------------

std::string WholeSeconds(double seconds) { return Fixed(std::floor(seconds), 0) + " s"; }

ViewLine Row(const char* head, const std::string& text) {
  std::string line = head;
  line.resize(11, ' ');
  return {line + text};
}

// The device's name at the left edge, the place at the right one.
ViewLine Title(const WatchSnapshot& snapshot, int columns) {
  const std::string place =
      "slot " + std::to_string(snapshot.slot) + ", bin " + std::to_string(snapshot.bin);
  std::string line = Printable(DeviceNameOf(snapshot.block));
  if (line.empty()) line = "no tracker";
  constexpr int kWidest = 80;
  const auto width = static_cast<std::size_t>(std::max(std::min(columns, kWidest) - 1, 1));
  const std::size_t gap =
      width > line.size() + place.size() + 2 ? width - line.size() - place.size() : 2;
  return {line + std::string(gap, ' ') + place, LineStyle::Strong};
}

ViewLine StateRow(const WatchSnapshot& snapshot) {
  const std::string words = StateWords(snapshot);
  ViewLine row = Row("state", words.empty() ? "running" : words);
  if (snapshot.state != TrackerState::Running) row.style = LineStyle::Alert;
  return row;
}

std::string RateWords(const SharedTrackBlock& block, std::optional<double> publications) {
  const std::string stated = "device states " + Fixed(block.frameRate, 1) + " Hz; ";
  if (!publications.has_value()) return stated + "measuring ...";
  const int sensors = SensorCountOf(block);
  std::string words = stated + "measured " + Fixed(*publications, 1) + " publications/s";
  if (sensors > 1) words += ", " + Fixed(*publications / sensors, 1) + " a sensor";
  return words;
}

std::string TimeWords(const SharedTrackBlock& block) {
  return "published " + Fixed(block.publishTime, 3) + " s; sampled " +
         Fixed((block.publishTime - block.sampleTime) * 1000, 1) + " ms before";
}

void AddHead(std::vector<ViewLine>& lines, const WatchSnapshot& snapshot, const TableForm& form) {
  const SharedTrackBlock& block = snapshot.block;
  lines.push_back(Row("frame", std::to_string(block.frameCount) + ", " + TimeWords(block)));
  lines.push_back(Row("rate", RateWords(block, form.publicationRate)));
  lines.push_back(Row("sensors", SensorWords(SensorMaskOf(block))));
  lines.push_back(Row("shows", ComponentWords(ComponentMaskOf(block)) + " (lengths in " +
                                   UnitWord(UnitsOf(block)) + ", angles in " +
                                   (form.degrees ? "degrees)" : "radians)")));
  if (ButtonsValid(block)) lines.push_back(Row("buttons", ButtonWords(block.buttons)));
}

// ---- Sensors of the table --------------------------------------------------------------------

constexpr int kCellWidth = 10;  // with the space before it
constexpr int kSensorWidth = 6;

int Decimals(const Component& component, const WatchSnapshot& snapshot, bool degrees) {
  if (component.isAngle) return degrees ? 2 : 4;
  return component.flag == TrackFlags::kPosition && UnitsOf(snapshot.block) < 2 ? 3 : 4;
}

// The line of one sensor, or the head above it (slot -1), of these components.
std::string SensorLine(const WatchSnapshot& snapshot, int slot, bool degrees,
                       std::span<const Component* const> components, const std::string& label) {
  std::string line(kSensorWidth - std::min<std::size_t>(label.size(), kSensorWidth), ' ');
  line += label;
  for (const Component* component : components) {
    const Values values = ValuesOf(snapshot.block, slot, *component, degrees);
    for (std::size_t i = 0; i < values.count; ++i) {
      std::string cell =
          slot < 0 ? component->heads[i]
                   : Cell(values.value[i], kCellWidth - 1, Decimals(*component, snapshot, degrees));
      cell.insert(0, kCellWidth - std::min<std::size_t>(cell.size(), kCellWidth), ' ');
      line += cell;
    }
  }
  return line;
}

// The published components, in as many lines a sensor as the width asks for: the quaternion takes
// one of its own where it does not fit beside the pose.
std::vector<std::vector<const Component*>> Arrange(const SharedTrackBlock& block, int columns) {
  std::vector<std::vector<const Component*>> lines(1);
  std::size_t width = kSensorWidth;
  ForEachComponent(block, [&](const Component& component) {
    const std::size_t more = component.count * kCellWidth;
    const bool tooWide = width + more >= static_cast<std::size_t>(std::max(columns, 0));
    if (component.flag == TrackFlags::kQuaternion && tooWide && !lines.back().empty()) {
      lines.emplace_back();
      width = kSensorWidth;
    }
    lines.back().push_back(&component);
    width += more;
  });
  return lines;
}

void AddSensors(std::vector<ViewLine>& lines, const WatchSnapshot& snapshot,
                const TableForm& form) {
  const auto arranged = Arrange(snapshot.block, form.columns);
  const auto add = [&](int slot, const std::string& firstLabel, LineStyle style) {
    for (std::size_t i = 0; i < arranged.size(); ++i) {
      const std::string label = i == 0 ? firstLabel : "";
      lines.push_back({SensorLine(snapshot, slot, form.degrees, arranged[i], label), style});
    }
  };
  lines.push_back({});
  add(-1, "sensor", LineStyle::Faint);
  ForEachSensor(snapshot.block,
                [&](int slot) { add(slot, std::to_string(slot + 1), LineStyle::Plain); });
}

// Cuts what the terminal has no room for, and says so.
void Fit(std::vector<ViewLine>& lines, const TableForm& form) {
  const auto rows = static_cast<std::size_t>(std::max(form.rows - 1, 1));
  if (lines.size() > rows) {
    lines.resize(rows);
    lines.back() = {"... more than the window shows", LineStyle::Faint};
  }
  const auto columns = static_cast<std::size_t>(std::max(form.columns - 1, 1));
  for (ViewLine& line : lines) line.text.resize(std::min(line.text.size(), columns));
}

// ---- Lines -----------------------------------------------------------------------------------

std::string JsonArray(const Values& values) {
  std::string text = "[";
  for (std::size_t i = 0; i < values.count; ++i) {
    text += (i == 0 ? "" : ",") + JsonNumber(values.value[i]);
  }
  return text + "]";
}

std::string JsonSensor(const SharedTrackBlock& block, int slot, bool degrees) {
  std::string text = "{\"sensor\":" + std::to_string(slot + 1);
  ForEachComponent(block, [&](const Component& component) {
    text += std::string(",\"") + component.json +
            "\":" + JsonArray(ValuesOf(block, slot, component, degrees));
  });
  return text + "}";
}

std::string PlainSensor(const SharedTrackBlock& block, int slot, bool degrees) {
  std::string text = " sensor " + std::to_string(slot + 1);
  ForEachComponent(block, [&](const Component& component) {
    const Values values = ValuesOf(block, slot, component, degrees);
    text += std::string(" ") + component.plain;
    for (std::size_t i = 0; i < values.count; ++i) text += " " + Fixed(values.value[i], 5);
  });
  return text;
}

}  // namespace

std::string StateWords(const WatchSnapshot& snapshot) {
  const std::string slot = "slot " + std::to_string(snapshot.slot);
  switch (snapshot.state) {
    case TrackerState::Awaited:
      return "waiting for a tracker on " + slot + " ...";
    case TrackerState::Starting:
      return "waiting for the next frame ...";
    case TrackerState::Running:
      return "";
    case TrackerState::Silent:
      return "no new frames for " + WholeSeconds(snapshot.silence);
    case TrackerState::Gone:
      return "the tracker on " + slot + " has closed; waiting for it to come back ...";
  }
  return "";
}

std::vector<ViewLine> TableView(const WatchSnapshot& snapshot, const TableForm& form) {
  std::vector<ViewLine> lines = {Title(snapshot, form.columns), StateRow(snapshot)};
  if (snapshot.state != TrackerState::Awaited) {
    AddHead(lines, snapshot, form);
    AddSensors(lines, snapshot, form);
  }
  Fit(lines, form);
  return lines;
}

std::string PlainView(const WatchSnapshot& snapshot, bool degrees) {
  const SharedTrackBlock& block = snapshot.block;
  std::string line = "frame " + std::to_string(block.frameCount) + " sample " +
                     Fixed(block.sampleTime, 6) + " published " + Fixed(block.publishTime, 6);
  if (ButtonsValid(block)) line += " buttons " + std::to_string(block.buttons);
  ForEachSensor(block, [&](int slot) { line += PlainSensor(block, slot, degrees); });
  return line;
}

std::string JsonView(const WatchSnapshot& snapshot, bool degrees) {
  const SharedTrackBlock& block = snapshot.block;
  std::string sensors;
  ForEachSensor(block, [&](int slot) {
    sensors += (sensors.empty() ? "" : ",") + JsonSensor(block, slot, degrees);
  });
  return "{\"slot\":" + std::to_string(snapshot.slot) + ",\"bin\":" + std::to_string(snapshot.bin) +
         ",\"device\":" + JsonText(DeviceNameOf(block)) +
         ",\"frame\":" + std::to_string(block.frameCount) +
         ",\"sampleTime\":" + JsonNumber(block.sampleTime) +
         ",\"publishTime\":" + JsonNumber(block.publishTime) +
         ",\"rate\":" + JsonNumber(block.frameRate) +
         ",\"unit\":" + JsonText(UnitWord(UnitsOf(block))) +
         ",\"angleUnit\":" + (degrees ? "\"degree\"" : "\"radian\"") +
         ",\"buttons\":" + (ButtonsValid(block) ? std::to_string(block.buttons) : "null") +
         ",\"sensors\":[" + sensors + "]}";
}

}  // namespace kinetrel
