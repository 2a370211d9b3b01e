#include "app/command_line.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "engine/tracker_engine.h"

namespace kinetrel::test {
namespace {

struct Row {
  const char* name;
  std::vector<const char*> arguments;
  bool accepted;
  const char* said;  // on standard error, after the line that announces the arguments
  std::function<bool(const StartConfig&)> holds;
};

// By value, so that the table below reads as a table.
std::function<bool(const StartConfig&)> Untouched() {
  return [](const StartConfig& c) {
    return c.deviceType == 2 && c.port == 1 && c.sensorMask == 1 && c.componentMask == 3 &&
           c.units == 1 && c.sync == 0 && c.rollAll == 0 && c.streaming == 1 && c.query == 0 &&
           c.shmDevice == -1 && c.joystickPort == 0 && !c.Aligned() &&
           c.transmitterOffset == std::array<float, 6>{} &&
           c.hemisphere == std::array<float, 3>{1, 0, 0};
  };
}

class CommandLine : public testing::TestWithParam<Row> {};

TEST_P(CommandLine, IsEchoedAndStored) {
  const Row& row = GetParam();
  std::vector<const char*> arguments = {"kinetrel"};
  arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
  TrackerEngine engine;

  testing::internal::CaptureStderr();
  testing::internal::CaptureStdout();
  const bool accepted =
      ParseCommandLine(engine, static_cast<int>(arguments.size()), arguments.data());
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "\n");

