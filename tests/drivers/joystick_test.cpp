#include "drivers/joystick.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "drivers/driver_table.h"
#include "tests/support/joystick_pipes.h"
#include "tests/support/wait_until.h"

namespace kinetrel::test {
namespace {

struct Counts {
  const char* name;
  unsigned present, maximum, axes;
  JoystickChannels channels;
};

TEST(JoystickCounts, BecomeChannels) {
  for (const Counts& row : {Counts{"more than bits", 40, 40, 40, {32, 32, 32}},
                            Counts{"few of many", 4, 12, 3, {12, 12, 3}},
                            Counts{"more than the driver knows", 12, 4, 2, {4, 12, 2}},
                            Counts{"absurdly many", ~0U, ~0U, ~0U, {32, 32, 32}}}) {
    const JoystickChannels got = ChannelsOf({.product = "",
                                             .driver = "",
                                             .buttons = row.present,
                                             .maxButtons = row.maximum,
                                             .axes = row.axes});
    EXPECT_EQ(got.maxButtons, row.channels.maxButtons) << row.name;
    EXPECT_EQ(got.digital, row.channels.digital) << row.name;
    EXPECT_EQ(got.analog, row.channels.analog) << row.name;
  }
}

// ---- On a pipe with a stick's records ------------------------------------------------------

class JoystickOnAPipe : public testing::Test {
 protected:
  void Plug() { pipe_ = std::make_unique<JoystickPipe>(directory_.Path("js0"), AtRest(4, 3)); }

  JoystickDirectory directory_;
  std::unique_ptr<JoystickPipe> pipe_;
};

TEST_F(JoystickOnAPipe, ItsButtonsAndAxesBecomeChannels) {
  Plug();
  const std::unique_ptr<DAQControl> stick = MakeJoystick(0);
  EXPECT_EQ(stick->Read(0), 0);  // not booted
  pipe_->Send({JoystickRecord::Button, 2, 1});
  ASSERT_EQ(stick->Boot(0), 1);
  EXPECT_EQ(stick->digitalBits(), 4U);  // boot has read it
  EXPECT_EQ(stick->digitalChannels(), 4);
  EXPECT_EQ(stick->analogChannels(), 3);
  EXPECT_EQ(stick->GetId(), 0);
  EXPECT_STREQ(stick->GetName(), "Joystick");
  pipe_->Send({JoystickRecord::Button, 0, 1});
  pipe_->Send({JoystickRecord::Axis, 1, 32767});
  EXPECT_EQ(stick->Read(0), 1);
  EXPECT_EQ(stick->digitalBits(), 5U);
  EXPECT_EQ(stick->analogValue(1), 65535U);
  EXPECT_EQ(stick->analogValue(2), 32767U);
  EXPECT_EQ(stick->analogValue(3), 0U);
}

TEST_F(JoystickOnAPipe, AMissingNumberSelectsTheFirstStick) {
  Plug();
  EXPECT_EQ(Joystick(1).GetId(), 0);  // one stick: the number 1 is missing
  EXPECT_EQ(Joystick(-1).GetId(), 0);
  const JoystickPipe another(directory_.Path("js1"), AtRest(7, 0));
  Joystick second(1);
  EXPECT_EQ(second.GetId(), 1);
  EXPECT_EQ(second.Boot(0), 1);
  EXPECT_EQ(second.maxButtons(), 7);
}

TEST_F(JoystickOnAPipe, BootFailsWithoutAStick) {
  Joystick none(0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(none.Boot(0), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "\n\t\tfind a joystick: not found");
  EXPECT_EQ(none.QueryCaps(nullptr, 0), 0);
  EXPECT_EQ(none.Read(0), 0);
  Plug();
  EXPECT_EQ(none.Boot(0), 1);
}

TEST_F(JoystickOnAPipe, DescriptionIsCutToTheRoom) {
  Plug();
  Joystick stick(0);
  const std::string whole =
      "\n\tProduct: \n\tOEM: joydev\n\tModel: 0\tID: 0\n\tDigiChnls: 4\tAnalChnls: 3";
  for (const int size : {-1, 0, 1, 2, 20, 400}) {
    std::string text(401, '#');
    std::string expected = text;
    if (size > 0) {
      const std::string cut = whole.substr(0, static_cast<std::size_t>(size) - 1);
      expected.replace(0, cut.size() + 1, cut.c_str(), cut.size() + 1);
    }
    EXPECT_EQ(stick.QueryCaps(text.data(), size), 1);
    EXPECT_EQ(text, expected) << size;
  }
  EXPECT_EQ(stick.QueryCaps(nullptr, 400), 1);
}

TEST_F(JoystickOnAPipe, KeepsItsValuesWhileUnpluggedAndComesBack) {
  Plug();
  Joystick stick(0);
  ASSERT_EQ(stick.Boot(0), 1);
  pipe_->Send({JoystickRecord::Button, 3, 1});
  ASSERT_EQ(stick.Read(0), 1);
  pipe_.reset();
  EXPECT_EQ(stick.Read(0), 0);
  EXPECT_EQ(stick.Boot(0), 0);
  EXPECT_EQ(stick.digitalBits(), 8U);
  Plug();
  EXPECT_TRUE(WaitUntil([&] { return stick.Read(0) != 0; }));
  EXPECT_EQ(stick.digitalBits(), 0U);

  pipe_.reset();
  EXPECT_EQ(stick.Read(0), 0);
  Plug();
  EXPECT_EQ(stick.Boot(0), 1);  // sooner than it would come back by itself
}

TEST_F(JoystickOnAPipe, MayBeBootedDuringARead) {
  Plug();
  Joystick stick(0);
  ASSERT_EQ(stick.Boot(0), 1);
  std::atomic<bool> done{false};
  std::thread sampling([&] {
    while (!done) stick.Read(0);
  });
  for (int i = 0; i < 200; ++i) EXPECT_EQ(stick.Boot(0), 1);
  done = true;
  sampling.join();
}

}  // namespace
}  // namespace kinetrel::test
