#include "platform/joystick.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/joystick.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <mutex>
#include <optional>
#include <string>

#include "platform/clock.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/joystick_pipes.h"
#include "tests/support/wait_until.h"

namespace kinetrel {
namespace {

using test::AtRest;
using test::BytesOf;
using test::JoystickPipe;
using test::JoystickRecord;
using test::WaitUntil;

constexpr auto kButton = JoystickRecord::Button;
constexpr auto kAxis = JoystickRecord::Axis;
constexpr std::uint32_t kMiddle = 32767;

// What a device reports about itself. A pipe reports nothing, so this program answers for it below.
struct Self {
  std::string name;
  int buttons;
  int axes;
};
std::mutex selfLock;
std::optional<Self> self;
std::atomic<int> timesAsked = 0;

void Become(const std::optional<Self>& now) {
  const std::lock_guard held(selfLock);
  self = now;
  timesAsked = 0;
}

// Returns the size of the answer, or -1, as the system does.
int AnswerAsDevice(unsigned long request, void* into) {
  const std::lock_guard held(selfLock);
  errno = ENOTTY;
  if (!self) return -1;
  if (request == JSIOCGBUTTONS) *static_cast<std::uint8_t*>(into) = std::uint8_t(self->buttons);
  if (request == JSIOCGAXES) *static_cast<std::uint8_t*>(into) = std::uint8_t(self->axes);
  if (_IOC_NR(request) != _IOC_NR(JSIOCGNAME(0))) return 0;
  ++timesAsked;
  const std::size_t size = std::min<std::size_t>(self->name.size() + 1, _IOC_SIZE(request));
  std::copy_n(self->name.c_str(), size, static_cast<char*>(into));
  return static_cast<int>(size);
}

class Joysticks : public testing::Test {
 protected:
  ~Joysticks() override { Become({}); }
  test::JoystickDirectory directory_;
};

JoystickInput OpenFirst() {
  Result<JoystickInput> opened = JoystickInput::Open(0);
  if (!opened.Ok()) throw std::runtime_error(Describe(opened.status()));
  return std::move(*opened);
}

bool Reads(JoystickInput& stick) { return stick.Read().Ok(); }

// ---- Finding -------------------------------------------------------------------------------

TEST_F(Joysticks, AreCountedInTheOrderOfTheirNumbers) {
  EXPECT_EQ(CountJoysticks(), 0);
  const JoystickPipe tenth(directory_.Path("js10"), AtRest(10, 0));
  const JoystickPipe second(directory_.Path("js2"), AtRest(2, 0));
  for (const char* const other : {"js", "jsx", "js1x", "mouse0", "event3", "js-1"}) {
    ::close(::open(directory_.Path(other).c_str(), O_CREAT | O_CLOEXEC, 0600));
  }
  EXPECT_EQ(CountJoysticks(), 2);
  EXPECT_EQ(JoystickInput::Open(0)->Capabilities()->buttons, 2U);
  EXPECT_EQ(JoystickInput::Open(1)->Capabilities()->buttons, 10U);
  for (const int none : {2, -1, 2147483647}) {
    EXPECT_EQ(JoystickInput::Open(none).status().error, Error::NotFound);
  }
}

TEST_F(Joysticks, AClosedPipeCountsAsUnplugged) {
  ::mkdir(directory_.Path("js0").c_str(), 0700);
  ::close(::open(directory_.Path("js1").c_str(), O_CREAT | O_CLOEXEC, 0600));
  ::mkfifo(directory_.Path("js2").c_str(), 0600);
  for (const int number : {0, 1, 2}) {
    EXPECT_EQ(JoystickInput::Open(number).status().error, Error::Closed) << number;
  }
}

// ---- Reading -------------------------------------------------------------------------------

struct Story {
  const char* name;
  std::string bytes;  // after a stick with 2 buttons and 3 axes at rest
  std::uint32_t buttons = 0;
  std::array<std::uint32_t, 3> axes = {kMiddle, kMiddle, kMiddle};
};

class JoystickStory : public Joysticks, public testing::WithParamInterface<Story> {};

TEST_P(JoystickStory, EndsInThisStateFromPiecesOfAnySize) {
  const std::string& bytes = GetParam().bytes;
  for (const std::size_t piece : {bytes.size() + 1, std::size_t{1}}) {
    const JoystickPipe pipe(directory_.Path("js0"), AtRest(2, 3));
    JoystickInput stick = OpenFirst();
    for (std::size_t sent = 0; sent < bytes.size(); sent += piece) {
      pipe.SendBytes(bytes.substr(sent, piece));
      ASSERT_TRUE(stick.Read().Ok());
    }
    EXPECT_EQ(stick.Read()->buttons, GetParam().buttons);
    EXPECT_EQ(stick.Read()->axes, GetParam().axes);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Records, JoystickStory,
    testing::Values(
        Story{"Rest", ""}, Story{"Pressed", BytesOf({{kButton, 1, 1}}), 2},
        Story{"ButtonsOf32", BytesOf({{kButton, 31, 1}, {kButton, 32, 1}, {kButton, 255, 1}}),
              0x80000000},
        Story{"AxesAtTheirEnds",
              BytesOf({{kAxis, 0, -32767}, {kAxis, 1, 32767}, {kAxis, 2, -32768}}),
              0,
              {0, 65535, 0}},
        Story{"AxesHalfWay",
              BytesOf({{kAxis, 0, -16384}, {kAxis, 1, 16384}, {kAxis, 2, 1}}),
              0,
              {16383, 49151, 32768}},
        Story{"AxisBeyondTheThird", BytesOf({{kAxis, 3, 32767}, {kAxis, 255, 32767}})},
        Story{"UnknownRecords", BytesOf({{0, 0, 1}, {3, 0, 1}, {0x7F, 0, 1}, {0x80, 0, 1}})}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(Joysticks, AReadEndsUnderAFloodOfRecords) {
  const JoystickPipe pipe(directory_.Path("js0"), AtRest(2, 0));
  JoystickInput stick = OpenFirst();
  std::string flood;
  for (int i = 0; i < 4000; ++i) flood += BytesOf({{kButton, 0, static_cast<std::int16_t>(i % 2)}});
  pipe.SendBytes(flood + BytesOf({{kButton, 1, 1}}));
  EXPECT_EQ(stick.Read()->buttons & 2, 0U);  // not yet
  EXPECT_TRUE(WaitUntil([&] { return stick.Read()->buttons == 3; }));
}

TEST_F(Joysticks, ReadingAllocatesNothing) {
  auto pipe = std::make_unique<JoystickPipe>(directory_.Path("js0"), AtRest(2, 2));
  JoystickInput stick = OpenFirst();
  pipe->Send({kButton, 0, 1});
  const int before = test::CountedAllocations();
  test::CountAllocations(true);
  const bool read = Reads(stick);
  test::CountAllocations(false);
  pipe.reset();
  test::CountAllocations(true);
  const bool lost = !Reads(stick) && !Reads(stick);
  test::CountAllocations(false);
  EXPECT_TRUE(read && lost);
  EXPECT_EQ(test::CountedAllocations(), before);
}

// ---- Unplugged -----------------------------------------------------------------------------

TEST_F(Joysticks, AnUnpluggedOneIsReadAgainWhenItIsBack) {
  auto pipe = std::make_unique<JoystickPipe>(directory_.Path("js0"), AtRest(2, 1));
  JoystickInput stick = OpenFirst();
  for (const std::int16_t turn : std::array<std::int16_t, 3>{1, 0, 1}) {
    pipe->Send({kButton, 0, 1});
    EXPECT_EQ(stick.Read()->buttons & 1, 1U);
    pipe.reset();
    EXPECT_EQ(stick.Read().status().error, Error::Closed);
    EXPECT_EQ(stick.Capabilities().status().error, Error::Closed);

    pipe = std::make_unique<JoystickPipe>(directory_.Path("js0"), AtRest(2, 1));
    pipe->Send({kButton, 1, turn});
    ASSERT_TRUE(WaitUntil([&] { return Reads(stick); }));
    EXPECT_EQ(stick.Read()->buttons, turn != 0 ? 2U : 0U);  // nothing is left from before
  }
}

TEST_F(Joysticks, OneCanBeClosedWhileItIsLookedFor) {
  auto pipe = std::make_unique<JoystickPipe>(directory_.Path("js0"), AtRest(1, 1));
  {
    JoystickInput stick = OpenFirst();
    pipe.reset();
    EXPECT_FALSE(Reads(stick));
    JoystickInput moved = std::move(stick);
    EXPECT_FALSE(Reads(moved));
  }
  pipe = std::make_unique<JoystickPipe>(directory_.Path("js0"), AtRest(1, 1));
  EXPECT_TRUE(JoystickInput::Open(0).Ok());
}

// ---- A device that reports its identity -----------------------------------------------------

TEST_F(Joysticks, OneReportsItsIdentityWithALongNameCut) {
  Become(Self{std::string(500, 'n'), 40, 6});
  const JoystickPipe pipe(directory_.Path("js0"), AtRest(2, 3));
  const JoystickInput stick = OpenFirst();
  const Result<JoystickCapabilities> found = stick.Capabilities();
  ASSERT_TRUE(found.Ok());
  EXPECT_EQ(found->product, std::string(127, 'n'));
  EXPECT_EQ(found->buttons, 40U);
  EXPECT_EQ(found->maxButtons, 40U);
  EXPECT_EQ(found->axes, 6U);
  EXPECT_EQ(found->axisMax[5], 65535U);
  EXPECT_EQ(found->productId, 0U);
}

TEST_F(Joysticks, AnotherDeviceInItsPlaceIsNotRead) {
  auto pipe = std::make_unique<JoystickPipe>(directory_.Path("js0"), AtRest(2, 1));
  Become(Self{"Lodestar Pad", 2, 1});
  JoystickInput stick = OpenFirst();
  Become(Self{"Another Pad", 2, 1});
  pipe.reset();
  EXPECT_FALSE(Reads(stick));
  pipe = std::make_unique<JoystickPipe>(directory_.Path("js0"), AtRest(2, 1));
  const std::int64_t start = ClockTicks();
  EXPECT_TRUE(WaitUntil([&] { return Reads(stick) || timesAsked >= 3; }));
  EXPECT_FALSE(Reads(stick));
  EXPECT_GT(ClockTicks() - start,
            ClockTicksPerSecond() * 9 / 10);  // it is checked now and then only
  Become(Self{"Lodestar Pad", 2, 1});
  EXPECT_TRUE(WaitUntil([&] { return Reads(stick); }));
}

}  // namespace
}  // namespace kinetrel

// Replaces the C library's function: the functions above answer for a joystick.
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list rest;
  va_start(rest, request);
  void* const into = va_arg(rest, void*);
  va_end(rest);
  if (_IOC_TYPE(request) == 'j') return kinetrel::AnswerAsDevice(request, into);
  return static_cast<int>(::syscall(SYS_ioctl, fd, request, into));
}
