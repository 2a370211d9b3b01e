// The FASTRAK driver against a scripted unit on a real line. Every byte of the protocol is written
// out here.
#include "drivers/fastrak_device.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/drivers/fastrak_unit.h"

namespace kinetrel::test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

// ---- Boot ----------------------------------------------------------------------------------

TEST_F(FastrakTest, BootsAFastrak) {
  ASSERT_EQ(Boot(FastrakBoots("1000")), kBooted);
  EXPECT_STREQ(device_->GetDeviceName(), "FasTRAK");
  EXPECT_EQ(device_->GetSensorCount(), 4);
  EXPECT_EQ(device_->GetFrameRate(), 120);
  EXPECT_EQ(device_->GetProtocol(), 3);
  EXPECT_EQ(device_->GetStatusCode(), 0x201);
  EXPECT_EQ(device_->GetDeviceType(nullptr, 0), 0x2010004);
  EXPECT_EQ(device_->GetSensorMask(), 1U);
  EXPECT_FALSE(device_->GetCrLf());
}

TEST_F(FastrakTest, BootsAnInterSenseWithoutSwitchingItsStations) {
  ASSERT_EQ(
      Boot(kWakes + Expect("S") + Send(kIs600Status) +
           Expect("O1,2,4\rO2,2,4\rO3,2,4\rO4,2,4\rR1\rR2\rR3\rR4\rufcS") + Send(kIs600Status)),
      kBooted);
  EXPECT_STREQ(device_->GetDeviceName(), "InterSense 600");
  EXPECT_EQ(Heard([&] { EXPECT_EQ(device_->SetSensorMask(7, 0), 1U); }), "");
  EXPECT_EQ(Heard([&] { EXPECT_EQ(device_->SetProtocol(1), 0); }), "");  // it has no 14-bit records
  EXPECT_EQ(device_->GetProtocol(), 3);
}

TEST_F(FastrakTest, BootsWithCrLfWhenItWasSetBefore) {
  FastrakDevice device;  // not from the factory: CR LF is on
  device_->ClosePort();
  ASSERT_EQ(device.OpenPort(line_.path().c_str(), kBaud), 1);
  ScriptedPeer unit(line_, kWakes + Expect("S") + Send(kInsidetrakStatus) +
                               Expect("O1, 2, 4,1\rO2, 2, 4,1\rR1\rR2\rl1,1\rl2,0\rl1\r") +
                               Send("21l10\r\n") + Expect("ufcS") + Send(kInsidetrakStatus));
  EXPECT_EQ(device.Boot(0), kBooted);
  EXPECT_EQ(unit.Verdict(), "");
  EXPECT_STREQ(device.GetDeviceName(), "InsideTRAK");
}

TEST_F(FastrakTest, ResetRestartsTheUnitBeforeTheBoot) {
  Script script = kWakes + Expect("\x19S") + Wait(150ms) + Send(kFastrakStatus);
  const Script boots = FastrakBoots("1000");
  script.insert(script.end(), boots.begin() + static_cast<std::ptrdiff_t>(kWakes.size()),
                boots.end());
  EXPECT_EQ(Boot(script, 1), kBooted);
}

// Noise at another rate may be the Ctrl-Y that restarts a unit.
TEST_F(BootedFastrak, ASilentUnitIsNotSearchedAtOtherRates) {
  EXPECT_EQ(Heard([&] { EXPECT_EQ(device_->Boot(0), -3); }), "c\rP");
  EXPECT_EQ(device_->GetBaudRate(), 115200U);
  ASSERT_EQ(Boot(Expect("c\rP") + Wait(1s) + Send(kTextRecord) + FastrakBootsAfterWaking("1000")),
            kBooted);
}

struct Ending {
  const char* name;
  Script script;
  BootResult result;
  const char* printed;
};

class FastrakBootEndings : public FastrakTest, public testing::WithParamInterface<Ending> {};

