// A pseudo-terminal forces 8 bits without parity, so the other settings are checked on the kernel's
// record.
#include "platform/posix/terminal_settings.h"

#include <gtest/gtest.h>

namespace kinetrel {
namespace {

struct Framing {
  const char* name;
  std::uint8_t byteSize;
  Parity parity;
  StopBits stopBits;
  tcflag_t flags;  // 0: impossible
};

class TerminalFraming : public testing::TestWithParam<Framing> {};

TEST_P(TerminalFraming, IsSetAndReadBack) {
  const Framing& row = GetParam();
  const LineSettings wanted = {
      .baud = 9600, .byteSize = row.byteSize, .parity = row.parity, .stopBits = row.stopBits};
  termios2 terminal{};
  terminal.c_cflag = CS8 | PARENB | PARODD | CSTOPB | CRTSCTS | HUPCL;
  const Status put = PutSettings(wanted, terminal);
  if (row.flags == 0) {
    EXPECT_EQ(put.error, Error::Invalid);
    return;
  }
  ASSERT_TRUE(put.Ok());
  EXPECT_EQ(terminal.c_cflag, row.flags | B9600 | HUPCL);
  const LineSettings found = GetSettings(terminal);
  EXPECT_EQ(found.byteSize, wanted.byteSize);
  EXPECT_EQ(found.parity, wanted.parity);
  EXPECT_EQ(found.stopBits, wanted.stopBits);
}

INSTANTIATE_TEST_SUITE_P(
    Line, TerminalFraming,
    testing::Values(
        Framing{"EightNoneOne", 8, Parity::None, StopBits::One, CS8},
        Framing{"SevenOddTwo", 7, Parity::Odd, StopBits::Two, CS7 | PARENB | PARODD | CSTOPB},
        Framing{"SevenEvenOne", 7, Parity::Even, StopBits::One, CS7 | PARENB},
        Framing{"SixMarkOne", 6, Parity::Mark, StopBits::One, CS6 | PARENB | PARODD | CMSPAR},
        Framing{"EightSpaceOne", 8, Parity::Space, StopBits::One, CS8 | PARENB | CMSPAR},
        Framing{"FiveNoneOneAndHalf", 5, Parity::None, StopBits::OneAndHalf, CS5 | CSTOPB},
        Framing{"EightNoneOneAndHalf", 8, Parity::None, StopBits::OneAndHalf, 0},
        Framing{"FiveNoneTwo", 5, Parity::None, StopBits::Two, 0},
        Framing{"NineBits", 9, Parity::None, StopBits::One, 0},
        Framing{"FourBits", 4, Parity::None, StopBits::One, 0},
        Framing{"NoSuchParity", 8, static_cast<Parity>(5), StopBits::One, 0},
        Framing{"NoSuchStopBits", 8, Parity::None, static_cast<StopBits>(3), 0}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(TerminalSettings, EitherSideOfTheHandshakeTurnsItOn) {
  for (const LineSettings& settings : {LineSettings{.baud = 9600, .rts = ModemControl::Handshake},
                                       LineSettings{.baud = 9600, .ctsOutputFlow = true}}) {
    termios2 terminal{};
    ASSERT_TRUE(PutSettings(settings, terminal).Ok());
    EXPECT_NE(terminal.c_cflag & CRTSCTS, 0U);
    EXPECT_TRUE(GetSettings(terminal).ctsOutputFlow);
  }
}

TEST(TerminalSettings, SoftwareFlowControlSetsDirectionsAndCharacters) {
  const LineSettings settings = {
      .baud = 9600, .xonXoffOutput = true, .xonChar = 0x11, .xoffChar = 0x13};
  termios2 terminal{};
  ASSERT_TRUE(PutSettings(settings, terminal).Ok());
  const LineSettings found = GetSettings(terminal);
  EXPECT_TRUE(found.xonXoffOutput);
  EXPECT_FALSE(found.xonXoffInput);
  EXPECT_EQ(found.xonChar, 0x11);
  EXPECT_EQ(found.xoffChar, 0x13);
}

}  // namespace
}  // namespace kinetrel
