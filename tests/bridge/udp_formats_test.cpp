// The UDP formats byte for byte, and what a dry run prints of them.
#include <gtest/gtest.h>

#include <clocale>

#include "bridge/dtrack.h"
#include "bridge/freed.h"
#include "bridge/opentrack.h"
#include "bridge/opentrackio.h"
#include "bridge/osc.h"
#include "bridge/posistagenet.h"
#include "bridge/text.h"

namespace kinetrel::bridge {
namespace {

// The bytes as hexadecimal digits.
std::string Hex(std::span<const std::byte> bytes) {
  std::string text;
  for (const std::byte byte : bytes) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    text += kDigits[std::to_integer<std::size_t>(byte >> 4)];
    text += kDigits[std::to_integer<std::size_t>(byte & std::byte{15})];
  }
  return text;
}

std::string WithoutSpaces(std::string text) {
  std::erase_if(text, [](char letter) { return letter == ' ' || letter == '\n'; });
  return text;
}

struct Example {
  const char* name;
  Packet packet;
  std::string bytes;  // hexadecimal; spaces and ends of lines do not count
  std::string text;   // that a dry run prints
};

void Check(const Example& row, std::string (*describe)(std::span<const std::byte>)) {
  SCOPED_TRACE(row.name);
  EXPECT_EQ(Hex(row.packet), WithoutSpaces(row.bytes));
  EXPECT_EQ(describe(row.packet), row.text);
  // A packet that misses its end or has one byte too many is not taken for a whole one.
  for (std::size_t size = 0; size < row.packet.size(); ++size) {
    EXPECT_NE(describe(std::span(row.packet).first(size)), row.text) << size;
  }
  Packet longer = row.packet;
  longer.push_back(std::byte{1});
  EXPECT_TRUE(describe(longer).starts_with("damaged")) << describe(longer);
}

using OscArguments = std::vector<OscArgument>;

Packet OscFrame() {
  PacketBatch packets;
  {
    OscBundler bundler(packets, OscTimeTag(1'700'000'000'250'000'000));
    bundler.Add("/kinetrel/1/sensor/1/pose", OscArguments{1.5F, -0.25F, 2.F, 0.F, 0.F, 0.6F, 0.8F});
    bundler.Add("/kinetrel/1/frame", OscArguments{812});
  }
  return packets.writer().Take();
}

// What `encode` appends for these arguments, behind other bytes that it must leave alone.
template <typename Encode, typename... Arguments>
Packet Encoded(Encode encode, const Arguments&... arguments) {
  PacketWriter packet;
  packet.Text("before");
  encode(packet, arguments...);
  return Packet(packet.bytes().begin() + 6, packet.bytes().end());
}

Packet OscMessage(std::string_view address, const OscArguments& arguments) {
  return Encoded(EncodeOsc, address, arguments);
}
Packet FreeD(const FreeDPose& pose) { return Encoded(EncodeFreeD, pose); }

TEST(UdpFormats, OscIsAsPublished) {
  const Example rows[] = {
      {"Bundle", OscFrame(), R"(
          2362756e646c6500 e8fe6f8040000000 00000044
          2f6b696e 65747265 6c2f312f 73656e73 6f722f31 2f706f73 65000000 2c666666 66666666 00000000
          3fc00000 be800000 40000000 00000000 00000000 3f19999a 3f4ccccd
          0000001c 2f6b696e 65747265 6c2f312f 6672616d 65000000 2c690000 0000032c)",
       "bundle, 1700000000.250000 s:\n"
       "  /kinetrel/1/sensor/1/pose 1.500000 -0.250000 2.000000 0.000000 0.000000 0.600000 "
       "0.800000\n"
       "  /kinetrel/1/frame 812"},
      {"VrchatPosition", OscMessage("/tracking/trackers/1/position", {-0.25F, 1.125F, 0.5F}), R"(
          2f747261 636b696e 672f7472 61636b65 72732f31 2f706f73 6974696f 6e000000 2c666666
          00000000 be800000 3f900000 3f000000)",
       "/tracking/trackers/1/position -0.250000 1.125000 0.500000"},
      {"VmcTracker",
       OscMessage("/VMC/Ext/Tra/Pos", {"kinetrel-1", -0.25F, 1.125F, 0.5F, 0.F, 0.6F, 0.F, 0.8F}),
       R"(
          2f564d43 2f457874 2f547261 2f506f73 00000000 2c736666 66666666 66000000 6b696e65
          7472656c 2d310000 be800000 3f900000 3f000000 00000000 3f19999a 00000000 3f4ccccd)",
       "/VMC/Ext/Tra/Pos \"kinetrel-1\" -0.250000 1.125000 0.500000 0.000000 0.600000 0.000000 "
       "0.800000"},
      {"AdmObject", OscMessage("/adm/obj/1/xyz", {-0.5F, 0.25F, 0.F}),
       "2f61646d 2f6f626a 2f312f78 797a0000 2c666666 00000000 bf000000 3e800000 00000000",
       "/adm/obj/1/xyz -0.500000 0.250000 0.000000"},
  };
  for (const Example& row : rows) Check(row, DescribeOsc);
}