TEST_P(FastrakBootEndings, ReturnTheirCode) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(Boot(GetParam().script), GetParam().result);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), GetParam().printed);
  EXPECT_FALSE(device_->IsBooted());
  EXPECT_EQ(device_->GetBaudRate(), 115200U);
  EXPECT_EQ(Heard([&] { device_->SendStationCommand("R1\r", 1, 4); }), "");
}

const Script kAsks = kWakes + Expect("S");
const Script kAskedAtOtherRates = Expect("c\rPc\rPc\rPc\rP");
const char* const kFailed = "WaitForRX failed.\n";

Script AsksAndGets(const std::string& status) { return kAsks + Send(status) + kAskedAtOtherRates; }

Script WakesTo(const std::string& answer) {
  return Expect("c\rP") + Send(answer) + kAskedAtOtherRates;
}

INSTANTIATE_TEST_SUITE_P(
    Units, FastrakBootEndings,
    testing::Values(Ending{"Silent", Expect("c\rP") + kAskedAtOtherRates, -3, ""},
                    Ending{"TwoBytes", WakesTo("01"), -10, ""},
                    Ending{"AnotherLanguage", WakesTo("AT: ok"), -10, ""},
                    Ending{"NoStationActive", WakesTo("21l0000\r\n"), -6, ""},
                    Ending{"Unplugged", Expect("c\rP") + HangUp(), -2, ""},
                    Ending{"NoStatus", kAsks + kAskedAtOtherRates, -1, kFailed},
                    Ending{"StatusWithoutEnd", AsksAndGets(std::string(300, '.')), -1, kFailed},
                    Ending{"StatusOfAnother", AsksAndGets("v1.7 ready\r\n"), -6,
                           "Failed. 12 bytes read, reason: 0\nWaitForRX failed.\n"},
                    Ending{"StatusOfASisterFamily", AsksAndGets(Status({{14, "2"}})), -5,
                           "Failed. 55 bytes read, reason: 4\nWaitForRX failed.\n"},
                    Ending{"SisterFamilyBehindNoise", AsksAndGets("x" + Status({{13, "2"}})), -6,
                           "Failed. 56 bytes read, reason: 4\nWaitForRX failed.\n"},
                    Ending{"NoSecondStatus",
                           kAsks + Send(kIsotrak2Status) + Expect("KR1\rO2,4\rl\r") +
                               Send("21l10\r\n") + Expect("ufcS"),
                           -8, ""}),
    [](const auto& row) { return std::string(row.param.name); });

// ---- Status --------------------------------------------------------------------------------

TEST_F(BootedFastrak, ClearsTheErrorsThatItsStatusReports) {
  EXPECT_EQ(Query(Expect("S") + Send(Status({{6, " 65"}, {15, "3.02"}})) + Expect("T65,0\nS") +
                      Send(Status({{6, "120"}, {15, "3.02"}})) + Expect("T120,0\nS") +
                      Send(kFastrakStatus),
                  1),
            kFastrakStatus);
  EXPECT_EQ(Logged(),
            (std::vector<std::string>{"1 0: Cleared bit error 65: X Driver Linearity",
                                      "1 1: Cleared bit error 120: Receiver Out of Motion Box."}));
}

TEST_F(BootedFastrak, GivesUpOnTheSixteenthError) {
  const std::string status = Status({{6, " 84"}, {15, "3.02"}});
  Script script;
  for (int pass = 0; pass < 16; ++pass)
    script = script + Expect("S") + Send(status) + Expect("T84,0\n");
  EXPECT_EQ(Query(script, 1), status);
  const auto logged = Logged();
  ASSERT_EQ(logged.size(), 18U);
  EXPECT_EQ(logged[15], "1 15: Cleared bit error 84: Receiver PROM Error");
  EXPECT_EQ(logged[16], "-16 Maximum number of errors reached.");
  EXPECT_EQ(logged[17], "-16 Status: " + status);
}

TEST_F(BootedFastrak, AMissingStatusKeepsTheModel) {
  EXPECT_EQ(Query(Expect("S"), 0), "WaitForRX failed.\n");
  EXPECT_EQ(Logged(), (std::vector<std::string>{"0 WaitForRX failed"}));
  EXPECT_EQ(device_->GetStatusCode(), 0x201);
}

