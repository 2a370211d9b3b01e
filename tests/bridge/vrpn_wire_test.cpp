// VRPN byte for byte: the messages of the server, and the bytes of clients, honest and hostile.
#include "bridge/vrpn_wire.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/bridge/vrpn_session.h"

namespace kinetrel::bridge {
namespace {

using test::Hex;
using test::operator+;
using test::ToHex;

constexpr std::int64_t kTime = 1700000000250000000;

// ---- What the server sends
// -----------------------------------------------------------------------

TEST(VrpnWire, MessagesHaveTheirBytes) {
  const auto made = [](auto append) {
    VrpnBytes bytes;
    append(bytes);
    return ToHex(bytes);
  };
  EXPECT_EQ(made([](VrpnBytes& b) { AppendVrpnCookie(b); }),
            ToHex(Hex("7672706e3a207665722e2030372e33382020300000000000")));
  EXPECT_EQ(made([](VrpnBytes& b) { AppendVrpnSender(b, kTime, 0, "Tracker0"); }),
            ToHex(Hex("00000025 6553f100 0003d090 00000000 ffffffff 00000000 00000009 54726163"
                      "6b657230 00000000")));
  EXPECT_EQ(made([](VrpnBytes& b) {
              AppendVrpnPose(b, kTime, 0, 3, {1.5, -0.25, 2}, {0, 0, 0.6, 0.8});
            }),
            ToHex(Hex("00000058 6553f100 0003d090 00000000 00000003 00000000 00000003 00000003"
                      "3ff80000 00000000 bfd00000 00000000 40000000 00000000 00000000 00000000"
                      "00000000 00000000 3fe33333 33333333 3fe99999 9999999a")));
  EXPECT_EQ(made([](VrpnBytes& b) { AppendVrpnPong(b, kTime, 0); }),
            ToHex(Hex("00000018 6553f100 0003d090 00000000 00000001 00000000")));
  // The numbers of the two button types are ours: 4 and 5.
  EXPECT_EQ(made([](VrpnBytes& b) { AppendVrpnButton(b, kTime, 0, 2, true); }),
            ToHex(Hex("00000020 6553f100 0003d090 00000000 00000004 00000000 00000002 00000001")));
  EXPECT_EQ(made([](VrpnBytes& b) {
              AppendVrpnButtons(b, kTime, 0, {false, false, true, false});
            }),
            ToHex(Hex("0000002c 6553f100 0003d090 00000000 00000005 00000000 00000004 00000000"
                      "00000000 00000001 00000000 00000000")));
  const std::string text = made(
      [](VrpnBytes& b) { AppendVrpnText(b, kTime, 0, VrpnSeverity::Warning, "sensor 3 lost"); });
  EXPECT_EQ(text.size(), 1056 * 3 - 1U);
  EXPECT_EQ(text.substr(0, 56 * 3 - 1),
            ToHex(Hex("00000420 6553f100 0003d090 00000000 00000002 00000000 00000001 00000000"
                      "73656e73 6f722033 206c6f73 74000000 00000000 00000000")));
}

TEST(VrpnWire, TypesAreDescribedInTheirOrder) {
  VrpnBytes bytes;
  AppendVrpnTypes(bytes, kTime);
  const std::string expected =
      ToHex(Hex("00000032 6553f100 0003d090 00000003 fffffffe 00000000 00000016 7672706e"
                "5f547261 636b6572 20506f73 5f517561 74000000 00000000"));
  EXPECT_NE(ToHex(bytes).find(expected), std::string::npos);
  EXPECT_EQ(bytes.size() % 8, 0U);
}

TEST(VrpnWire, TooLongTextsAndListsAreCut) {
  VrpnBytes bytes;
  AppendVrpnText(bytes, kTime, 0, VrpnSeverity::Error, std::string(5000, 'x'));
  EXPECT_EQ(bytes.size(), 1056U);
  EXPECT_EQ(bytes.back(), std::byte{0});
  bytes.clear();
  AppendVrpnButtons(bytes, kTime, 0, std::vector<bool>(1000));
  EXPECT_EQ(bytes.size(), 24 + 4 + 4 * 256 + 4U);
  bytes.clear();
  AppendVrpnSender(bytes, kTime, 0, std::string(500, 'x'));
  EXPECT_EQ(bytes.size(), 128U);
}

// ---- What clients send
// ---------------------------------------------------------------------------

struct Heard {
  bool sound = true;
  std::string words;
};

// Reads the bytes in pieces of one size.
Heard Read(const VrpnBytes& bytes, std::size_t piece) {
  static const std::vector<std::string> devices = {"Tracker0", "Kinetrel"};
  VrpnReader reader(devices);
  Heard heard;
  std::vector<VrpnRequest> requests;
  for (std::size_t at = 0; at < bytes.size() && heard.sound; at += piece) {
    heard.sound =
        reader.Read(std::span(bytes).subspan(at, std::min(piece, bytes.size() - at)), requests);
  }
  for (const VrpnRequest& request : requests) {
    switch (request.kind) {
      case VrpnRequest::Kind::Greeting:
        heard.words += "cookie ";
        break;
      case VrpnRequest::Kind::Ping:
        heard.words += "ping" + std::to_string(request.device) + " ";
        break;
      case VrpnRequest::Kind::Udp:
        heard.words += request.address + ":" + std::to_string(request.port) + " ";
        break;
    }
  }
  return heard;
}

TEST(VrpnReader, UnderstandsAWatchedClientInAnyPieces) {
  const VrpnBytes session = test::WatchedVrpnClient();
  const VrpnBytes called = test::WatchedVrpnCookie() + test::WatchedVrpnUdp();
  for (const std::size_t piece : {1, 3, 24, 25, 1000, 100000}) {
    EXPECT_EQ(Read(session, piece).words, "cookie ping1 ") << piece;
    EXPECT_EQ(Read(called, piece).words, "cookie 127.0.0.1:60070 ") << piece;
  }
}

struct Story {
  const char* name;
  const char* afterCookie;
  bool sound;
  const char* words;
};

class VrpnStories : public testing::TestWithParam<Story> {};

TEST_P(VrpnStories, EndAsTheyShould) {
  const Heard heard = Read(test::WatchedVrpnCookie() + Hex(GetParam().afterCookie), 7);
  EXPECT_EQ(heard.sound, GetParam().sound);
  EXPECT_EQ(heard.words, std::string("cookie ") + GetParam().words);
}

// A head of five words: length, time, sender, type; the sequence number is 0.
INSTANTIATE_TEST_SUITE_P(
    Client, VrpnStories,
    testing::Values(
        Story{"LengthBelowItsHead", "00000017 00000000 00000000 00000000 00000000 00000000", false,
              ""},
        Story{"LengthZero", "00000000 00000000 00000000 00000000 00000000 00000000", false, ""},
        Story{"LengthHuge", "ffffffff 00000000 00000000 00000000 00000000 00000000", false, ""},
        Story{"LengthJustTooLarge", "00010001 00000000 00000000 00000000 00000000 00000000", false,
              ""},
        Story{"HalfAHead", "00000018 00000000", true, ""},
        Story{"PingBeforeAnyDescription", "00000018 00000000 00000000 00000001 00000010 00000000",
              true, ""},
        Story{"NameLongerThanItsMessage",
              "00000020 00000000 00000000 00000000 ffffffff 00000000 000000ff 41424344", true, ""},
        Story{"NameWithoutItsEnd",
              "00000020 00000000 00000000 00000000 ffffffff 00000000 00000004 41424344", true, ""},
        Story{"DescriptionOfAHugeId",
              "00000020 00000000 00000000 7fffffff ffffffff 00000000 00000003 41420000", true, ""},
        Story{"UdpToAPrivilegedPort",
              "00000022 00000000 00000000 00000016 fffffffd 00000000 31323700 00000000 ffffffff"
              "ffffffff",
              true, ""}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(VrpnReader, OnlyClientsOfTheSameVersionAreServed) {
  for (const auto& [cookie, sound] :
       std::vector<std::pair<std::string, bool>>{{"vrpn: ver. 07.35  0", true},
                                                 {"vrpn: ver. 07.38  3", true},
                                                 {"vrpn: ver. 08.01  0", false},
                                                 {"vrpn: ver. 07.38  4", false},
                                                 {"GET / HTTP/1.1\r\nHost:", false}}) {
    VrpnBytes bytes(24);
    for (std::size_t i = 0; i < cookie.size() && i < 24; ++i) {
      bytes[i] = static_cast<std::byte>(cookie[i]);
    }
    EXPECT_EQ(Read(bytes, 24).sound, sound) << cookie;
  }
}

TEST(VrpnCall, NamesAPortOrIsIgnored) {
  const auto port = [](std::string text) {
    return ParseVrpnCall(std::as_bytes(std::span(text.data(), text.size())));
  };
  EXPECT_EQ(port(std::string("127.0.0.1 57027\0", 16)), 57027);
  EXPECT_EQ(port("my-host.example 1024"), 1024);
  for (const char* const text :
       {"", " 57027", "127.0.0.1", "127.0.0.1 22", "127.0.0.1 65536", "127.0.0.1  57027",
        "127.0.0.1 57027 ", "127.0.0.1 -1", "a;b 57027"}) {
    EXPECT_EQ(port(text), 0) << text;
  }
  EXPECT_EQ(port(std::string(146, 'a') + " 2000"), 0);
}

}  // namespace
}  // namespace kinetrel::bridge