TEST(UdpFormats, OscBundlesFillPacketsThatNoNetworkSplits) {
  PacketBatch packets;
  {
    OscBundler bundler(packets, kOscAtOnce);
    const OscArguments pose = {0.F, 0.F, 0.F, 0.F, 0.F, 0.F, 1.F};
    for (int i = 0; i < 32; ++i) bundler.Add("/kinetrel/1/sensor/1/pose", pose);
  }
  // 72 bytes a message: 20 in a packet.
  ASSERT_EQ(packets.size(), 2U);
  EXPECT_EQ(packets[0].size(), 16 + 20 * 72U);
  EXPECT_EQ(packets[1].size(), 16 + 12 * 72U);
  EXPECT_TRUE(DescribeOsc(packets[1]).starts_with("bundle, at once:\n  /kinetrel"));
}

TEST(UdpFormats, FreeDIsAsPublished) {
  const Example rows[] = {
      {"Camera1", FreeD({1, 30, -12.5, 0.25, 1500, -250, 2000, 0x080000, 0x080000}),
       "d1 01 0f0000 f9c000 002000 017700 ffc180 01f400 080000 080000 0000 c9",
       "camera 1 pan 30.0000 tilt -12.5000 roll 0.2500 x 1500.00 y -250.00 height 2000.00 "
       "zoom 524288 focus 524288"},
      {"HalfTurn", FreeD({.camera = 255, .pan = -180}),
       "d1 ff a60000 000000 000000 000000 000000 000000 000000 000000 0000 ca",
       "camera 255 pan -180.0000 tilt 0.0000 roll 0.0000 x 0.00 y 0.00 height 0.00 zoom 0 focus 0"},
      // Beyond the range, to its ends: never round to the other side.
      {"OutOfRange", FreeD({.pan = 181, .tilt = -1e9, .x = 140000, .y = -1e30}),
       "d1 01 5a0000 a60000 000000 7fffff 800000 000000 000000 000000 0000 71",
       "camera 1 pan 180.0000 tilt -180.0000 roll 0.0000 x 131071.98 y -131072.00 height 0.00 "
       "zoom 0 focus 0"},
  };
  for (const Example& row : rows) Check(row, DescribeFreeD);
  Packet wrongSum = rows[0].packet;
  wrongSum[10] ^= std::byte{1};
  EXPECT_EQ(DescribeFreeD(wrongSum), "damaged Free-D message");
}

TEST(UdpFormats, OpentrackIsAsPublished) {
  Check({"Head", Encoded(EncodeOpentrack, std::array<double, 6>{25, -12.5, -50, 30, 20, -10}), R"(
           0000000000003940 00000000000029c0 00000000000049c0
           0000000000003e40 0000000000003440 00000000000024c0)",
         "TX 25.0000 TY -12.5000 TZ -50.0000 yaw 30.0000 pitch 20.0000 roll -10.0000"},
        DescribeOpentrack);
}

