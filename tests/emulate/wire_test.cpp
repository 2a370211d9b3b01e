// The rates of the emulated devices and what they forget. The runs of the drivers prove what they
// answer.
#include <gtest/gtest.h>

#include "emulate/fastrak_emulator.h"
#include "emulate/flock_emulator.h"
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

DeviceBench Fastrak(FastrakSettings settings, unsigned baud = 115200) {
  return Bench<FastrakEmulator>(std::move(settings), {2.54, -5.08, 12.7, 90, -45, 30}, baud);
}
// A quarter, minus a quarter and a half of the full scale; half a turn's halves; five steps.
DeviceBench Flock(FlockSettings settings = {}) {
  return Bench<FlockEmulator>(settings, {91.44, -91.44, 182.88, 90, -45, 5 * 180.0 / 8192}, 115200);
}
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

// ---- Streams and faults ------------------------------------------------------------------------

struct Stream {
  const char* name;
  DeviceBench (*make)();
  std::string command;
  Moment time;
  std::size_t bytes;
};

TEST(WireStreams, HaveTheirRates) {
  constexpr auto kTenSeconds = seconds(10) + milliseconds(60);
  const Stream rows[] = {
      // 47 characters a record. At 9600 baud the line carries one in 49 ms, every sixth slot.
      {"FourStations", [] { return Fastrak({.receivers = 4}); }, "C", kTenSeconds, 1206 * 47},
      {"Is300", [] { return Fastrak({.model = FastrakModel::Is300, .receivers = 4}); }, "C",
       kTenSeconds, 1508 * 47},
      {"SlowLine", [] { return Fastrak({.receivers = 4}, 9600); }, "C", kTenSeconds, 201 * 47},
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
                static_cast<double>(row.bytes), 48)
        << row.name;
  }
}

TEST(WireFaults, ARestartForgetsWhatTheHostSet) {
  DeviceBench fastrak = Fastrak({.receivers = 1, .resetTime = seconds(3)});
  fastrak.Ask("ufO1,2\rC");
  fastrak.Strike(FaultKind::Restart);
  EXPECT_EQ(fastrak.Ask("P", milliseconds(2999)), "");
  EXPECT_EQ(fastrak.Collect(milliseconds(100)),
            "01    1.00  -2.00   5.00  90.00 -45.00  30.00\r\n");

  DeviceBench flock = Flock();
  flock.Ask("P2\x03@");
  flock.Strike(FaultKind::Restart);
  flock.Collect(milliseconds(20));
  EXPECT_EQ(flock.Ask("O\x00"s), "\x08\x90"s);

  DeviceBench liberty = Liberty();
  liberty.Ask("F1\r");
  EXPECT_EQ(liberty.Ask("\x19\rF\r", seconds(6)), "\r\nLIBERTY Ready!\r\n");
  EXPECT_EQ(liberty.Ask("F\r"), "00F  0\r\n");
}

}  // namespace
}  // namespace kinetrel::test
