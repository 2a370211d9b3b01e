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
  if (!now.portName.empty()) text += ' ' + now.portName;
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

struct Parsed {
  bool accepted;
  std::string said;  // on standard error
  std::string complaint;
  StartConfig config;
  ProgramSettings program;
};

Parsed Parse(std::vector<const char*> arguments, Audience audience = Audience::Console) {
  arguments.insert(arguments.begin(), "kinetrel");
  testing::internal::CaptureStderr();
  testing::internal::CaptureStdout();
  Settings settings;
  std::string complaint;
  const bool accepted = ParseCommandLine(settings, audience, static_cast<int>(arguments.size()),
                                         arguments.data(), complaint);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "\n");
  return {accepted, testing::internal::GetCapturedStderr(), complaint, settings.start,
          settings.program};
}

struct Row {
  std::vector<const char*> arguments;
  const char* said;  // between the line that announces the arguments and the usage text
  const char* changes;
};

void Check(const std::vector<Row>& rows, bool accepted) {
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.arguments));
    const Parsed outcome = Parse(row.arguments);
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
    {{"-p", "usb:1-2.3"}, "\n\tDevice port set to USB, unit usb:1-2.3.", " port=257 usb:1-2.3"},
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
    {{"-d", "14"},
     "\n\tDevice type (14) is invalid.\n\t\tThe device type stays 2 (fastrak). kinetrel --help "
     "lists the types.",
     ""},
    {{"-d99999999999999999999"},
     "\n\tDevice type (2147483647) is invalid.\n\t\tThe device type stays 2 (fastrak). kinetrel "
     "--help lists the types.",
     ""},
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
};

const std::vector<Row> kLong = {
    {{"--device", "fastrak", "--device=10"},
     "\n\tDevice type set to 2.\n\tDevice type set to 10.",
     " type=10"},
    {{"--port", "/dev/ttyUSB0"}, "\n\tDevice port set to /dev/ttyUSB0.", " port=273 /dev/ttyUSB0"},
    {{"--port=COM2"}, "\n\tDevice port set to COM2.", " port=2"},
    {{"--port=COM20"}, "\n\tDevice port set to COM20.", " port=273 COM20"},
    {{"--port", "usb"}, "\n\tDevice port set to USB.", " port=257"},
    {{"--port=0x300"}, "\n\tDevice port address set to 0x300.", " port=768"},
    {{"--sensors", "1-3,8"}, "\n\tSensor mask set to 0x87.", " sensors=135"},
    {{"--sensors=3"}, "\n\tSensor mask set to 0x4.", " sensors=4"},
    {{"--sensors=0x3"}, "\n\tSensor mask set to 0x3.", " sensors=3"},
    {{"--units", "m"}, "\n\tUnits type set to METER.", " units=3"},
    {{"--units", "2"}, "\n\tUnits type set to METER.", " units=3"},
    {{"--components", "angles,quaternion"},
     "\n\tComponents set to -- | EULER | QUAT.",
     " components=6"},
    {{"--sync", "crt"}, "\n\tSynchronization set to CRT.", " sync=2"},
    {{"--slot", "16"}, "\n\tTracking data to be written to shared memory slot 16.", " slot=15"},
    {{"--joystick", "1"}, "\n\tJoystick enabled on port 1.", " joystick=1"},
    {{"--query", "--no-streaming", "--roll"},
     "\n\tInstrument will be queried and reported.\n\tDevice will be polled."
     "\n\tAll Sensors are rolled.",
     " roll=1 streaming=0 query=1"},
    {{"--no-roll"}, "\n\tAll Sensors are NOT rolled.", ""},
    {{"--offset", "-5,0,.5;90,0,0"},
     "\n\tTransmitter origin offset to <-5.000,0.000,0.500>."
     "\n\tTransmitter orientation offset to <90.000,0.000,0.000>.",
     " offset0=-5 offset2=0.5 offset3=1.570796371"},
    {{"--hemisphere", "0,0,-1"},
     "\n\tHemisphere zenith vectored to <0.0,0.0,-1.0>.",
     " hemisphere0=0 hemisphere2=-1"},
    {{"--align", "1,0,0;0,1,0"},
     "\n\tReference frame aligned to <1.000,0.000,0.000;0.000,1.000,0.000>.",
     " x0=1 y1=1"},
};

TEST(CommandLine, OptionsArePrintedAndStored) { Check(kAccepted, true); }
TEST(CommandLine, OutOfRangeValuesAreReportedAndIgnored) { Check(kNoted, true); }
TEST(CommandLine, MalformedOptionsPrintTheUsage) { Check(kRejected, false); }
TEST(CommandLine, LongOptionsSayTheSameAsLetters) { Check(kLong, true); }

