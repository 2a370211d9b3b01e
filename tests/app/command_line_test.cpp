#include "app/command_line.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "engine/tracker_engine.h"

namespace kinetrel::test {
namespace {

// The settings that differ from the default configuration, as " name=value".
std::string ChangesIn(const StartConfig& now) {
  const StartConfig before;
  std::string text;
  const auto note = [&text](const std::string& name, double was, double is) {
    char value[32];
    std::snprintf(value, sizeof value, "=%.10g", is);
    if (is != was) text += ' ' + name + value;
  };
  const auto noteEach = [&note](const std::string& name, const auto& was, const auto& is) {
    for (std::size_t i = 0; i < is.size(); ++i) note(name + std::to_string(i), was[i], is[i]);
  };
  note("slot", before.shmDevice, now.shmDevice);
  note("type", before.deviceType, now.deviceType);
  note("port", before.port, now.port);
  note("joystick", before.joystickPort, now.joystickPort);
  note("sensors", before.sensorMask, now.sensorMask);
  note("components", before.componentMask, now.componentMask);
  note("units", before.units, now.units);
  note("sync", before.sync, now.sync);
  note("roll", before.rollAll, now.rollAll);
  note("streaming", before.streaming, now.streaming);
  note("query", before.query, now.query);
  noteEach("offset", before.transmitterOffset, now.transmitterOffset);
  noteEach("hemisphere", before.hemisphere, now.hemisphere);
  noteEach("x", before.alignX, now.alignX);
  noteEach("y", before.alignY, now.alignY);
  return text;
}

struct Outcome {
  bool accepted;
  std::string said;  // on standard error
  StartConfig config;
};

Outcome Parse(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "kinetrel");
  testing::internal::CaptureStderr();
  testing::internal::CaptureStdout();
  StartConfig config;
  const bool accepted =
      ParseCommandLine(config, static_cast<int>(arguments.size()), arguments.data());
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "\n");
  return {accepted, testing::internal::GetCapturedStderr(), config};
}

struct Row {
  std::vector<const char*> arguments;
  const char* said;  // between the line that announces the arguments and the usage text
  const char* changes;
};

void Check(const std::vector<Row>& rows, bool accepted) {
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.arguments));
    const Outcome outcome = Parse(row.arguments);
    EXPECT_EQ(outcome.accepted, accepted);
    const std::size_t usage = outcome.said.find("\n\nUSAGE: kinetrel ");
    EXPECT_EQ(usage == std::string::npos, accepted);
    EXPECT_EQ(outcome.said.substr(0, usage),
              std::string("\nProcessing command line arguments ...") + row.said);
    EXPECT_EQ(ChangesIn(outcome.config), row.changes);
  }
}

const std::vector<Row> kAccepted = {
    {{"-d8"}, "\n\tDevice type set to 8.", " type=8"},
    {{"/D", "13"}, "\n\tDevice type set to 13.", " type=13"},
    {{"-p", "2"}, "\n\tDevice port set to COM2.", " port=2"},
    {{"-p", "768"}, "\n\tDevice port address set to 0x300.", " port=768"},
    {{"-pu"}, "\n\tDevice port set to USB.", " port=257"},
    {{"-p", "usb:1-2.3"}, "\n\tDevice port set to USB, unit usb:1-2.3.", " port=257"},
    {{"-s", "0x0F"}, "\n\tSensor mask set to 0xf.", " sensors=15"},
    {{"-s017"}, "\n\tSensor mask set to 0xf.", " sensors=15"},
    {{"-s0xFFFFFFFFFFFFFFFFFF"}, "\n\tSensor mask set to 0xffffffff.", " sensors=4294967295"},
    {{"-c", "5"}, "\n\tComponents set to CART | -- | QUAT.", " components=5"},
    {{"-c18"}, "\n\tComponents set to -- | EULER | --.", " components=2"},
    {{"-u2"}, "\n\tUnits type set to METER.", " units=3"},
    {{"-u6"}, "\n\tUnits type set to METER.", " units=3"},
    {{"-k2"}, "\n\tSynchronization set to CRT.", " sync=2"},
    {{"-r", "0"}, "\n\tAll Sensors are rolled.", ""},
    {{"-r1"}, "\n\tAll Sensors are rolled.", " roll=1"},
    {{"-q", "-z"},
     "\n\tInstrument will be queried and reported.\n\tDevice will be streaming.",
     " query=1"},
    {{"-q-", "-z-"},
     "\n\tInstrument will NOT be queried and reported.\n\tDevice will be polled.",
     " streaming=0"},
    {{"-w", "16"}, "\n\tTracking data to be written to shared memory slot 16.", " slot=15"},
    {{"-j", "1"}, "\n\tJoystick enabled on port 1.", " joystick=1"},
    {{"-j16"}, "\n\tJoystick disabled.", ""},
    {{"-o-5,0,.5"},
     "\n\tTransmitter origin offset to <-5.000,0.000,0.500>.",
     " offset0=-5 offset2=0.5"},
    {{"-o", "1,2,3;90,0,-45"},
     "\n\tTransmitter origin offset to <1.000,2.000,3.000>."
     "\n\tTransmitter orientation offset to <90.000,0.000,-45.000>.",
     " offset0=1 offset1=2 offset2=3 offset3=1.570796371 offset5=-0.7853981853"},
    {{"-o1,2,3;4"},
     "\n\tTransmitter origin offset to <1.000,2.000,3.000>.",
     " offset0=1 offset1=2 offset2=3"},
    {{"-h", "0,0,1"},
     "\n\tHemisphere zenith vectored to <0.0,0.0,1.0>.",
     " hemisphere0=0 hemisphere2=1"},
    {{"-a", "1,0,0;0,1,0"},
     "\n\tReference frame aligned to <1.000,0.000,0.000;0.000,1.000,0.000>.",
     " x0=1 y1=1"},
    {{"-i", "lab.cfg"},
     "\n\tInitial configuration to be read from lab.cfg"
     "\nDon't know how to read Configuration file \"lab.cfg\".",
     ""},
};