TEST_F(BootedFastrak, AStatusQueryInterruptsTheStream) {
  device_->StartContinuous();
  EXPECT_EQ(Query(Expect("CcS") + Send(kFastrakStatus) + Expect("C"), 1), kFastrakStatus);
}

// ---- Settings ------------------------------------------------------------------------------

struct SettingRow {
  const char* name;
  std::function<int(TrackerDevice&)> set;
  std::string heard;
  int result;
};

std::string AllStations(const std::string& command) {
  std::string all;
  for (const char station : {'1', '2', '3', '4'}) {
    all += command;
    all[all.size() - command.size() + 1] = station;
  }
  return all;
}

class FastrakSettings : public FastrakTest {
 protected:
  void ExpectSetting(const SettingRow& row) {
    int result = -99;
    EXPECT_EQ(Heard([&] { result = row.set(*device_); }), row.heard) << row.name;
    EXPECT_EQ(result, row.result) << row.name;
  }
};

TEST_F(FastrakSettings, AreTheseCommands) {
  ASSERT_EQ(Boot(FastrakBoots("1000")), kBooted);
  const float x[3] = {1, 0, 0};
  const float y[3] = {0, 0.5F, 0};
  const float far[3] = {300, 0, 0};
  const float huge[3] = {1e38F, 1e38F, 1e38F};
  const float pose[6] = {1, 2, 3, 1.5707964F, 0, 0};
  const SettingRow rows[] = {
      {"Mask5", [](auto& d) { return d.SendStationCommand("l1,1\r", 5, 4); }, "l1,1\rl3,1\r", 5},
      {"AllOfTwo", [](auto& d) { return d.SendStationCommand("R1\r", ~0U, 2); }, "R1\rR2\r", 3},
      {"TooManyStations", [](auto& d) { return d.SendStationCommand("", ~0U, 1000); }, "", 0},
      {"Components", [](auto& d) { return int(d.SetComponentMask(7)); },
       AllStations("O1, 2, 4,11\r") + "O1\r", 1},
      {"CrLf", [](auto& d) { return d.SetCrLf(1); }, AllStations("O1, 2, 4,11,1\r") + "O1\r", 1},
      {"QuaternionWithCrLf", [](auto& d) { return int(d.SetComponentMask(4)); },
       AllStations("O1,11,1\r") + "O1\r", 1},
      {"Bits14WithCrLf", [](auto& d) { return d.SetProtocol(1); },
       AllStations("O1,18,19,1\r") + AllStations("O1,20,1\r") + "O1\r", 1},
      {"NoCrLf", [](auto& d) { return d.SetCrLf(0); }, AllStations("O1,20\r") + "O1\r", 1},
      {"Bits16", [](auto& d) { return d.SetProtocol(2); }, "", 0},
      {"UnknownProtocol", [](auto& d) { return d.SetProtocol(4); }, "", 0},
      {"Bits32", [](auto& d) { return d.SetProtocol(3); },
       AllStations("O1,2,4\r") + AllStations("O1,11\r") + "O1\r", 3},
      {"Inches", [](auto& d) { return d.SetUnits(0); }, "U", 0},
      {"Metres", [](auto& d) { return d.SetUnits(3); }, "u", 3},
      {"Align", [&](auto& d) { return d.SetAlignment(1, x, y); },
       "A2, 0.0000,0.0000,0.0000, 200.0000,0.0000,0.0000, 0.0000,200.0000,0.0000\r", 2},
      {"AlignToPoints", [&](auto& d) { return d.SetAlignment(0, far, y); },
       "A1, 0.0000,0.0000,0.0000, 300.0000,0.0000,0.0000, 0.0000,200.0000,0.0000\r", 1},
      {"AlignTooLong", [&](auto& d) { return d.SetAlignment(0, huge, huge); }, "", 0},
      {"AlignInvalidSensor", [&](auto& d) { return d.SetAlignment(5, x, y); }, "", 0},
      {"AlignByPose", [&](auto& d) { return d.SetAlignmentPose(0, pose); },
       "A1, 1.0000,2.0000,3.0000, -0.0000,200.0000,-0.0000, -200.0000,-0.0000,0.0000\r", 1},
      {"ResetAlignment", [](auto& d) { return d.ResetAlignment(-1); },
       AllStations("A1, 0.0000,0.0000,0.0000, 200.0000,0.0000,0.0000, 0.0000,200.0000,0.0000\r"),
       4},
      {"Synchronization", [](auto& d) { return d.SetSynchronization(2); }, "y2\r", 1},
      {"UnknownSynchronization", [](auto& d) { return d.SetSynchronization(3); }, "", 0},
      {"Hemisphere", [&](auto& d) { return d.SetHemisphere(2, y); }, "H2,0.0,0.5,0.0\r", 1},
      {"Hemispheres", [&](auto& d) { return d.SetHemisphere(-1, x); },
       AllStations("H1,1.0,0.0,0.0\r"), 1},
      {"HemisphereTooLong", [&](auto& d) { return d.SetHemisphere(1, huge); }, "", 0},
      {"Vector4", [](auto& d) { return d.SetSensorVector4(0, 2, 1.5F, 1, 1); }, "", -2},
      {"ControlString", [](auto& d) { return int(d.SetControlString("b1")); }, "b1\r\n", 1},
  };
  for (const SettingRow& row : rows) ExpectSetting(row);
}