TEST(CommandLine, AWrongArgumentIsNamedWithWhatWasExpected) {
  struct Wrong {
    std::vector<const char*> arguments;
    const char* complaint;
  };
  const Wrong rows[] = {
      {{"-d", "fastrak"},
       "-d wants a number from 0 to 13, not \"fastrak\". "
       "--device wants a device name such as fastrak, or its number."},
      {{"-p", "/dev/ttyUSB0"},
       "-p wants a COM number, U, or a USB unit such as usb:1-2.3; \"/dev/ttyUSB0\" is taken for "
       "another option. --port wants a COM number, a path such as /dev/ttyUSB0, usb, or a unit "
       "such "
       "as usb:1-2.3."},
      {{"-h", "1,2"}, "-h wants three numbers such as 0,0,1, not \"1,2\"."},
      {{"-x"}, "\"-x\" is not an option."},
      {{"COM2"}, "\"COM2\" is not an option: options begin with - or --."},
      {{"--devise", "8"}, "--devise is not an option; the nearest one is --device."},
      {{"--dev"}, "--dev is not an option; the nearest one is --device."},
      {{"--zebra"}, "--zebra is not an option."},
      {{"--no-device"}, "--no-device is not an option; the nearest one is --device."},
      {{"--no-help"}, "--no-help is not an option."},
      {{"--"}, "-- is not an option."},
      {{"--listen", ":99"}, "--listen is not an option."},
      {{"--query=1"}, "--query takes no value."},
      {{"--slot"}, "--slot wants a number from 1 to 16."},
      {{"--slot", "17"}, "--slot wants a number from 1 to 16, not \"17\"."},
      {{"--units="}, "--units wants inch, cm or m, not \"\"."},
      {{"--device", "polhemus"},
       "--device wants a device name such as fastrak, or its number, not \"polhemus\"."},
      {{"--filter", "gate:calm=1"},
       "--filter: Filter gate:calm=1: gate has no parameter \"calm\". It has max-speed-mps "
       "max-acceleration-mps2 max-turn-speed-dps patience-s instead."},
      {{"--filter=@/nowhere"}, "--filter: Filter @/nowhere: it cannot be read"},
  };
  for (const Wrong& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.arguments));
    const Parsed outcome = Parse(row.arguments);
    EXPECT_FALSE(outcome.accepted);
    EXPECT_EQ(outcome.complaint, row.complaint);
    EXPECT_NE(outcome.said.find("\n\t" + outcome.complaint + "\n\t"), std::string::npos);
    EXPECT_EQ(ChangesIn(outcome.config), "");
  }
  const char* const ill[] = {
      "--device=5",        "--device=",
      "--port=ttyUSB0",    "--port=17",
      "--port=~x/y",       "--port=COM0",
      "--port=usb:1",      "--port=-1",
      "--sensors=0",       "--sensors=33",
      "--sensors=4-2",     "--sensors=1,,2",
      "--sensors=0xG",     "--units=feet",
      "--units=3",         "--components=16",
      "--components=pose", "--sync=3",
      "--joystick=16",     "--offset=1,2",
      "--offset=1,2,3,",   "--offset=1,2,3,4",
      "--offset=a,b,c",    "--offset=nan,0,0",
      "--align=1,0,0",     "--hemisphere=1e99,0,0",
      "--slot=+3",         "--slot=3x",
  };
  for (const char* const argument : ill) EXPECT_FALSE(Parse({argument}).accepted) << argument;
}

TEST(CommandLine, OnlyTheServiceListens) {
  const Parsed outcome = Parse({"--listen", "127.0.0.2:7", "-d8"}, Audience::Service);
  EXPECT_TRUE(outcome.accepted) << outcome.complaint;
  EXPECT_EQ(outcome.program.listen, "127.0.0.2:7");
  EXPECT_EQ(outcome.config.deviceType, 8);
  EXPECT_FALSE(Parse({"--listen", "127.0.0.1:x"}, Audience::Service).accepted);
  EXPECT_FALSE(Parse({"--help"}, Audience::Host).accepted);
}

TEST(CommandLine, NinetyNineArgumentsAreTooMany) {
  EXPECT_TRUE(Parse(std::vector<const char*>(97, "-q-")).accepted);
  EXPECT_FALSE(Parse(std::vector<const char*>(98, "-q-")).accepted);
}

TEST(CommandLine, NoArgumentsAreAccepted) {
  const Parsed outcome = Parse({});
  EXPECT_TRUE(outcome.accepted);
  EXPECT_EQ(outcome.said, "");
  EXPECT_EQ(outcome.config.deviceType, 2);
  EXPECT_EQ(outcome.config.port, 1);
}

TEST(CommandLine, FiltersAreTriedAndKeptInTheirOrder) {
  const Parsed outcome = Parse({"--filter", "gate:sensors=2", "-d8", "--filter=rigid:scale=2"});
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
