// The Liberty's side of the wire, against bytes written out from the protocol.
#include "emulate/liberty_emulator.h"

#include <gtest/gtest.h>

#include "tests/emulate/device_bench.h"

namespace kinetrel::test {
namespace {

using namespace std::string_literals;

// 16, -0.5, 0.75 cm; 90, -45, 0 degrees.
const MotionPose kPose{16, -0.5, 0.75, 90, -45, 0};
const std::string kItems =
    "\x00\x00\x80\x41\x00\x00\x00\xBF\x00\x00\x40\x3F"
    "\x00\x00\xB4\x42\x00\x00\x34\xC2\x00\x00\x00\x00"s;

DeviceBench Unit(LibertySettings settings = {}) {
  return DeviceBench(std::make_unique<LibertyEmulator>(settings, MakeHold(kPose)), {115200});
}

std::string Number(const std::string& header, unsigned value) {
  return header + std::string{static_cast<char>(value), 0, 0, 0};
}

TEST(LibertyEmulator, AnswersInTextUntilItIsToldBinary) {
  DeviceBench unit = Unit({.plugged = 3});
  EXPECT_EQ(unit.Ask("F\r"), "00F  0\r\n");
  EXPECT_EQ(unit.Ask("F1\r"), "");
  EXPECT_EQ(unit.Ask("f\r"), Number("LY\0F\0\0\4\0"s, 1));
  EXPECT_EQ(unit.Ask("\x15"s + "0\r"), "LY\0\x15\0\0\4\0\3\0\3\0"s);
  EXPECT_EQ(unit.Ask("\x15"s + "0,2\r\x15" + "0\r"), "LY\0\x15\0\0\4\0\2\0\3\0"s);
  EXPECT_EQ(unit.Ask("\x15"s + "1,1\r\x15" + "0\r"), "LY\0\x15\0\0\4\0\3\0\3\0"s);
  EXPECT_EQ(
      unit.Ask("U1\rU\rR3\rR\rZ1\rZ\r"),
      Number("LY\0U\0\0\4\0"s, 1) + Number("LY\0R\0\0\4\0"s, 3) + Number("LY\0Z\0\0\4\0"s, 1));
  EXPECT_EQ(unit.Ask("O*,2,9\rO2\r"), "LY\0O\0\0\x0C\0\2\0\0\0\x09\0\0\0\xFF\xFF\xFF\xFF"s);
  EXPECT_EQ(unit.Ask("A1,0,0,0,1,0,0,0,1,0\rH*,0,0,1\rL*,0\r"), "");
  EXPECT_EQ(unit.Ask("\r").substr(0, 8), "LY\0\0\1\0\x11\0"s);
  EXPECT_EQ(unit.Ask("R9\r").substr(0, 5), "LY\0R\3"s);
}

TEST(LibertyEmulator, SendsACycleOfEveryActiveStation) {
  DeviceBench unit = Unit({.plugged = 3});
  unit.Ask("F1\rU1\rO*,2,4\r");
  EXPECT_EQ(unit.Ask("P"), "LY\1P\0\0\x18\0"s + kItems + "LY\2P\0\0\x18\0"s + kItems);
  unit.Ask(
      "R3\r\x15"
      "0,1\r");
  const std::string stream = unit.Ask("C\r", seconds(1));
  EXPECT_NEAR(static_cast<double>(stream.size()) / 32, 120, 1);
  EXPECT_EQ(stream.substr(0, 32), "LY\1C\0\0\x18\0"s + kItems);
  unit.Send("P");
  unit.Collect(milliseconds(20));
  EXPECT_EQ(unit.Collect(seconds(1)), "");
}

TEST(LibertyEmulator, WhatItsLineCannotCarryIsLostInWholeCycles) {
  DeviceBench unit = Unit({.plugged = 7});
  unit.Ask("F1\rO*,2,4,9\r");
  const std::string stream = unit.Ask("C\r", seconds(1));
  EXPECT_LT(stream.size() / 36, 3 * 240U);
  for (std::size_t i = 0; i + 36 <= stream.size(); i += 36) {
    ASSERT_EQ(stream.substr(i, 2), "LY");
    ASSERT_EQ(stream[i + 2], static_cast<char>(1 + i / 36 % 3));
  }
}

TEST(LibertyEmulator, MarksPosesUntilTheSelfTestIsCleared) {
  DeviceBench unit = Unit({.bit = 4});
  unit.Ask("F1\rO*,9\r");
  EXPECT_EQ(unit.Ask("P")[4], 'I');
  EXPECT_EQ(unit.Ask("\x14\r").substr(0, 12), Number("LY\0\x14\0\0\x24\0"s, 4));
  unit.Ask(
      "\x14"
      "0\r");
  EXPECT_EQ(unit.Ask("P")[4], '\0');
}

TEST(LibertyEmulator, StartsAnewWithWordOfIt) {
  DeviceBench unit = Unit();
  unit.Ask("F1\r");
  EXPECT_EQ(unit.Ask("\x19\rF\r", seconds(6)), "\r\nLIBERTY Ready!\r\n");
  EXPECT_EQ(unit.Ask("F\r"), "00F  0\r\n");
}

}  // namespace
}  // namespace kinetrel::test