  EXPECT_EQ(accepted, row.accepted);
  const std::string opening = "\nProcessing command line arguments ...";
  const std::string usage = said.substr(std::min(said.size(), said.find("\n\nUSAGE: kinetrel ")));
  EXPECT_EQ(said.substr(0, said.size() - usage.size()), opening + row.said);
  EXPECT_EQ(usage.empty(), row.accepted);
  EXPECT_TRUE(row.holds(engine.Configuration()));
}

INSTANTIATE_TEST_SUITE_P(
    App, CommandLine,
    testing::Values(
        Row{"TypeGlued",
            {"-d8"},
            true,
            "\n\tDevice type set to 8.",
            [](const StartConfig& c) { return c.deviceType == 8; }},
        Row{"TypeApartUpperCaseSlash",
            {"/D", "13"},
            true,
            "\n\tDevice type set to 13.",
            [](const StartConfig& c) { return c.deviceType == 13; }},
        Row{"TypeTooHigh", {"-d", "14"}, true, "\n\tDevice type (14) is invalid.", Untouched()},
        Row{"TypeBeyondAnyNumber",
            {"-d99999999999999999999"},
            true,
            "\n\tDevice type (2147483647) is invalid.",
            Untouched()},
        Row{"TypeMissing", {"-d"}, false, "", Untouched()},
        Row{"TypeFollowedByOption", {"-d", "-z-"}, false, "", Untouched()},
        Row{"PlainWord", {"COM2"}, false, "", Untouched()},
        Row{"EmptyArgument", {""}, false, "", Untouched()},
        Row{"LoneDash", {"-"}, false, "", Untouched()},
        Row{"UnknownLetter", {"-x1"}, false, "", Untouched()},
        Row{"NothingAfterTheBadOne",
            {"-u0", "-y", "-d8"},
            false,
            "\n\tUnits type set to INCH.",
            [](const StartConfig& c) { return c.units == 0 && c.deviceType == 2; }},
        Row{"PortCom",
            {"-p", "2"},
            true,
            "\n\tDevice port set to COM2.",
            [](const StartConfig& c) { return c.port == 2; }},
        Row{"PortAddress",
            {"-p", "768"},
            true,
            "\n\tDevice port address set to 0x300.",
            [](const StartConfig& c) { return c.port == 768; }},
        Row{"PortUsb",
            {"-pu"},
            true,
            "\n\tDevice port set to USB.",
            [](const StartConfig& c) { return c.port == 257; }},
        Row{"PortWord", {"-p", "COM2"}, false, "", Untouched()},
        Row{"SensorsHexadecimal",
            {"-s", "0x0F"},
            true,
            "\n\tSensor mask set to 0xf.",
            [](const StartConfig& c) { return c.sensorMask == 15; }},
        Row{"SensorsOctal",
            {"-s017"},
            true,
            "\n\tSensor mask set to 0xf.",
            [](const StartConfig& c) { return c.sensorMask == 15; }},
        Row{"SensorsTooMany",
            {"-s0xFFFFFFFFFFFFFFFFFF"},
            true,
            "\n\tSensor mask set to 0xffffffff.",
            [](const StartConfig& c) { return c.sensorMask == 0xFFFFFFFF; }},
        Row{"SensorsWithoutDigit", {"-s", "F"}, false, "", Untouched()},
        Row{"Components",
            {"-c", "5"},
            true,
            "\n\tComponents set to CART | -- | QUAT.",
            [](const StartConfig& c) { return c.componentMask == 5; }},
        Row{"ComponentsBeyond",
            {"-c18"},
            true,
            "\n\tComponents set to -- | EULER | --.",
            [](const StartConfig& c) { return c.componentMask == 2; }},
        Row{"UnitsMetres",
            {"-u2"},
            true,
            "\n\tUnits type set to METER.",
            [](const StartConfig& c) { return c.units == 3; }},
        Row{"UnitsMasked",
            {"-u6"},
            true,
            "\n\tUnits type set to METER.",
            [](const StartConfig& c) { return c.units == 3; }},
        Row{"Sync",
            {"-k2"},
            true,
            "\n\tSynchronization set to CRT.",
            [](const StartConfig& c) { return c.sync == 2; }},
        Row{"SyncUnknown",
            {"-k3"},
            true,
            "\n\tGiven sync type (3) is not recognized.",
            Untouched()},
        Row{"RollZero", {"-r", "0"}, true, "\n\tAll Sensors are rolled.", Untouched()},
        Row{"RollTwo", {"-r2"}, false, "\n\tRoll must be 1 or 0.", Untouched()},
        Row{"SwitchesWithoutValue",
            {"-q", "-z"},
            true,
            "\n\tInstrument will be queried and reported.\n\tDevice will be streaming.",
            [](const StartConfig& c) { return c.query == 1 && c.streaming == 1; }},
        Row{"SwitchesOff",
            {"-q-", "-z-"},
            true,
            "\n\tInstrument will NOT be queried and reported.\n\tDevice will be polled.",
            [](const StartConfig& c) { return c.query == 0 && c.streaming == 0; }},
        Row{"Slot",
            {"-w", "16"},
            true,
            "\n\tTracking data to be written to shared memory slot 16.",
            [](const StartConfig& c) { return c.shmDevice == 15; }},
        Row{"SlotOutOfRange",
            {"-w17"},
            true,
            "\n\tSpecified shared memory slot(17) is out of range(1:16).",
            Untouched()},
        Row{"Joystick",
            {"-j", "1"},
            true,
            "\n\tJoystick enabled on port 1.",
            [](const StartConfig& c) { return c.joystickPort == 1; }},
        Row{"JoystickMaskedToNone", {"-j16"}, true, "\n\tJoystick disabled.", Untouched()},
        Row{"OffsetOrigin",
            {"-o-5,0,.5"},
            true,
            "\n\tTransmitter origin offset to <-5.000,0.000,0.500>.",
            [](const StartConfig& c) {
              return c.transmitterOffset == std::array<float, 6>{-5, 0, 0.5F, 0, 0, 0};
            }},
        Row{"OffsetWhole",
            {"-o", "1,2,3;90,0,-45"},
            true,
            "\n\tTransmitter origin offset to <1.000,2.000,3.000>."
            "\n\tTransmitter orientation offset to <90.000,0.000,-45.000>.",
            [](const StartConfig& c) { return c.transmitterOffset[3] == 1.57079632679F; }},
        Row{"OffsetFour",
            {"-o1,2,3;4"},
            true,
            "\n\tTransmitter origin offset to <1.000,2.000,3.000>.",
            [](const StartConfig& c) { return c.transmitterOffset[3] == 0; }},
        Row{"OffsetTwo", {"-o1,2"}, false, "\n\tOffsets (1,2) ill-formed.", Untouched()},
        Row{"OffsetInfinite",
            {"-o1,inf,3"},
            false,
            "\n\tOffsets (1,inf,3) ill-formed.",
            Untouched()},
        Row{"Hemisphere",
            {"-h", "0,0,1"},
            true,
            "\n\tHemisphere zenith vectored to <0.0,0.0,1.0>.",
            [](const StartConfig& c) {
              return c.hemisphere == std::array<float, 3>{0, 0, 1};
            }},
        Row{"HemisphereWord",
            {"-hup"},
            false,
            "\n\tHemisphere zenith vector (up) ill-formed.",
            Untouched()},
        Row{"Alignment",
            {"-a", "1,0,0;0,1,0"},
            true,
            "\n\tReference frame aligned to <1.000,0.000,0.000;0.000,1.000,0.000>.",
            [](const StartConfig& c) { return c.Aligned() && c.alignY[1] == 1; }},
        Row{"AlignmentFive",
            {"-a1,0,0;0,1"},
            false,
            "\n\tOffsets (1,0,0;0,1) ill-formed.",
            Untouched()},
        Row{"ConfigurationFile",
            {"-i", "lab.cfg"},
            true,
            "\n\tInitial configuration to be read from lab.cfg"
            "\nDon't know how to read Configuration file \"lab.cfg\".",
            Untouched()},
        Row{"TooManyArguments", std::vector<const char*>(98, "-q-"), false,
            []() -> const char* {
              static const std::string all = [] {
                std::string text;
                for (int i = 0; i < 98; ++i) {
                  text += "\n\tInstrument will NOT be queried and reported.";
                }
                return text;
              }();
              return all.c_str();
            }(),
            Untouched()}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(CommandLineUsage, ShowsTheSettingsInForce) {
  TrackerEngine engine;
  const char* const arguments[] = {"tracker", "-k1", "-q+", "-z-", "-?"};
  testing::internal::CaptureStderr();
  EXPECT_FALSE(ParseCommandLine(engine, 5, arguments));
  const std::string said = testing::internal::GetCapturedStderr();
  for (const char* const line :
       {"\n\nUSAGE: tracker [-flag <param>] ...",
        "\n\t-k (SYNCTYP) \tSychronization 0=int, 1=ext, 2=crt: <External>",
        "\n\t-q {+/-}     \tQuery and report instrument status: <QUERY>",
        "\n\t-z {+/-}     \tStreaming(+) vs. polled(-): <polled>"}) {
    EXPECT_NE(said.find(line), std::string::npos) << line;
  }
}

TEST(CommandLineUsage, NoArgumentsAreNoMistake) {
  TrackerEngine engine;
  const char* const arguments[] = {"kinetrel"};
  testing::internal::CaptureStderr();
  EXPECT_TRUE(ParseCommandLine(engine, 1, arguments));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
}  // namespace kinetrel::test
