// The GPS receiver's side of the wire, against bytes written out from the protocol.
#include "emulate/gps_emulator.h"

#include <gtest/gtest.h>

#include "tests/emulate/device_bench.h"

namespace kinetrel::test {
namespace {

using namespace std::string_literals;

DeviceBench Receiver(GpsSettings settings = {}) {
  return DeviceBench(std::make_unique<GpsEmulator>(settings, MakeHold({})), {9600});
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

TEST(Tsip, FramesAPacketAndDoublesItsMark) {
  const WireWriter data = WireWriter().U8(0x10).U8(3).U16Be(0x1010);
  const auto packet = TsipPacket(0x47, data);
  EXPECT_EQ(
      std::string(reinterpret_cast<const char*>(packet.bytes().data()), packet.bytes().size()),
      "\x10\x47\x10\x10\x03\x10\x10\x10\x10\x10\x03"s);
}

TEST(GpsEmulator, ReportsByItself) {
  DeviceBench receiver = Receiver({.origin = {90 / 3.14159265358979, 0, 9}, .satellites = 1});
  const std::string stream = receiver.Collect(seconds(10)) + receiver.Collect(milliseconds(300));
  EXPECT_EQ(stream.substr(0, 20),
            "\x10\x4A\x3F\x00\x00\x00\x00\x00\x00\x00\x41\x10\x10\x00\x00\x00\x00\x00\x00\x47"s);
  EXPECT_EQ(Count(stream, '\x4A'), 51);
  EXPECT_EQ(Count(stream, '\x56'), 51);
  for (const char id : {'\x41', '\x6D', '\x47', '\x5C'}) EXPECT_EQ(Count(stream, id), 10) << id;
  EXPECT_EQ(Count(stream, '\x46'), 2);
  const auto selection = stream.find("\x10\x6D");
  EXPECT_EQ(stream.substr(selection, 23),
            "\x10\x6D\x14\x40\x20\x00\x00\x3F\xC0\x00\x00\x40\x00\x00\x00\x3F\xA0\x00\x00\x03"
            "\x10\x03\x10"s);
}

TEST(GpsEmulator, AnswersWhatComesInAPacket) {
  DeviceBench receiver = Receiver({.rate = 0.5});
  EXPECT_EQ(receiver.Ask("!&"), "");
  EXPECT_EQ(Count(receiver.Ask("\x10!\x10\x03"), '\x41'), 1);
  EXPECT_EQ(receiver.Ask("\x10&\x10\x03"), "\x10\x46\0\0\x10\x03\x10\x4B\x5A\0\0\x10\x03"s);
  EXPECT_EQ(Count(receiver.Ask("\x10\x37\x10\x03"), '\x4A'), 1);
  EXPECT_EQ(receiver.Ask("\x10\x99\x10\x10\x01\x10\x03"), "");
}

TEST(GpsEmulator, WithoutAFixItSendsNoPosition) {
  DeviceBench receiver = Receiver();
  receiver->Strike(receiver.now(), {FaultKind::Error, 3});
  const std::string stream = receiver.Collect(milliseconds(2950));
  EXPECT_EQ(Count(stream, '\x4A'), 0);
  EXPECT_EQ(Count(stream, '\x41'), 2);
  EXPECT_EQ(Count(receiver.Collect(milliseconds(500)), '\x4A'), 3);
}

}  // namespace
}  // namespace kinetrel::test