TEST(UdpFormats, PosiStageNetIsAsPublished) {
  PacketBatch info;
  PacketBatch data;
  const PsnName names[] = {{1, "sensor 1"}, {2, "sensor 2"}};
  const PsnPose poses[] = {{1, {-0.25, -0.125, 0.5}, {0, 0.5, 0}, true, 999000},
                           {2, {1, 2, 3}, {}, false, 999000}};
  EncodePsnInfo(info, 1'000'000, 7, "kinetrel", names);
  EncodePsnData(data, 1'000'000, 7, poses);
  const Example rows[] = {
      {"Info", info.writer().Take(), R"(
          56674080 00000c00 40420f0000000000 02030701 01000800 6b696e657472656c 02002080
          01000c80 00000800 73656e736f722031 02000c80 00000800 73656e736f722032)",
       "INFO 1000000 us frame 7, 1 packets, system \"kinetrel\"\n"
       "  tracker 1 \"sensor 1\"\n  tracker 2 \"sensor 2\""},
      {"Data", data.writer().Take(), R"(
          55678480 00000c00 40420f0000000000 02030701 01007080
          01003480 00000c00 000080be 000000be 0000003f 02000c00 00000000 0000003f 00000000
          03000400 0000803f 06000800 583e0f0000000000
          02003480 00000c00 0000803f 00000040 00004040 02000c00 00000000 00000000 00000000
          03000400 00000000 06000800 583e0f0000000000)",
       "DATA 1000000 us frame 7, 1 packets\n"
       "  tracker 1 position (-0.250000, -0.125000, 0.500000) orientation (0.000000, 0.500000, "
       "0.000000) valid at 999000 us\n"
       "  tracker 2 position (1.000000, 2.000000, 3.000000) orientation (0.000000, 0.000000, "
       "0.000000) not valid at 999000 us"},
  };
  for (const Example& row : rows) Check(row, DescribePsn);

  // 25 trackers fit in a packet; each packet of a frame tells how many there are.
  std::vector<PsnPose> many(26);
  for (std::uint16_t i = 0; i < 26; ++i) many[i].tracker = static_cast<std::uint16_t>(i + 1);
  PacketBatch one;
  EncodePsnData(one, 0, 0, std::span(many).first(25));
  EXPECT_EQ(one.size(), 1U);
  PacketBatch split;
  EncodePsnData(split, 0, 9, many);
  ASSERT_EQ(split.size(), 2U);
  EXPECT_EQ(split[0].size(), 24 + 25 * 56U);
  for (const std::size_t i : {0U, 1U}) {
    EXPECT_TRUE(DescribePsn(split[i]).starts_with("DATA 0 us frame 9, 2 packets\n"));
  }
}

std::string DTrack(std::uint32_t frame, std::int64_t utcNs, unsigned known,
                   std::span<const DTrackBody> bodies) {
  return std::string(AsText(Encoded(EncodeDTrack, frame, utcNs, known, bodies)));
}

TEST(UdpFormats, DTrackIsAsPublished) {
  const double cosine = 0.28;
  const double sine = 0.96;
  const DTrackBody body{0, {1500, -250, 2000}, {cosine, -sine, 0, sine, cosine, 0, 0, 0, 1}};
  // A locale with a decimal comma must not show.
  const std::string before = std::setlocale(LC_NUMERIC, nullptr);
  for (const char* const name : {"de_DE.UTF-8", "fr_FR.UTF-8"}) std::setlocale(LC_NUMERIC, name);
  EXPECT_EQ(DTrack(812, 1'700'000'000'250'000'000, 1, std::span(&body, 1)),
            "fr 812\r\nts 80000.250000\r\n6dcal 1\r\n"
            "6d 1 [0 1.000][1500.000 -250.000 2000.000 0.0000 0.0000 73.7398]"
            "[0.280000 0.960000 0.000000 -0.960000 0.280000 0.000000 0.000000 0.000000 1.000000]"
            "\r\n");
  EXPECT_EQ(DTrack(813, 86'400'000'000'000, 4, {}), "fr 813\r\nts 0.000000\r\n6dcal 4\r\n6d 0\r\n");
  std::setlocale(LC_NUMERIC, before.c_str());
}

