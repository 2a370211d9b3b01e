#include "probe/stream_signs.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <string>
#include <string_view>

#include "drivers/gps_reports.h"

namespace kinetrel {
namespace {

using Bytes = std::span<const std::byte>;

unsigned At(Bytes bytes, std::size_t index) { return std::to_integer<unsigned>(bytes[index]); }

// Enough that noise does not pass: each record is checked in several bytes.
constexpr int kFewestRecords = 4;

// ---- Records with a mark in their first byte only
// ------------------------------------------------

// The distance of the marks, if it is the same from the first to the last; 0: it is not.
std::size_t MarkDistance(Bytes heard) {
  std::size_t distance = 0;
  std::size_t last = heard.size();
  int records = 0;
  for (std::size_t i = 0; i < heard.size(); ++i) {
    if (At(heard, i) < 0x80) continue;
    if (last != heard.size()) {
      if (distance != 0 && i - last != distance) return 0;
      distance = i - last;
      ++records;
    }
    last = i;
  }
  return records >= kFewestRecords ? distance : 0;
}

std::optional<Finding> RecogniseMarked(Bytes heard) {
  constexpr std::size_t kLogitechRecord = 16;
  // Position and angles, then the other formats of the bird, also with its address at the end.
  constexpr std::size_t kFlockRecords[] = {12, 6, 7, 8, 9, 13, 14, 15, 18, 19, 24, 25};
  const std::size_t distance = MarkDistance(heard);
  if (distance == kLogitechRecord) return Finding{.family = Family::Logitech, .stations = 1};
  if (std::ranges::find(kFlockRecords, distance) != std::end(kFlockRecords)) {
    return Finding{.family = Family::Flock};
  }
  return std::nullopt;
}

// ---- FASTRAK
// -------------------------------------------------------------------------------------

bool IsFastrakHead(Bytes bytes, std::size_t at) {
  const unsigned error = At(bytes, at + 2);
  return At(bytes, at) == '0' && At(bytes, at + 1) >= '1' && At(bytes, at + 1) <= '4' &&
         (error == ' ' || (error < 0x80 && std::isalpha(static_cast<int>(error)) != 0));
}

// The stations whose heads follow each other in steps of `size` from `at` on; 0: fewer than enough.
unsigned StationsInSteps(Bytes heard, std::size_t at, std::size_t size) {
  unsigned stations = 0;
  int records = 0;
  for (; at + 3 <= heard.size(); at += size, ++records) {
    if (!IsFastrakHead(heard, at)) break;
    stations |= 1U << (At(heard, at + 1) - '1');
  }
  return records >= kFewestRecords ? stations : 0;
}

std::optional<Finding> RecogniseFastrak(Bytes heard) {
  constexpr std::size_t kShortest = 9;
  constexpr std::size_t kLongest = 96;
  for (std::size_t at = 0; at + 3 <= heard.size() && at < kLongest; ++at) {
    if (!IsFastrakHead(heard, at)) continue;
    for (std::size_t size = kShortest; size <= kLongest; ++size) {
      const unsigned stations = StationsInSteps(heard, at, size);
      if (stations == 0) continue;
      return Finding{.family = Family::Fastrak, .stations = __builtin_popcount(stations)};
    }
  }
  return std::nullopt;
}

// ---- Liberty
// -------------------------------------------------------------------------------------

// The size of the frame at `at`, as its header tells; 0: no header is there.
std::size_t LibertyFrameAt(Bytes heard, std::size_t at) {
  constexpr std::size_t kHeader = 8;
  constexpr std::size_t kLongestBody = 1000;
  if (at + kHeader > heard.size()) return 0;
  const unsigned mark = At(heard, at) << 8 | At(heard, at + 1);
  const unsigned command = At(heard, at + 3);
  const std::size_t body = At(heard, at + 6) | At(heard, at + 7) << 8;
  const bool good = (mark == 0x4C59 || mark == 0x5041 || mark == 0x4C55) &&  // LY, PA, LU
                    At(heard, at + 2) <= 16 && (command == 'C' || command == 'P') && body > 0 &&
                    body <= kLongestBody;
  return good ? kHeader + body : 0;
}

std::optional<Finding> RecogniseLibertyFrames(Bytes heard) {
  for (std::size_t start = 0; start < heard.size(); ++start) {
    unsigned stations = 0;
    int frames = 0;
    std::size_t at = start;
    for (std::size_t size = LibertyFrameAt(heard, at); size > 0; size = LibertyFrameAt(heard, at)) {
      stations |= 1U << At(heard, at + 2);
      ++frames;
      at += size;
    }
    if (frames < kFewestRecords) continue;
    Finding found{.family = Family::Liberty, .stations = __builtin_popcount(stations)};
    if (At(heard, start) == 'P') found.model = "Polhemus Patriot";
    return found;
  }
  return std::nullopt;
}

// ---- Text
// ----------------------------------------------------------------------------------------

// A record of the Liberty in text: the station in two digits, an error letter, then numbers.
bool IsLibertyLine(std::string_view line) {
  if (line.size() < 20 || line[0] < '0' || line[0] > '1' || line[1] < '0' || line[1] > '9') {
    return false;
  }
  return line.substr(3).find_first_not_of(" +-.0123456789\r") == std::string_view::npos;
}

bool IsNmeaLine(std::string_view line) {
  const std::size_t star = line.find('*');
  if (!line.starts_with("$G") || star == std::string_view::npos || star + 3 > line.size()) {
    return false;
  }
  unsigned sum = 0;
  for (const char letter : line.substr(1, star - 1)) sum ^= static_cast<unsigned char>(letter);
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  return line[star + 1] == kDigits[sum >> 4 & 15] && line[star + 2] == kDigits[sum & 15];
}

std::optional<Finding> RecogniseText(Bytes heard) {
  std::string_view rest(reinterpret_cast<const char*>(heard.data()), heard.size());
  int liberty = 0;
  int nmea = 0;
  for (std::size_t end = 0; (end = rest.find('\n')) != std::string_view::npos;) {
    liberty += IsLibertyLine(rest.substr(0, end)) ? 1 : 0;
    nmea += IsNmeaLine(rest.substr(0, end)) ? 1 : 0;
    rest.remove_prefix(end + 1);
  }
  if (nmea >= 2) return Finding{.family = Family::NmeaGps};
  if (liberty >= kFewestRecords) return Finding{.family = Family::Liberty};
  return std::nullopt;
}

// ---- GPS
// -----------------------------------------------------------------------------------------

std::optional<Finding> RecogniseTsip(Bytes heard) {
  GpsReports reports;
  int packets = 0;
  for (const std::byte byte : heard) {
    reports.Take(byte);
    packets += reports.TakePacketEnd() ? 1 : 0;
  }
  const bool known = reports.HasPositionNews() || reports.HasSatelliteNews() ||
                     reports.state().gpsWeek != 0 || reports.state().machineId != 0;
  if (packets < 2 || !known) return std::nullopt;
  return Finding{.family = Family::Gps};
}

}  // namespace

std::optional<Finding> RecogniseStream(Bytes heard) {
  // The marks last: other families' floats may look like them for a while.
  for (const auto recognise :
       {RecogniseTsip, RecogniseLibertyFrames, RecogniseFastrak, RecogniseText, RecogniseMarked}) {
    if (auto found = recognise(heard)) {
      found->streams = true;
      return found;
    }
  }
  return std::nullopt;
}

bool IsWrongRate(std::size_t bytes, unsigned framingErrors) {
  constexpr unsigned kFewest = 3;
  constexpr std::size_t kBytesForOne = 20;
  return framingErrors >= kFewest && framingErrors * kBytesForOne > bytes;
}

}  // namespace kinetrel
