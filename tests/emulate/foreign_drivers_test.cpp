// What other people's drivers send to these devices, and what must come back: the bytes of their
// sessions, played on a real line with the pauses cut.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/emulate/emulated_line.h"

namespace kinetrel::test {
namespace {

using namespace std::string_literals;

constexpr char kAny = '\xEE';  // in an answer: whatever byte comes

struct Step {
  std::string sent;
  std::string answer;  // all that comes; empty: the device keeps silent
};

struct Session {
  const char* name;
  std::vector<std::string> device;
  std::vector<Step> steps;
};

std::string Hex(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes) {
    char two[8];
    std::snprintf(two, sizeof two, "%02X ", static_cast<unsigned>(byte) & 0xFF);
    text += two;
  }
  return text;
}

// The bytes that may be anything are taken from what came.
std::string Expected(std::string pattern, const std::string& came) {
  for (std::size_t i = 0; i < std::min(pattern.size(), came.size()); ++i) {
    if (pattern[i] == kAny) pattern[i] = came[i];
  }
  return pattern;
}

std::string Times(int count, const std::string& text) {
  std::string all;
  for (int i = 0; i < count; ++i) all += text;
  return all;
}

// ---- The sessions -------------------------------------------------------------------------------

// 10, -5 and 2 inches, level.
const std::string kHold = "--motion=hold:25.4,-12.7,5.08";
const std::string kInches = "\0\0\x20\x41\0\0\xA0\xC0\0\0\0\x40"s;
const std::string kLevel = "\0\0\x80\x3F\0\0\0\0\0\0\0\0\0\0\0\0"s;
const std::string kStatus = "21S"s + std::string(50, kAny) + "\r\n";

// x 9, y -18, z 3.6 inches and the quaternion (.5 .5 -.5 .5) in the bird's own frame.
const std::string kBirdHold = "--motion=hold:22.86,45.72,-9.144,-90,90,0";
const std::string kBirdPlace = "\x80\x10\0\x60\x33\x06"s;
const std::string kBirdAngles = "\0\x20\0\x60\0\0"s;
const std::string kBirdQuaternion = "\0\x20\0\x20\0\x60\0\x20"s;
const std::string kBird = kBirdPlace + kBirdQuaternion;

const std::string kLiberty = "\x21\0"s + kInches + kLevel + "\xEE\xEE\0\0 "s;

std::vector<Session> Sessions() {
  return {
      {"FastrakWithStylus",
       {"fastrak", "--receivers", "2", "--reset-time=0.05", kHold},
       {{"c", ""},
        {"\r\x19\x19tYcS", kStatus},
        {"O1,2,11,16,0\rO2,2,11,0\r", ""},
        {"e1,0\r", ""},
        {"x0.2,0.2,0.8,0.8\rv0.2,0.2,0.8,0.8\r", ""},
        {"x\r", "2 x  0.200  0.200  0.800  0.800\r\n"},
        {"fC", Times(3, "01 " + kInches + kLevel + " 0 02 " + kInches + kLevel + " ")}}},
      {"FastrakWithCalibration",
       {"fastrak", "--receivers", "1", kHold},
       {{"l1\r\nR1\r\nb1\r\nH1,1,0,0\r\nO1,2,4,16,1\r\nN1,0,0,1\r\ne1,0\r\nF", "21l1000\r\n"},
        {"N1,\r\n", "21N  0.000  0.000  1.000\r\n"},
        {"G1,0,0,0\rG1\r", "21G   0.00   0.00   0.00\r\n"},
        {"N1,0,0,0\r\ndDP", "01   10.00  -5.00   2.00   0.00   0.00   0.00 0\r\n"}}},
      {"InterSense",
       {"fastrak", "--model=is600", "--receivers=1", kHold},
       {{"MCc\rMCM1,1,0,0,0,0,0,1,5\rMCF2.5\rMCe\rMT\rMZ\r", ""},
        {"MS\rMs1\r", "31S000\r\n31s000\r\n"},
        {"O1,2,11,21,22,23,0\r", ""},
        {"fC", Times(2, "01 " + kInches + kLevel + "\xEE\xEE\xEE\xEE\0\x7F\x7F "s)}}},
      {"FlockInGroupMode",
       {"flock", "--birds=2", "--range=36", kBirdHold},
       {{"B", kBirdPlace + kBirdAngles},
        {"P2\x02", ""},
        {"P\x23\x01\xF1]\xF2]\xF1L\0\0\xF2L\0\0O$"s, "\xE0\xE0"s + std::string(12, '\0')},
        {"O\x02O\x06", "\x28\0\x0C\x0D"s},
        {"O\0"s, "\x10\xD0"},
        {"B", kBird + "\x01" + kBird + "\x02"},
        {"@", Times(2, kBird + "\x01" + kBird + "\x02")}}},
      {"FlockWithFrames",
       {"flock", "--birds=2", "--range=36", kBirdHold},
       {{"/O\x13", "\0"s},
        {"P#\0P2\x02]"s, ""},
        {"L\x0C\0P\x03\0\0q123456r123456P\x11\x01"s + "0\x01" + "O\x0A", "\0"s},
        {"H123456789012J123456789012M\0A\x01P\x08\x01P\x05"s + "12345678901234QRST?FO\x0A", "\0"s},
        {"NO\x10", "\0\0\0"s},
        {"\\B", "\x80\x20\0\x20\0\x60\0\x20"s},
        {"VB", kBirdPlace},
        {"YP#\x01\xF2@", kBirdPlace + kBirdAngles + "\x01"}}},
      {"Liberty",
       {"liberty", kHold},
       {{"\r", "Invalid Command\r\n"},
        {"F0\rP", "01    10.000   -5.000    2.000    0.000    0.000    0.000\r\n"},
        {"\x16\r",
         "00v  Polhemus LIBERTY HST emulator, unit 1\r\n16 Stations\r\n\r\n"
         "Boot Loader Version: 1.00\r\nSystem Controller Version: 1.00\r\n"
         "Source Controller Version: 1.00\r\nSensor Processor Version: 1.00\r\n"
         "I/O Processor Version: 1.00\r\n\r\nFirmware Packet Load: emulated\r\n"},
        {"O1,2,7,8,0\rX0,1,0,0\rY0,1,0,0\rF1\rC\rQ0\r", Times(3,
                                                              "LY\x01"
                                                              "C\0\0"s +
                                                                  kLiberty)}}},
      {"LibertyInText",
       {"liberty", "--stations=2", kHold},
       {{"U1\rO*,2,7,1\r", ""},
        {"\x02*\r@B0\rL*,0\r@B\r", "00@  0\r\n"},
        {"\x16"
         "2\r",
         "02v  Station 2 ID: 1\r\nStation 2 Serial Number: 1-2\r\n"},
        {"p",
         "01    25.400  -12.700    5.080  1.00000  0.00000  0.00000  0.00000\r\n"
         "02    25.400  -12.700    5.080  1.00000  0.00000  0.00000  0.00000\r\n"}}},
  };
}

TEST(ForeignDrivers, GetTheAnswersThatTheyWait) {
  for (const Session& session : Sessions()) {
    EmulatedLine line(session.device);
    Host host(line.path());
    for (const Step& step : session.steps) {
      std::string came = host.Ask(step.sent, step.answer.size());
      came.resize(std::min(came.size(), step.answer.size()));  // a stream goes on
      EXPECT_EQ(Hex(came), Hex(Expected(step.answer, came)))
          << session.name << ": " << Hex(step.sent);
    }
  }
}

// A GPS receiver speaks unasked too: its answers are looked for among the rest.
TEST(ForeignDrivers, GetAnswersOfAReceiver) {
  EmulatedLine line({"gps", "--rate=0.1"});
  Host host(line.path(), 9600);
  const auto packet = [](const std::string& content) { return "\x10" + content + "\x10\x03"; };
  const Step steps[] = {
      {"$PASHQ,RID*28\r\n@F0.3=1*67\r\n" + packet("\x1F"),
       packet("\x45\x01\x10\x10\x06\x01\x6E\x01\x10\x10\x06\x01\x6E")},
      {packet("\x35\x32\x02\0\x08"s), packet("\x55\x06\x02\0\x08"s)},
      {packet("\x24"), "\x10\x6D\x84"},
      {packet("\x28"), packet("\x13\x28\0"s)},
      {packet("\x1C\x03"), packet("\x13\x1C\x03")},
      {packet("\x3C\0"s), "\x10\x5C\x11\x38\x01"},  // the eighth satellite, on the eighth channel
      {packet("\x26"), packet("\x4B\x5A\0\0"s)},
  };
  for (const Step& step : steps) {
    std::string came;
    host.Send(step.sent);
    EXPECT_TRUE(WaitUntil([&] {
      host.ReadOnce(came);
      return came.find(step.answer) != std::string::npos;
    })) << Hex(step.sent)
        << "is answered " << Hex(came);
  }
}

}  // namespace
}  // namespace kinetrel::test
