#include "watch/watch_view.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <utility>

namespace kinetrel::watch {
namespace {

// ---- Components ---------------------------------------------------------------------------------

using Getter = bool (*)(const SharedTrackBlock& block, int slot, float* values);

// One component of a pose, in every form it is shown in.
struct Component {
  std::uint32_t flag;
  const char* name;
  std::array<const char*, 4> heads;  // one per value
  std::size_t count;
  std::size_t width;  // of a value on a line where all components stand
  bool isAngle;
  Getter get;
};

constexpr std::array<Component, 3> kComponents = {{
    {TrackFlags::kPosition, "position", {"x", "y", "z"}, 3, 10, false, PositionOf},
    {TrackFlags::kEuler, "angles", {"azimuth", "elevation", "roll"}, 3, 10, true, EulerOf},
    {TrackFlags::kQuaternion,
     "quaternion",
     {"q.w", "q.x", "q.y", "q.z"},
     4,
     8,
     false,
     QuaternionOf},
}};

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

// ---- Head of the table --------------------------------------------------------------------------

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
  std::string line = AsciiText(DeviceNameOf(snapshot.block));
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

// A writer publishes once per sensor, so the rate of one sensor is a share of the count.
std::string RateWords(const WatchSnapshot& snapshot, std::optional<double> publications) {
  std::string words = Fixed(snapshot.block.frameRate, 1) + " Hz stated";
  if (snapshot.state != TrackerState::Running || !publications.has_value()) return words;
  words += "; " + Fixed(*publications, 1) + " publications/s measured";
  const int sensors = SensorCountOf(snapshot.block);
  if (sensors > 1) words += ", " + Fixed(*publications / sensors, 1) + " a sensor";
  return words;
}

std::string DataWords(const SharedTrackBlock& block, bool degrees) {
  std::string words;
  ForEachComponent(block, [&](const Component& component) {
    words += (words.empty() ? "" : ", ") + std::string(component.name);
    if (component.flag == TrackFlags::kPosition) words += " (" + UnitWord(UnitsOf(block)) + ")";
    if (component.isAngle) words += degrees ? " (degrees)" : " (radians)";
  });
  return words.empty() ? "none" : words;
}

std::string TimeWords(const SharedTrackBlock& block) {
  const double age = block.publishTime - block.sampleTime;
  const std::string published = "published " + Fixed(block.publishTime, 3) + " s";
  // A writer that closes stamps the sample time once more, without a sample.
  return age < 0 ? published : published + "; sampled " + Fixed(age * 1000, 1) + " ms before";
}

std::vector<ViewLine> Details(const WatchSnapshot& snapshot, const TableForm& form) {
  const SharedTrackBlock& block = snapshot.block;
  std::vector<ViewLine> lines = {
      Row("data", DataWords(block, form.degrees)),
      Row("sensors", SensorWords(SensorMaskOf(block))),
      Row("rate", RateWords(snapshot, form.publicationRate)),
      Row("frame", std::to_string(block.frameCount) + ", " + TimeWords(block)),
  };
  if (ButtonsValid(block)) lines.push_back(Row("buttons", ButtonWords(block.buttons)));
  lines.push_back({});
  return lines;
}

// ---- Sensors of the table -----------------------------------------------------------------------

constexpr std::size_t kCellWidth = 10;  // with the space before it
constexpr std::size_t kLabelWidth = 6;

using Components = std::vector<const Component*>;

std::string Right(std::string text, std::size_t width) {
  if (text.size() < width) text.insert(0, width - text.size(), ' ');
  return text;
}

int Decimals(const Component& component, const SharedTrackBlock& block, bool degrees) {
  if (component.isAngle) return degrees ? 2 : 4;
  return component.flag == TrackFlags::kPosition && UnitsOf(block) < 2 ? 3 : 4;
}

// Sensors as lines of cells. All components of a sensor stand on one line where the window is wide
// enough; else the quaternion takes one of its own.
class SensorTable {
 public:
  SensorTable(const WatchSnapshot& snapshot, const TableForm& form)
      : block_(snapshot.block), degrees_(form.degrees) {
    std::size_t width = kLabelWidth;
    ForEachComponent(block_, [&](const Component& component) {
      lines_[0].push_back(&component);
      width += component.count * component.width;
    });
    if (width < static_cast<std::size_t>(std::max(form.columns, 0)) || lines_[0].size() < 2) return;
    if (lines_[0].back()->flag != TrackFlags::kQuaternion) return;
    lines_[1] = {lines_[0].back()};
    lines_[0].pop_back();
  }