const std::vector<Row> kNoted = {
    {{"-d", "14"}, "\n\tDevice type (14) is invalid.", ""},
    {{"-d99999999999999999999"}, "\n\tDevice type (2147483647) is invalid.", ""},
    {{"-k3"}, "\n\tGiven sync type (3) is not recognized.", ""},
    {{"-w17"}, "\n\tSpecified shared memory slot(17) is out of range(1:16).", ""},
    {{"-w0"}, "\n\tSpecified shared memory slot(0) is out of range(1:16).", ""},
};

const std::vector<Row> kRejected = {
    {{"-d"}, "", ""},
    {{"-d", "-z-"}, "", ""},
    {{"COM2"}, "", ""},
    {{""}, "", ""},
    {{"-"}, "", ""},
    {{"-x1"}, "", ""},
    {{"-u0", "-y", "-d8"}, "\n\tUnits type set to INCH.", " units=0"},
    {{"-p", "COM2"}, "", ""},
    {{"-p", "usb:1"}, "\n\tUSB unit (usb:1) ill-formed: usb:BUS-PORT, such as usb:1-2.3.", ""},
    {{"-p", "usb:1-2."},
     "\n\tUSB unit (usb:1-2.) ill-formed: usb:BUS-PORT, such as usb:1-2.3.",
     ""},
    {{"-s", "F"}, "", ""},
    {{"-r2"}, "\n\tRoll must be 1 or 0.", ""},
    {{"-o1,2"}, "\n\tOffsets (1,2) ill-formed.", ""},
    {{"-o1,inf,3"}, "\n\tOffsets (1,inf,3) ill-formed.", ""},
    {{"-hup"}, "\n\tHemisphere zenith vector (up) ill-formed.", ""},
    {{"-a1,0,0;0,1"}, "\n\tOffsets (1,0,0;0,1) ill-formed.", ""},
    {{"--filter", "gate:calm=1"},
     "\n\tFilter gate:calm=1: gate has no parameter \"calm\". It has max-speed-mps "
     "max-acceleration-mps2 max-turn-speed-dps patience-s instead.",
     ""},
    {{"--filter=@/nowhere"}, "\n\tFilter @/nowhere: it cannot be read", ""},
    {{"--filters=gate"}, "", ""},
};

TEST(CommandLine, OptionsArePrintedAndStored) { Check(kAccepted, true); }
TEST(CommandLine, OutOfRangeValuesAreReportedAndIgnored) { Check(kNoted, true); }
TEST(CommandLine, MalformedOptionsPrintTheUsage) { Check(kRejected, false); }

TEST(CommandLine, NinetyNineArgumentsAreTooMany) {
  EXPECT_TRUE(Parse(std::vector<const char*>(97, "-q-")).accepted);
  EXPECT_FALSE(Parse(std::vector<const char*>(98, "-q-")).accepted);
}

TEST(CommandLine, NoArgumentsAreAccepted) {
  const Outcome outcome = Parse({});
  EXPECT_TRUE(outcome.accepted);
  EXPECT_EQ(outcome.said, "");
  EXPECT_EQ(outcome.config.deviceType, 2);
  EXPECT_EQ(outcome.config.port, 1);
}

TEST(CommandLine, FiltersAreTriedAndKeptInTheirOrder) {
  const Outcome outcome = Parse({"--filter", "gate:sensors=2", "-d8", "--filter=rigid:scale=2"});
  EXPECT_TRUE(outcome.accepted) << outcome.said;
  EXPECT_EQ(outcome.config.deviceType, 8);
  ASSERT_EQ(outcome.config.filters.size(), 2U);
  EXPECT_EQ(outcome.config.filters[0].text, "gate");
  EXPECT_EQ(outcome.config.filters[0].sensors, 2U);
  EXPECT_EQ(outcome.config.filters[1].text, "rigid:scale=2");
}

TEST(CommandLine, TheUsageShowsTheSettingsInForce) {
  const std::string said = Parse({"-k1", "-q+", "-z-", "-?"}).said;
  for (const char* const line :
       {"\n\t-k (SYNCTYP) \tSychronization 0=int, 1=ext, 2=crt: <External>",
        "\n\t-q {+/-}     \tQuery and report instrument status: <QUERY>",
        "\n\t-z {+/-}     \tStreaming(+) vs. polled(-): <polled>"}) {
    EXPECT_NE(said.find(line), std::string::npos) << line;
  }
}

}  // namespace
}  // namespace kinetrel::test
