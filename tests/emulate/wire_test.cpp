// What each emulated device answers, against bytes written out from its protocol.
#include <gtest/gtest.h>

#include "emulate/flock_emulator.h"
#include "emulate/gps_emulator.h"
#include "emulate/intertrax_emulator.h"
#include "emulate/liberty_emulator.h"
#include "emulate/logitech_emulator.h"
#include "emulate/pan_tilt_emulator.h"
#include "tests/emulate/device_bench.h"

namespace kinetrel::test {
namespace {

using namespace std::string_literals;

template <typename Emulator, typename Settings>
DeviceBench Bench(Settings settings, const MotionPose& pose, unsigned baud) {
  return DeviceBench(std::make_unique<Emulator>(settings, MakeHold(pose)), {baud});
}

// A quarter, minus a quarter and a half of the full scale; half a turn's halves; five steps.
DeviceBench Flock(FlockSettings settings = {}) {
  return Bench<FlockEmulator>(settings, {91.44, -91.44, 182.88, 90, -45, 5 * 180.0 / 8192}, 115200);
}
DeviceBench Gps(GpsSettings settings = {}) { return Bench<GpsEmulator>(settings, {}, 9600); }
DeviceBench Intertrax(IntertraxSettings settings = {}) {
  return Bench<IntertraxEmulator>(settings, {.azimuth = 90, .elevation = 45, .roll = -60}, 1200);
}
DeviceBench Liberty(LibertySettings settings = {}) {
  return Bench<LibertyEmulator>(settings, {16, -0.5, 0.75, 90, -45, 0}, 115200);
}
// 2.54 cm are 1000 counts. Azimuth, elevation and roll are told about axes that do not turn.
DeviceBench Logitech(LogitechSettings settings = {}) {
  return Bench<LogitechEmulator>(settings, {2.54, -2.54, 5.08, -90, 10, 20}, 19200);
}
DeviceBench PanTilt(PanTiltStart start = PanTiltStart::Idle) {
  return Bench<PanTiltEmulator>(start, {.azimuth = 90, .elevation = -45}, 9600);
}

const std::string kFlockRecord = "\x80\x10\x00\x10\x00\x60\x00\x60\x00\x10\x05\x00"s;
const std::string kIntertraxRecord = "\x00\x40\x00\xE0\xAA\x2A"s;  // 90, -45, 60 of 180 in 32767
const std::string kLogitechRecord =
    "\x80\x7F\x78\x18\x00\x07\x68\x7F\x70\x30\x6A\x20\x03\x10\x1C\x10"s;
const std::string kEncoders = "\x00\x00\x00\x00\x00\x00\x00\x00\x18\xFC\x0C\xFE"s;
const std::string kLibertyItems =
    "\x00\x00\x80\x41\x00\x00\x00\xBF\x00\x00\x40\x3F"
    "\x00\x00\xB4\x42\x00\x00\x34\xC2\x00\x00\x00\x00"s;

// A Liberty's answer of one number.
std::string Number(const std::string& header, unsigned value) {
  return header + std::string{static_cast<char>(value), 0, 0, 0};
}

struct Dialogue {
  const char* name;
  DeviceBench (*make)();
  std::vector<Exchange> exchanges;
};

class WireDialogue : public testing::TestWithParam<Dialogue> {};

TEST_P(WireDialogue, IsAnsweredAsTheDeviceWould) {
  ExpectDialogue(GetParam().make, GetParam().exchanges);
}

INSTANTIATE_TEST_SUITE_P(
    Of, WireDialogue,
    testing::Values(Dialogue{"FlockParameters",
                             [] { return Flock(); },
                             {{"B", kFlockRecord},
                              {"O\x01", "\x03\x43"},
                              {"O\x02", "\x28\x00"s},
                              {"O\x0F", "6DFOB     "},
                              {"O!", "\x00\x0E\x00\x00\x00"s},
                              {"O$", "\xA0\xA0\xA0\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00"s},
                              {"L\x0C\x01\xF2L\x06\x00P#\x00P\x07\x00\x90"s, ""},
                              {"O\x0A", "\x00"s}}},
                    Dialogue{"FlockBusConfiguration",
                             [] { return Flock({.birds = 2}); },
                             {{"O2", "\x00\x00\x00\x00\x00"s},
                              {"P2\x03", ""},
                              {"O2", "\x03\x06\x00\x00\x00"s},
                              {"O\x00"s, "\x00\xD0"s}}},
                    Dialogue{"FlockErrorUntilItIsRead",
                             [] { return Flock({.error = 13}); },
                             {{"O\x00"s, "\x00\xB0"s}, {"O\x0A", "\x0D"}, {"O\x00"s, "\x00\x90"s}}},
                    Dialogue{"FlockUnknownCommands",
                             [] { return Flock(); },
                             {{"~", ""}, {"O\x63", ""}, {"P2\x63", ""}, {"O\x0A", "\x06"}}},
                    Dialogue{"IntertraxInTwoSteps",
                             [] { return Intertrax(); },
                             {{"d3", ""},  // too early
                              {"c", "o"},
                              {"v\0"s, "v\0\x01\0\0\0InterTrax 1.0 (emulated)\0"s},
                              {"d", "d"},
                              {"3", kIntertraxRecord},
                              {"c", ""}}},
                    Dialogue{"IntertraxWithoutVersion",
                             [] { return Intertrax({.tellsVersion = false}); },
                             {{"c", "o"}, {"v\0"s, ""}, {"d", "d"}}},
                    Dialogue{
                        "LibertyTextThenBinary",
                        [] { return Liberty({.plugged = 3}); },
                        {{"F\r", "00F  0\r\n"},
                         {"F1\r", ""},
                         {"f\r", Number("LY\0F\0\0\4\0"s, 1)},
                         {"\x15"s + "0,2\r\x15" + "0\r", "LY\0\x15\0\0\4\0\2\0\3\0"s},
                         {"R3\rR\r", Number("LY\0R\0\0\4\0"s, 3)},
                         {"O*,2,9\rO2\r", "LY\0O\0\0\x0C\0\2\0\0\0\x09\0\0\0\xFF\xFF\xFF\xFF"s},
                         {"A1,0,0,0,1,0,0,0,1,0\rH*,0,0,1\rL*,0\r", ""},
                         {"U1\rO*,2,4\rP", "LY\2P\0\0\x18\0"s + kLibertyItems}}},
                    Dialogue{"LogitechCommands",
                             [] { return Logitech(); },
                             {{"*\x05", "\xBF\x3F"},
                              {"*D*A", ""},
                              {"*d", kLogitechRecord},
                              {"d\x05x*x", ""},
                              {"*d*d", kLogitechRecord + kLogitechRecord}}},
                    Dialogue{"LogitechFailedSelfTest",
                             [] { return Logitech({.buttons = 0x45, .selfTest = 0x3FBD}); },
                             {{"*\x05", "\xBD\x3F"}, {"*d", "\xC5" + kLogitechRecord.substr(1)}}},
                    Dialogue{"PanTiltRequests",
                             [] { return PanTilt(); },
                             {{"d", kEncoders},
                              {"b", kEncoders + "\x00\x00"s},
                              {"a", "\x00\x00"s},
                              {"Zx\xFF", ""},
                              {"dd", kEncoders + kEncoders}}}),
    [](const auto& row) { return std::string(row.param.name); });

// ---- Streams and faults ------------------------------------------------------------------------

struct Stream {
  const char* name;
  DeviceBench (*make)();
  std::string command;
  Moment time;
  std::size_t bytes;
};

TEST(WireStreams, HaveTheirRates) {
  const Stream rows[] = {
      {"Flock", [] { return Flock(); }, "@", seconds(10) + milliseconds(3), 1440 * 12},
      {"Intertrax", [] { return Intertrax({.start = IntertraxStart::Streaming}); }, "", seconds(1),
       250 * 6},
      {"Logitech", [] { return Logitech(); }, "S", seconds(1), 49 * 16},
      {"Liberty", [] { return Liberty(); }, "F1\rO*,2,4\rR3\rC\r", seconds(1), 120 * 32},
      {"PanTilt", [] { return PanTilt(PanTiltStart::HalfAnswer); }, "d", seconds(1), 12},
  };
  for (const Stream& row : rows) {
    DeviceBench bench = row.make();
    EXPECT_NEAR(static_cast<double>(bench.Ask(row.command, row.time).size()),
                static_cast<double>(row.bytes), 32)
        << row.name;
  }
}

TEST(WireStreams, LibertyDropsWholeCyclesThatItsLineCannotCarry) {
  DeviceBench unit = Liberty({.plugged = 7});
  unit.Ask("F1\rO*,2,4,9\r");
  const std::string stream = unit.Ask("C\r", seconds(1));
  EXPECT_LT(stream.size() / 36, 3 * 240U);
  for (std::size_t i = 0; i + 36 <= stream.size(); i += 36) {
    ASSERT_EQ(stream.substr(i, 2), "LY");
    ASSERT_EQ(stream[i + 2], static_cast<char>(1 + i / 36 % 3));
  }
}

// How many packets of an identifier are in a stream; doubled bytes are no marks.
int Count(const std::string& stream, char id) {
  int count = 0;
  for (std::size_t i = 0; i + 1 < stream.size(); ++i) {
    if (stream[i] != '\x10') continue;
    count += stream[i + 1] == id ? 1 : 0;
    ++i;
  }
  return count;
}

TEST(WireStreams, GpsReportsByItselfAndHidesItsPositionWithoutAFix) {
  EXPECT_EQ(Gps({.rate = 0.5}).Ask("\x10&\x10\x03\x10\x99\x10\x10\x01\x10\x03"),
            "\x10\x46\0\0\x10\x03\x10\x4B\x5A\0\0\x10\x03"s);
  DeviceBench receiver = Gps({.origin = {90 / 3.14159265358979, 0, 9}, .satellites = 1});
  const std::string stream = receiver.Collect(milliseconds(9900));
  EXPECT_EQ(stream.substr(0, 20),
            "\x10\x4A\x3F\x00\x00\x00\x00\x00\x00\x00\x41\x10\x10\x00\x00\x00\x00\x00\x00\x47"s);
  EXPECT_NEAR(Count(stream, '\x4A'), 49, 1);
  for (const char id : {'\x41', '\x6D', '\x47', '\x5C'}) EXPECT_NEAR(Count(stream, id), 9, 1) << id;
  receiver->Strike(receiver.now(), {FaultKind::Error, 3});
  EXPECT_EQ(Count(receiver.Collect(milliseconds(2900)), '\x4A'), 0);
  EXPECT_GT(Count(receiver.Collect(milliseconds(1000)), '\x4A'), 0);
}

TEST(WireFaults, ARestartForgetsWhatTheHostSet) {
  DeviceBench flock = Flock();
  flock.Ask("P2\x03@");
  flock->Strike(flock.now(), {FaultKind::Restart});
  flock.Collect(milliseconds(20));
  EXPECT_EQ(flock.Ask("O\x00"s), "\x00\x90"s);

  DeviceBench liberty = Liberty();
  liberty.Ask("F1\r");
  EXPECT_EQ(liberty.Ask("\x19\rF\r", seconds(6)), "\r\nLIBERTY Ready!\r\n");
  EXPECT_EQ(liberty.Ask("F\r"), "00F  0\r\n");
}

}  // namespace
}  // namespace kinetrel::test
