// The GPS driver and its reading of TSIP packets.
#include "drivers/gps_device.h"

#include <gtest/gtest.h>

#include <cmath>

#include "tests/support/allocation_counter.h"
#include "tests/support/emulated_run.h"
#include "tests/support/scripted_peer.h"

namespace kinetrel::test {
namespace {

using namespace std::string_literals;
using std::chrono::milliseconds;

// ---- Packets -------------------------------------------------------------------------------

// A packet with its frame; each 0x10 in the data is doubled.
std::string Packet(const std::string& id, const std::string& data) {
  std::string packet = "\x10" + id;
  for (const char byte : data) packet += byte == '\x10' ? "\x10\x10" : std::string(1, byte);
  return packet + "\x10\x03";
}

// Floats in the byte order of the wire.
const std::string kZero = "\0\0\0\0"s;
const std::string kHalf = "\x3F\x00\x00\x00"s;       // 0.5
const std::string kMinusHalf = "\xBF\x00\x00\x00"s;  // -0.5
const std::string kQuarter = "\x3E\x80\x00\x00"s;    // 0.25
const std::string kOne = "\x3F\x80\x00\x00"s;        // 1
const std::string kNine = "\x41\x10\x00\x00"s;       // 9, which contains a 0x10
const std::string kHundred = "\x42\xC8\x00\x00"s;    // 100
const std::string kNan = "\x7F\xC0\x00\x00"s;

std::string Fix(const std::string& latitude, const std::string& longitude,
                const std::string& altitude) {
  return Packet("\x4A", latitude + longitude + altitude + kZero + kOne);
}

const std::string kFix = Fix(kHalf, kQuarter, kHundred);
// 2^-24 rad further north, 9 m up instead of 100: 0.37975... m north.
const std::string kNextFix = Fix("\x3F\x00\x00\x01"s, kQuarter, kNine);
const double kStepNorth = std::ldexp(1.0, -24) * 6371300.0;

const std::string kLevels = Packet("\x47", "\x02\x10" + kNine + "\x05" + kOne);
const std::string kSelection =
    Packet("\x6D", "\x23" + kOne + kHalf + kQuarter + kNine + "\x10\x05"s);
const std::string kTracking =
    Packet("\x5C", "\x10\x00\x00\x00"s + kHundred + kOne + kHalf + kQuarter + kZero);

int Feed(GpsReports& reports, const std::string& bytes) {
  int accepted = 0;
  for (const char byte : bytes) accepted += reports.Take(static_cast<std::byte>(byte)) ? 1 : 0;
  return accepted;
}

// ---- Reports -------------------------------------------------------------------------------

TEST(GpsPosition, IsConvertedToEveryForm) {
  GpsReports reports;
  const GpsState& gps = reports.state();
  EXPECT_EQ(gps.latitudeText.hemisphere, ' ');
  Feed(reports, kFix);
  EXPECT_DOUBLE_EQ(gps.latitudeText.degrees, 28.64788975654116);
  EXPECT_DOUBLE_EQ(gps.latitudeText.minutes, 38.873385392469686);
  EXPECT_NEAR(gps.latitudeText.seconds, 52.403123548181156, 1e-9);
  EXPECT_EQ(gps.latitudeText.hemisphere, 'N');
  EXPECT_DOUBLE_EQ(gps.longitudeText.degrees, 14.32394487827058);
  EXPECT_EQ(gps.longitudeText.hemisphere, 'E');
  EXPECT_DOUBLE_EQ(gps.altitudeFeet, 328.0839895013124);
  EXPECT_DOUBLE_EQ(gps.northArc, 3185650.0);
  EXPECT_DOUBLE_EQ(gps.eastArc, 1594534.25);
  EXPECT_EQ(gps.timeOfFix, 1.0);
  EXPECT_EQ(gps.startLatitude, 0.5);
  EXPECT_EQ(gps.localNorth, 0.0F);

  Feed(reports, kNextFix);
  EXPECT_FLOAT_EQ(gps.localNorth, static_cast<float>(kStepNorth));
  EXPECT_EQ(gps.localEast, 0.0F);
  EXPECT_EQ(gps.localUp, -91.0F);

  Feed(reports, Fix(kMinusHalf, kMinusHalf, kHundred));
  EXPECT_DOUBLE_EQ(gps.latitudeText.degrees, 28.64788975654116);
  EXPECT_EQ(gps.latitudeText.hemisphere, 'S');
  EXPECT_EQ(gps.longitudeText.hemisphere, 'W');
  EXPECT_EQ(gps.startLatitude, 0.5);
}

TEST(GpsSatellites, KeepTheirPlaces) {
  GpsReports reports;
  const GpsState& gps = reports.state();
  // Before the first selection report, all satellites share the first entry.
  Feed(reports, kLevels);
  EXPECT_EQ(gps.satelliteCount, 0);
  EXPECT_EQ(gps.satellites[0].prn, 5);
  EXPECT_TRUE(reports.TakeSatelliteNews());

  Feed(reports, kSelection);
  EXPECT_EQ(gps.satelliteCount, 2);
  EXPECT_EQ(gps.fixMode, 3);
  EXPECT_EQ(gps.pdop, 1.0F);
  EXPECT_EQ(gps.tdop, 9.0F);
  EXPECT_EQ(gps.satellites[0].prn, 16);
  EXPECT_EQ(gps.satellites[0].signalLevel, 0.0F);
  EXPECT_EQ(gps.satellites[1].prn, 5);

  Feed(reports, kLevels + kTracking);
  EXPECT_EQ(gps.satellites[0].signalLevel, 100.0F);
  EXPECT_EQ(gps.satellites[0].elevation, 0.5F);
  EXPECT_EQ(gps.satellites[0].azimuth, 0.25F);
  EXPECT_EQ(gps.satellites[1].signalLevel, 1.0F);

  // A satellite outside the selection goes behind the others, which stay unchanged.
  Feed(reports, Packet("\x47", "\x01\x07" + kHalf));
  EXPECT_EQ(gps.satelliteCount, 2);
  EXPECT_EQ(gps.satellites[1].prn, 5);
  EXPECT_EQ(gps.satellites[2].prn, 7);
  EXPECT_EQ(gps.satellites[2].signalLevel, 0.5F);

  // A new selection keeps a satellite's values only when it stays in the same place.
  Feed(reports, Packet("\x6D", "\x23" + kOne + kOne + kOne + kOne + "\x10\x10"s));
  EXPECT_EQ(gps.satellites[0].signalLevel, 100.0F);
  EXPECT_EQ(gps.satellites[1].signalLevel, 0.0F);
}

struct StreamStory {
  const char* name;
  std::string bytes;
  double latitude;  // afterwards
  bool position;    // updated
  bool satellites;
};

class GpsStream : public testing::TestWithParam<StreamStory> {};

TEST_P(GpsStream, IsDecoded) {
  const StreamStory& row = GetParam();
  GpsReports reports;
  Feed(reports, row.bytes);
  EXPECT_EQ(reports.state().latitude, row.latitude);
  EXPECT_EQ(reports.HasPositionNews(), row.position);
  EXPECT_EQ(reports.HasSatelliteNews(), row.satellites);
}

const double kNextLatitude = 0.5 + std::ldexp(1.0, -24);

INSTANTIATE_TEST_SUITE_P(
    Tsip, GpsStream,
    testing::Values(
        StreamStory{"Clean", kFix, 0.5, true, false},
        StreamStory{"WithoutItsMark", kFix.substr(1), 0.5, true, false},
        StreamStory{"UpToTheEndMark", kFix.substr(0, kFix.size() - 1), 0.5, true, false},
        StreamStory{"BeforeTheEndMark", kFix.substr(0, kFix.size() - 2), 0, false, false},
        StreamStory{"FromTheMiddle", kFix.substr(7) + kNextFix, kNextLatitude, true, false},
        StreamStory{"Cut", kFix.substr(0, 12) + kNextFix, kNextLatitude, true, false},
        StreamStory{"LostByte", kFix.substr(0, 5) + kFix.substr(6), 0, false, false},
        StreamStory{"ExtraByte", kFix.substr(0, 5) + "\x01" + kFix.substr(5), 0, false, false},
        StreamStory{"DamagedThenWhole", kFix.substr(0, 5) + "\x01" + kFix.substr(5) + kNextFix,
                    kNextLatitude, true, false},
        StreamStory{"CutAtADoubledByte", kFix.substr(0, 12) + "\x10\x10"s + kNextFix, kNextLatitude,
                    true, false},
        StreamStory{"NotDoubled",
                    "\x10\x4A"s + "\x3F\x00\x00\x00"s + kQuarter + "\x41\x10\x00\x00"s + kZero +
                        kOne + "\x10\x03",
                    0.5, true, false},
        StreamStory{"UnknownPacketFullOfIdentifiers",
                    Packet("\x8F", "\x4A" + std::string(40, '\x41')) + kFix, 0.5, true, false},
        StreamStory{"UnknownPacketCut", Packet("\x8F", "\x4A").substr(0, 3) + kFix, 0.5, true,
                    false},
        StreamStory{"ImpossibleLatitude", Fix(kHundred, kHalf, kHundred), 0, false, false},
        StreamStory{"LatitudeNotANumber", Fix(kNan, kHalf, kHundred), 0, false, false},
        StreamStory{"AltitudeNotANumber", Fix(kHalf, kHalf, kNan), 0, false, false},
        StreamStory{"TooManySatellites", Packet("\x47", "\x21" + std::string(165, '\x4A')), 0,
                    false, false},
        StreamStory{"MostSatellites", Packet("\x47", "\x20" + std::string(160, '\x4A')), 0, false,
                    true},
        StreamStory{"TrackingCut", kTracking.substr(0, 8) + "\x10\x03", 0, false, true},
        StreamStory{"SelectionCut", kSelection.substr(0, 20) + kFix, 0.5, true, true},
        StreamStory{"LevelsCut", kLevels.substr(0, 8) + "\x10\x03", 0, false, false}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(GpsReportsTake, AcceptsOnlyBytesOfTheProtocol) {
  GpsReports reports;
  EXPECT_EQ(Feed(reports, "$9,\r\n\x7F"), 0);
  EXPECT_EQ(Feed(reports, "\x10\x03\xDC\x03"), 4);
  EXPECT_EQ(Feed(reports, kFix), static_cast<int>(kFix.size()));
}

// ---- Device --------------------------------------------------------------------------------

class GpsOnALine : public DeviceOnALine<GpsDevice> {
 protected:
  std::array<float, 5> PoseOf(int sensor) {
    std::array<float, 5> pose;
    std::copy_n(device_.GetSensorPose(sensor), 5, pose.begin());
    return pose;
  }
};

const Script kAsked = Expect("!&");

class GpsBoot : public GpsOnALine, public testing::WithParamInterface<BootStory> {};

TEST_P(GpsBoot, EndsInItsResult) { EXPECT_EQ(Boot(GetParam().script), GetParam().result); }

INSTANTIATE_TEST_SUITE_P(
    Line, GpsBoot,
    testing::Values(BootStory{"Answered", kAsked + Send(Packet("\x46", "\0\0"s)), kBooted},
                    BootStory{"FrameBytesOnly", kAsked + Send("\x10\x03\x10\x03\x10\x03"), kBooted},
                    BootStory{"CutReportFirst", Send(kFix.substr(5)) + kAsked, kBooted},
                    BootStory{"OneReportASecond", kAsked + Wait(milliseconds(900)) + Send(kFix),
                              kBooted},
                    BootStory{"OtherDevice", kAsked + Send("$%'()*+,-./0123456789:;<=>?@"), 0},
                    BootStory{"NoAnswer", kAsked, 0},
                    BootStory{"PlugPulled", kAsked + HangUp(), 0}),
    [](const auto& row) { return std::string(row.param.name); });

struct FrameStory {
  const char* name;
  unsigned active;  // sensors
  Script script;
  std::vector<unsigned> masks;  // of the frames; 0: a failed one
};

class GpsFrames : public GpsOnALine, public testing::WithParamInterface<FrameStory> {};

TEST_P(GpsFrames, ReportTheUpdatedSensors) {
  ASSERT_EQ(Boot(kAsked + Send("\x10\x03")), kBooted);
  device_.SetSensorMask(GetParam().active, 0);
  ScriptedPeer peer(line_, GetParam().script);
  for (const unsigned mask : GetParam().masks) EXPECT_EQ(device_.ReadFrame(nullptr), mask);
  EXPECT_EQ(peer.Verdict(), "");
}

const Script kLater = Wait(milliseconds(100));

INSTANTIATE_TEST_SUITE_P(
    Line, GpsFrames,
    testing::Values(
        FrameStory{"Position", 1, Send(kFix), {15}},
        FrameStory{
            "PositionInPieces", 1, Send(kFix.substr(0, 9)) + kLater + Send(kFix.substr(9)), {15}},
        FrameStory{"PositionAfterOthers",
                   1,
                   Send(kSelection + kLevels) + kLater + Send(Packet("\x46", "\0\0"s)) + kLater +
                       Send(kFix),
                   {0x1F}},
        FrameStory{"BacklogIsOneFrame", 1, Send(kFix + kNextFix + kFix.substr(0, 9)), {15}},
        FrameStory{"Satellites", 0x38, Send(kSelection), {0x18}},
        FrameStory{"FrameBytesOnly", 1, Send("\x10\x03\x10\x03"), {8}},
        FrameStory{"Noise", 1, Send("$%'()*+"), {0}}, FrameStory{"Silence", 1, {}, {0}},
        FrameStory{"PlugPulled", 1, HangUp(), {0, 0, 0}}),
    [](const auto& row) { return std::string(row.param.name); });

// The packet is published at once, and not after the driver's wait of 1.5 s.
TEST_F(GpsOnALine, DeliversAPacketWithoutNewsAtOnce) {
  ASSERT_EQ(Boot(kAsked + Send(kFix)), kBooted);
  device_.SetSensorMask(9, 0);
  device_.ReadFrame(nullptr);
  line_.Send(Packet("\x46", "\0\0"s));
  const std::int64_t start = ClockTicks();
  EXPECT_EQ(device_.ReadFrame(nullptr), 8U);
  EXPECT_LT(ClockTicks() - start, ClockTicksPerSecond());
}

struct ReceiverStory {
  const char* name;
  std::string sends;  // again and again
  const char* report;
};

class GpsReceiverWithoutPosition : public GpsOnALine,
                                   public testing::WithParamInterface<ReceiverStory> {};

TEST_P(GpsReceiverWithoutPosition, IsExplainedOnce) {
  StatusLog log;
  device_.SetStatusLog(&log);
  ASSERT_EQ(Boot(kAsked + Send(GetParam().sends)), kBooted);
  const auto reports = [&] {
    const auto entries = log.Entries();
    return std::count_if(entries.begin(), entries.end(), [](const StatusEntry& entry) {
      return entry.text.find(GetParam().report) != std::string::npos;
    });
  };
  ASSERT_TRUE(WaitUntil([&] {
    line_.Send(GetParam().sends);
    EXPECT_EQ(device_.ReadFrame(nullptr), GetParam().sends[0] == '$' ? 8U : 0x18U);
    return reports() > 0;
  }));
  line_.Send(GetParam().sends);
  device_.ReadFrame(nullptr);
  EXPECT_EQ(reports(), 1);
  EXPECT_EQ(log.Entries().size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(Line, GpsReceiverWithoutPosition,
                         testing::Values(ReceiverStory{"NoFix", kSelection,
                                                       "GPS TSIP: no fix yet (2 satellites)."},
                                         ReceiverStory{"Nmea", "$GPGGA,,,,,,0,00,,,M,,M,,*66\r\n",
                                                       "It looks like NMEA"}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(GpsRun, WaitsForAFixWithoutStartingTheReceiverAnew) {
  EmulatedRun run("gps", 12, {"--fault=error:8@0s"});
  EXPECT_TRUE(run.tracker().ExpectError("no fix yet (8 satellites)")) << run.tracker().error();
  EXPECT_TRUE(run.tracker().ExpectError("a fix (8 satellites)")) << run.tracker().error();
  EXPECT_GT(run.Watch(3).size(), 1U);
  EXPECT_EQ(run.tracker().error().find("nothing usable"), std::string::npos);
  EXPECT_EQ(run.Stop(), 0);
}

TEST_F(GpsOnALine, DeliversPositionsInEveryUnit) {
  ASSERT_EQ(Boot(kAsked + Send(kFix)), kBooted);
  struct UnitRow {
    int asked;
    int inForce;
    double perMetre;
  };
  for (const UnitRow& row :
       {UnitRow{0, 0, 39.37007874015748}, {1, 1, 100}, {3, 1, 100}, {2, 2, 1}, {-1, 2, 1}}) {
    EXPECT_EQ(device_.SetUnits(row.asked), row.inForce);
    line_.Send(kNextFix);
    double time = -1;
    EXPECT_EQ(AllocationsOf([&] { EXPECT_EQ(device_.ReadFrame(&time), 15U); }), 0);
    const auto unit = [&](double metres) { return static_cast<float>(metres * row.perMetre); };
    const std::array<float, 5> local{unit(static_cast<float>(kStepNorth)), 0, unit(-91), 0, 0};
    EXPECT_EQ(PoseOf(0), local);
    const auto km = static_cast<float>(kNextLatitude * 6371.3);
    EXPECT_EQ(PoseOf(1), (std::array<float, 5>{km, 1594.53425F, unit(9), 0, 0}));
    EXPECT_EQ(PoseOf(2), (std::array<float, 5>{28.647894F, 14.323945F, unit(9), 0, 0}));
    EXPECT_GT(time, 0);
  }
}

TEST_F(GpsOnALine, SatellitesFillTheirSensors) {
  ASSERT_EQ(Boot(kAsked + Send(kSelection)), kBooted);
  device_.SetSensorMask(8, 0);
  line_.Send(kLevels + kTracking);
  EXPECT_EQ(device_.ReadFrame(nullptr), 0x18U);
  EXPECT_EQ(PoseOf(3), (std::array<float, 5>{2, 16, 100, 0.5F, 0.25F}));
  EXPECT_EQ(PoseOf(4), (std::array<float, 5>{2, 5, 1, 0, 0}));
  EXPECT_EQ(PoseOf(5), (std::array<float, 5>{}));

  std::string prns;
  for (char prn = 1; prn <= 14; ++prn) prns += prn;
  line_.Send(Packet("\x6D", "\xE4" + kOne + kOne + kOne + kOne + prns));
  EXPECT_EQ(device_.ReadFrame(nullptr), 0x7FF8U);
  EXPECT_EQ(PoseOf(3), (std::array<float, 5>{14, 1, 0, 0, 0}));
  EXPECT_EQ(PoseOf(14), (std::array<float, 5>{14, 12, 0, 0, 0}));
}

TEST_F(GpsOnALine, KeepsTheOriginUntilItIsMoved) {
  ASSERT_EQ(Boot(kAsked + Send(kFix)), kBooted);
  EXPECT_EQ(device_.Boot(0), kBooted);  // at once, without a request
  EXPECT_EQ(line_.Received(), "");
  device_.ClosePort();
  EXPECT_FALSE(device_.IsBooted());

  ASSERT_EQ(device_.OpenPort(line_.path().c_str(), 115200), 1);
  ASSERT_EQ(Boot(kAsked + Send(kNextFix)), kBooted);
  line_.Send("\x10\x03");
  EXPECT_EQ(device_.ReadFrame(nullptr), 15U);
  EXPECT_FLOAT_EQ(PoseOf(0)[0], static_cast<float>(kStepNorth));

  EXPECT_EQ(device_.SetProtocol(1), 1);
  line_.Send(kNextFix);
  EXPECT_EQ(device_.ReadFrame(nullptr), 15U);
  EXPECT_EQ(PoseOf(0), (std::array<float, 5>{}));
}

}  // namespace
}  // namespace kinetrel::test