  std::vector<ViewLine> Lines(LineStyle style) const {
    std::vector<ViewLine> lines;
    const auto head = [](const Component& component, std::size_t i) { return component.heads[i]; };
    Add(lines, "sensor", LineStyle::Faint, head);
    ForEachSensor(block_, [&](int slot) {
      const auto value = [&](const Component& component, std::size_t i) {
        return Cell(ValuesOf(block_, slot, component, degrees_).value[i], Width(component) - 1,
                    Decimals(component, block_, degrees_));
      };
      Add(lines, std::to_string(slot + 1), style, value);
    });
    return lines;
  }

 private:
  bool OnOneLine() const { return lines_[1].empty(); }
  std::size_t Width(const Component& component) const {
    return OnOneLine() ? component.width : kCellWidth;
  }

  template <typename TextOf>
  void Add(std::vector<ViewLine>& lines, std::string label, LineStyle style,
           const TextOf& textOf) const {
    for (const Components& components : lines_) {
      if (&components != &lines_[0] && components.empty()) continue;
      ViewLine line{Right(std::exchange(label, ""), kLabelWidth), style};
      for (const Component* component : components) {
        for (std::size_t i = 0; i < component->count; ++i) {
          line.text += Right(textOf(*component, i), Width(*component));
        }
      }
      lines.push_back(line);
    }
  }

  const SharedTrackBlock& block_;
  bool degrees_;
  std::array<Components, 2> lines_;
};

// ---- The whole table ----------------------------------------------------------------------------

void Append(std::vector<ViewLine>& lines, const std::vector<ViewLine>& more, std::size_t most) {
  const std::size_t count = std::min(more.size(), most);
  lines.insert(lines.end(), more.begin(), more.begin() + static_cast<std::ptrdiff_t>(count));
}

// Cuts what does not fit the terminal, and says so.
void Fit(std::vector<ViewLine>& lines, std::size_t rows, std::size_t columns) {
  if (lines.size() > rows) {
    lines.resize(rows);
    lines.back() = {"... more than the window shows", LineStyle::Faint};
  }
  for (ViewLine& line : lines) line.text.resize(std::min(line.text.size(), columns));
}

// How many of a terminal's rows or columns may be used: the last one belongs to the cursor.
std::size_t Usable(int size) { return static_cast<std::size_t>(std::max(size - 1, 1)); }

// ---- Lines --------------------------------------------------------------------------------------

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
    text += std::string(",\"") + component.name +
            "\":" + JsonArray(ValuesOf(block, slot, component, degrees));
  });
  return text + "}";
}

std::string PlainSensor(const SharedTrackBlock& block, int slot, bool degrees) {
  std::string text = " sensor " + std::to_string(slot + 1);
  ForEachComponent(block, [&](const Component& component) {
    const Values values = ValuesOf(block, slot, component, degrees);
    text += std::string(" ") + component.name;
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
  const std::size_t rows = Usable(form.rows);
  std::vector<ViewLine> lines = {Title(snapshot, form.columns), StateRow(snapshot)};
  if (snapshot.state != TrackerState::Awaited) {
    const bool live = snapshot.state == TrackerState::Running;
    const std::vector<ViewLine> sensors =
        SensorTable(snapshot, form).Lines(live ? LineStyle::Plain : LineStyle::Faint);
    // In a low window the poses come first.
    const std::size_t needed = lines.size() + sensors.size();
    Append(lines, Details(snapshot, form), rows > needed ? rows - needed : 0);
    Append(lines, sensors, sensors.size());
  }
  Fit(lines, rows, Usable(form.columns));
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

}  // namespace kinetrel::watch