TEST_F(BootedFastrak, SwitchesStationsAndTakesTheReport) {
  ScriptedPeer unit(line_, Expect("l1,1\rl2,1\rl3,0\rl4,0\rl1\r") + Send("21l1000\r\n") +
                               Expect("l1,1\rl2,1\rl3,0\rl4,0\rl1\r") + Send("what?"));
  EXPECT_EQ(device_->SetSensorMask(0x33, 0), 1U);
  EXPECT_EQ(device_->SetSensorMask(3, 0), 3U);
  EXPECT_EQ(unit.Verdict(), "");
  EXPECT_EQ(Heard([&] { EXPECT_EQ(device_->SetSensorMask(0xF0, 0), 3U); }), "");
}

// The answer to the poll that ends a stream comes in front of the list of active stations.
TEST_F(BootedFastrak, SwitchesStationsBehindAnAnswerThatIsDue) {
  ScriptedPeer unit(line_, Expect("CcP") + Wait(30ms) + Send(std::string(27, '0')) +
                               Expect("l1,1\rl2,1\rl3,0\rl4,0\rl1\r") + Send("21l1000\r\n"));
  device_->StartContinuous();
  device_->Poll();
  EXPECT_EQ(device_->SetSensorMask(3, 0), 1U);
  EXPECT_EQ(unit.Verdict(), "");
}

TEST_F(FastrakSettings, OfTheIsotrakClass) {
  ASSERT_EQ(Boot(IsotrakBoots(kIsotrak2Status, "21l10\r\n")), kBooted);
  const SettingRow rows[] = {
      {"Protocol3", [](auto& d) { return d.SetProtocol(3); }, "O2,4\rO 2, 4\rO\r", 2},
      {"CrLf", [](auto& d) { return d.SetCrLf(1); }, "O 2, 4,1\rO\r", 1},
      {"Nothing", [](auto& d) { return int(d.SetComponentMask(0)); }, "O1\rO\r", 1},
      {"NothingPlain", [](auto& d) { return d.SetCrLf(0); }, "O\rO\r", 1},
      {"Alignment", [](auto& d) { return d.ResetAlignment(2); },
       "A1, 0.0000,0.0000,0.0000, 200.0000,0.0000,0.0000, 0.0000,200.0000,0.0000\r", 1},
  };
  for (const SettingRow& row : rows) ExpectSetting(row);
  ScriptedPeer unit(line_, Expect("l\r") + Send("21l10\r\n") + Expect("l2\r"));
  EXPECT_EQ(device_->SetSensorMask(3, 0), 3U);
  EXPECT_EQ(unit.Verdict(), "");
}

}  // namespace
}  // namespace kinetrel::test