Packet OpenTrackIo(std::string_view payload, std::uint16_t sequence) {
  PacketWriter packet;
  packet.Text("before").Zeros(16).Text(payload);
  SetOpenTrackIoHeader(packet, 6, sequence, OpenTrackIoEncoding::Json);
  return Packet(packet.bytes().begin() + 6, packet.bytes().end());
}

Packet OpenTrackIo(const OpenTrackIoSample& sample, OpenTrackIoEncoding encoding,
                   std::size_t leastSize = 0) {
  return Encoded(EncodeOpenTrackIo, sample, encoding, leastSize);
}

OpenTrackIoSample Sample() {
  return {.sampleId = "urn:uuid:00000000-0000-4000-8000-000000000001",
          .sourceId = "urn:uuid:00000000-0000-4000-8000-0000000000aa",
          .rate = 60,
          .utcNs = 1'700'000'000'250'000'000,
          .sequence = 812,
          .position = {-0.25, 0.5, -0.125},
          .pan = -30,
          .tilt = 20,
          .roll = 10,
          .make = {},
          .model = {}};
}

TEST(UdpFormats, OpenTrackIoIsAsPublished) {
  const std::string_view text = R"({"protocol":{"name":"OpenTrackIO","version":[1,0,1]}})";
  Check({"Header", OpenTrackIo(text, 5),
         R"(
           4f54726b 00010005 00000000 80355bef 7b227072 6f746f63 6f6c223a 7b226e61 6d65223a
           224f7065 6e547261 636b494f 222c2276 65727369 6f6e223a 5b312c30 2c315d7d 7d)",
         "sequence 5 " + std::string(text)},
        DescribeOpenTrackIo);
  const std::string sample =
      R"({"protocol":{"name":"OpenTrackIO","version":[1,0,1]},)"
      R"("sampleId":"urn:uuid:00000000-0000-4000-8000-000000000001",)"
      R"("sourceId":"urn:uuid:00000000-0000-4000-8000-0000000000aa","sourceNumber":1,)"
      R"("tracker":{"status":"ok"},"timing":{"mode":"internal","sampleRate":{"num":60,"denom":1},)"
      R"("sampleTimestamp":{"seconds":1700000000,"nanoseconds":250000000},"sequenceNumber":812},)"
      R"("transforms":[{"translation":{"x":-0.25,"y":0.5,"z":-0.125},)"
      R"("rotation":{"pan":-30,"tilt":20,"roll":10},"id":"Camera"}]})";
  const Packet json = OpenTrackIo(Sample(), OpenTrackIoEncoding::Json);
  EXPECT_EQ(Hex(json).substr(0, 32), "4f54726b0001032c0000000081e2bd29");
  EXPECT_EQ(AsText(std::span(json).subspan(16)), sample);
  const Packet cbor = OpenTrackIo(Sample(), OpenTrackIoEncoding::Cbor);
  EXPECT_TRUE(Hex(cbor).substr(32).starts_with(
      "a76870726f746f636f6ca2646e616d656b4f70656e547261636b494f6776657273696f6e83010001"));
  EXPECT_EQ(DescribeOpenTrackIo(cbor), DescribeOpenTrackIo(json));
  const Packet filled = OpenTrackIo(Sample(), OpenTrackIoEncoding::Json, 576);
  EXPECT_EQ(filled.size(), 576U);
  EXPECT_EQ(DescribeOpenTrackIo(filled), DescribeOpenTrackIo(json));
  // A name as no honest tracker has it: the packet is still a sample.
  OpenTrackIoSample named = Sample();
  named.make = "K";
  named.model = "\"\\\n\xff";
  EXPECT_TRUE(DescribeOpenTrackIo(OpenTrackIo(named, OpenTrackIoEncoding::Json))
                  .ends_with(R"("static":{"tracker":{"make":"K","model":"\"\\\n)"
                             "\xEF\xBF\xBD\"}}}"));
}

}  // namespace
}  // namespace kinetrel::bridge
