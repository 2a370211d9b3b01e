#include "drivers/isense_records.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <span>

namespace kinetrel {
namespace {

constexpr int kLeastRoom = 100;
constexpr int kLineRoom = 80;

// Writes whole lines only. After the first line that does not fit, no line follows.
class LineWriter {
 public:
  LineWriter(char* text, int size) : text_(text), size_(size >= kLeastRoom ? size : 0) {}

  [[gnu::format(printf, 2, 3)]] void Line(const char* format, ...) {
    if (text_ == nullptr || length_ + kLineRoom > size_) return;
    std::va_list values;
    va_start(values, format);
    const int room = size_ - length_;
    length_ +=
        std::clamp(std::vsnprintf(text_ + length_, static_cast<std::size_t>(room), format, values),
                   0, room - 1);
    va_end(values);
  }

 private:
  char* text_;
  int size_;
  int length_ = 0;
};

const char* NameOf(std::uint32_t code, std::span<const char* const> names, const char* unknown) {
  return code < names.size() && names[code] != nullptr ? names[code] : unknown;
}

constexpr const char* kTypes[] = {nullptr, "Precision Series", "InterTrax Series"};
// The misspelled "IntertiaCube" is kept for compatibility.
constexpr const char* kModels[] = {
    nullptr,      "IS-300",       "IS-600",       "IS-900",        "InterTrax1",
    "InterTrax2", "InterTrax LS", "InterTrax LC", "IntertiaCube2", "IntertiaCube2 PRO",
    "IS-1200",    "IntertiaCube3"};
constexpr const char* kInterfaces[] = {nullptr,        "RS-232",  "USB",   "UDP Ethernet",
                                       "TCP Ethernet", "IO Card", "PCMCIA"};
constexpr const char* kCompasses[] = {"NONE", "PARTIAL", "FULL"};
constexpr const char* kAngleFormats[] = {nullptr, "EULER", "QUATERNION"};

const char* OnOff(std::uint32_t flag) { return flag != 0 ? "ACTIVE" : "DISABLED"; }

}  // namespace

void FormatTrackerInfo(const IsenseTrackerInfo& info, char* text, int size) {
  LineWriter out(text, size);
  out.Line("TRACKER INFO STATUS:");
  out.Line("\nLibVersion: \t%7.3f", double{info.libVersion});
  out.Line("\nTrackerType: \t%3u\t%s", info.trackerType,
           NameOf(info.trackerType, kTypes, "Unknown Type"));
  out.Line("\nTrackerModel: \t%3u\t%s", info.trackerModel,
           NameOf(info.trackerModel, kModels, "Unknown Model"));
  out.Line("\nPort:     \t%3u", info.port);
  out.Line("\nRecordsPerSec: \t%3u", info.recordsPerSec);
  out.Line("\nKBitsPerSec: \t%7.3f", double{info.kBitsPerSec});
  out.Line("\nSyncState: \t%3u", info.syncState);
  out.Line("\nSyncRate: \t%7.3f", double{info.syncRate});
  out.Line("\nSyncPhase: \t%3u", info.syncPhase);
  out.Line("\nInterface: \t%3u\t%s", info.interface,
           NameOf(info.interface, kInterfaces, "Unknown Interface"));
}

void FormatStationInfo(const IsenseStationInfo& info, char* text, int size) {
  const auto compass = static_cast<std::uint32_t>(info.compass);
  const auto format = static_cast<std::uint32_t>(info.angleFormat);
  LineWriter out(text, size);
  out.Line("STATION(%u) INFO STATUS (%s):", info.id, OnOff(info.state));
  out.Line("\nCompass: \t%d\t%s", info.compass,
           NameOf(compass, kCompasses, "UNKNOWN COMPASS SETTING"));
  out.Line("\nInertiaCube: \t%d", info.inertiaCube);
  out.Line("\nEnhancement: \t%u", info.enhancement);
  out.Line("\nSensitivity: \t%u", info.sensitivity);
  out.Line("\nPrediction: \t%u", info.prediction);
  out.Line("\nAngleFormat: \t%u %s", format,
           NameOf(format, kAngleFormats, "UNKNOWN ORIENTATION FORMAT"));
  out.Line("\nTimeStamped: \t%s", OnOff(info.timeStamped));
  out.Line("\nGetEncoderData: \t%s", OnOff(info.getEncoderData));
  out.Line("\nCoordFrame: \t%u", info.coordFrame);
  out.Line("\nGetCameraData: \t%s", OnOff(info.getCameraData));
}

}  // namespace kinetrel
