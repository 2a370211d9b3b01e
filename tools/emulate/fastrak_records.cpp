#include "emulate/fastrak_records.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <span>

#include "emulate/pose.h"

namespace kinetrel::emulate {
namespace {

// ---- Models -------------------------------------------------------------------------------------

constexpr double kFar = 300;                                 // cm
constexpr double kNear = 65.48 * 2.54;                       // cm
constexpr double kFourRadians = 4 * 180 / std::numbers::pi;  // degrees

// A host recognises the model by the dot in the version and the characters around it.
constexpr FastrakModelRow kModels[] = {
    {"fastrak", "FasTRAK", 4, 120, true, false, true, kFar, 180, "3.02  ",
     "Polhemus 3SPACE FASTRAK"},
    {"insidetrak", "InsideTRAK", 2, 30, false, false, true, kFar, 180, " 50.12",
     "Polhemus InsideTRAK"},
    {"isotrak", "IsoTRAK", 1, 30, false, false, false, kNear, kFourRadians, "V 2011",
     "3SPACE ISOTRAK"},
    {"isotrak2", "IsoTRAK2", 2, 60, false, false, false, kNear, kFourRadians, "V 3013",
     "3SPACE ISOTRAK II"},
    {"is300", "IS-300", 4, 150, true, true, true, kFar, 180, "  2.41", "IS300 InterSense tracker"},
    {"is600", "IS-600", 4, 150, true, true, true, kFar, 180, "  2.41", "IS600 InterSense tracker"},
};

// ---- Records ------------------------------------------------------------------------------------

constexpr double kInch = 2.54;  // cm

struct ItemName {
  FastrakItem item;
  const char* name;
};
constexpr ItemName kNames[] = {
    {FastrakItem::Space, "space"},
    {FastrakItem::CrLf, "CR LF"},
    {FastrakItem::Position, "position"},
    {FastrakItem::Euler, "Euler angles"},
    {FastrakItem::Quaternion, "quaternion"},
    {FastrakItem::ShortPosition, "short position"},
    {FastrakItem::ShortEuler, "short Euler angles"},
    {FastrakItem::ShortQuaternion, "short quaternion"},
    {FastrakItem::Stylus, "stylus switch"},
    {FastrakItem::TimeStamp, "time stamp"},
    {FastrakItem::Buttons, "buttons"},
    {FastrakItem::Joystick, "joystick"},
};

// The values of one item, and their full scale.
struct Values {
  std::array<double, 4> value{};
  std::size_t count = 3;
  double fullScale = 1;
  int decimals = 2;

  std::span<const double> all() const { return std::span(value).first(count); }
};

Values PositionOf(const FastrakRecord& record, double fullScale) {
  const double unit = record.metric ? 1 : kInch;
  const MotionPose& p = record.pose;
  return {{p.x / unit, p.y / unit, p.z / unit}, 3, fullScale / unit, 2};
}

Values EulerOf(const FastrakRecord& record, double fullAngle) {
  const MotionPose& p = record.pose;
  return {{p.azimuth, p.elevation, p.roll}, 3, fullAngle, 2};
}

Values QuaternionValues(const FastrakRecord& record) {
  return {QuaternionOf(record.pose), 4, 1, 4};
}

class Encoder {
 public:
  Encoder(const FastrakRecord& record, const FastrakModelRow& model)
      : record_(record), model_(model) {}

  WireWriter Run() {
    out_.U8('0').U8('1' + record_.station).U8(static_cast<unsigned char>(record_.error));
    for (const FastrakItem item : record_.items) Add(item);
    return std::move(out_);
  }

 private:
  void Add(FastrakItem item) {
    switch (item) {
      case FastrakItem::Space:
        out_.U8(' ');
        break;
      case FastrakItem::CrLf:
        out_.Text("\r\n");
        break;
      case FastrakItem::Position:
      case FastrakItem::ShortPosition:
        AddValues(item, PositionOf(record_, model_.fullScale));
        break;
      case FastrakItem::Euler:
      case FastrakItem::ShortEuler:
        AddValues(item, EulerOf(record_, model_.fullAngle));
        break;
      case FastrakItem::Quaternion:
      case FastrakItem::ShortQuaternion:
        AddValues(item, QuaternionValues(record_));
        break;
      case FastrakItem::Stylus:
        if (!model_.interSense) out_.U8(' ');
        out_.U8((record_.buttons & 1) != 0 ? '1' : '0');
        break;
      case FastrakItem::TimeStamp:
      case FastrakItem::Buttons:
      case FastrakItem::Joystick:
        if (model_.interSense) AddInterSense(item);
        break;
    }
  }

  void AddInterSense(FastrakItem item) {
    constexpr unsigned kMiddle = 127;
    if (item == FastrakItem::TimeStamp) {
      if (record_.binary)
        out_.F32Le(record_.time);
      else
        AddText("%14.3f", record_.time);
    } else if (item == FastrakItem::Buttons) {
      AddByte(record_.buttons & 0xFF);
    } else {
      AddByte(kMiddle);
      AddByte(kMiddle);
    }
  }

  void AddByte(unsigned value) {
    if (record_.binary)
      out_.U8(value);
    else
      AddText("%03u", value);
  }

  template <typename Value>
  void AddText(const char* format, Value value) {
    char text[32];
    std::snprintf(text, sizeof text, format, value);
    out_.Text(text);
  }

  // Short items are binary in ASCII records too.
  void AddValues(FastrakItem item, const Values& values) {
    const bool isShort = item >= FastrakItem::ShortPosition && item <= FastrakItem::ShortQuaternion;
    if (!record_.binary && !isShort) return AddAscii(values);
    for (const double value : values.all()) {
      if (isShort && model_.floats) {
        AddShort(Scaled(value, values.fullScale, 14));
      } else if (model_.floats) {
        out_.F32Le(value);
      } else {
        out_.U16Le(static_cast<std::uint32_t>(Scaled(value, values.fullScale, 16)));
      }
    }
  }

  void AddAscii(const Values& values) {
    const double least = 0.5 * std::pow(10.0, -values.decimals);
    for (const double value : values.all()) {
      char text[32];
      // No "-0.00".
      std::snprintf(text, sizeof text, "%7.*f", values.decimals,
                    std::abs(value) < least ? 0 : value);
      out_.Text(text);
    }
  }

  void AddShort(std::int32_t raw) {
    const auto bits = static_cast<std::uint32_t>(raw);
    out_.U8((bits & 0x7F) | (phased_ ? 0 : 0x80)).U8(bits >> 7 & 0x7F);
    phased_ = true;
  }

  const FastrakRecord& record_;
  const FastrakModelRow& model_;
  WireWriter out_;
  bool phased_ = false;
};

}  // namespace

std::span<const FastrakModelRow> FastrakModels() { return kModels; }

const char* NameOf(FastrakItem item) {
  for (const ItemName& row : kNames) {
    if (row.item == item) return row.name;
  }
  return nullptr;
}

WireWriter EncodeRecord(const FastrakRecord& record, const FastrakModelRow& model) {
  return Encoder(record, model).Run();
}

std::string StatusRecord(const FastrakStatus& status, const FastrakModelRow& model) {
  char text[64];
  std::snprintf(text, sizeof text, "21S0%d%d%3d%6s%-6.6s%-32.32s\r\n", status.continuous ? 1 : 0,
                (status.binary ? 1 : 0) + (status.metric ? 2 : 0), status.error % 1000, "",
                std::string(model.version).c_str(), std::string(model.identity).c_str());
  return text;
}

}  // namespace kinetrel::emulate
