#include "probe/stream_signs.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace kinetrel {
namespace {

std::optional<Family> FamilyOf(const std::string& heard) {
  const auto found = RecogniseStream(std::as_bytes(std::span(heard)));
  return found ? std::optional(found->family) : std::nullopt;
}

std::string Repeated(const std::string& record, int times) {
  std::string all;
  for (int i = 0; i < times; ++i) all += record;
  return all;
}

TEST(StreamSigns, AreWholeRecordsInARow) {
  using namespace std::string_literals;
  const std::string fastrak = "01 "s + std::string(24, '\x42');
  const std::string flock = "\x81"s + std::string(11, '\x21');
  const std::string logitech = "\x80"s + std::string(15, '\x05');
  const std::string liberty =
      "LY\x01"
      "C\0\0\x10\0"s +
      std::string(16, '\x3F');
  const std::string nmea = "$GPZDA,201530.00,04,07,2002,00,00*60\r\n";
  struct {
    const char* name;
    std::string heard;
    std::optional<Family> family;
  } const rows[] = {
      {"a FASTRAK found in the middle of a record", fastrak.substr(9) + Repeated(fastrak, 6),
       Family::Fastrak},
      {"too few FASTRAK records", Repeated(fastrak, 2), std::nullopt},
      {"a bird", flock.substr(5) + Repeated(flock, 6), Family::Flock},
      {"a bird with a byte lost", Repeated(flock, 3) + flock.substr(1) + Repeated(flock, 3),
       std::nullopt},
      {"a head tracker", Repeated(logitech, 6), Family::Logitech},
      {"a Liberty", liberty.substr(3) + Repeated(liberty, 5), Family::Liberty},
      {"a Liberty whose frame is too long",
       Repeated("LY\x01"
                "C\0\0\xFF\xFF"s,
                8),
       std::nullopt},
      {"NMEA", "60\r\n" + Repeated(nmea, 2), Family::NmeaGps},
      {"NMEA with a wrong checksum", Repeated("$GPZDA,201530.00,04,07,2002,00,00*61\r\n", 4),
       std::nullopt},
      {"text of another device", Repeated("Marlin 2.1 ready\r\n", 20), std::nullopt},
      {"zeros", std::string(500, '\0'), std::nullopt},
      {"nothing", "", std::nullopt},
  };
  for (const auto& row : rows) EXPECT_EQ(FamilyOf(row.heard), row.family) << row.name;
}

TEST(StreamSigns, AreNotInNoise) {
  std::mt19937 random(7);
  for (int round = 0; round < 2000; ++round) {
    std::string noise(600, '\0');
    // Of wrong rates: many bits in a row are the same.
    const unsigned mask = round % 2 == 0 ? 0xFF : 0xF8;
    for (char& byte : noise) byte = static_cast<char>(random() & mask);
    EXPECT_EQ(FamilyOf(noise), std::nullopt) << round;
  }
}

TEST(StreamSigns, ManyFramingErrorsMeanAWrongRate) {
  EXPECT_FALSE(IsWrongRate(1000, 0));
  EXPECT_FALSE(IsWrongRate(10, 1));  // the byte that was cut by the opening
  EXPECT_FALSE(IsWrongRate(1000, 20));
  EXPECT_TRUE(IsWrongRate(1000, 60));
  EXPECT_TRUE(IsWrongRate(12, 12));
}

}  // namespace
}  // namespace kinetrel
