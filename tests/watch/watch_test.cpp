// kinetrel-watch as its users meet it: a process beside a tracker's, joined by shared memory.
#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "tests/watch/tracker.h"

namespace kinetrel::test {
namespace {

// ---- Writers come and go -----------------------------------------------------------------------

TEST_F(Watch, WaitsForTheTrackerAndSaysSoOnce) {
  const auto watch = Start();
  ASSERT_TRUE(watch->ExpectError("waiting for a tracker on slot " + std::to_string(slot_.slot())));
  OpenTracker();
  ASSERT_TRUE(tracker_->Publish());
  ASSERT_TRUE(watch->ExpectOutput("frame 1 "));
  EXPECT_TRUE(
      Contains(watch->output(), "sensor 1 position 1.00000 -2.50000 3.00000 angles 0.50000"));
  EXPECT_TRUE(watch->ExpectError("frames from Test tracker"));
  EXPECT_EQ(Occurrences(watch->error(), "waiting"), 1);
}

TEST_F(Watch, GoesOnWhenTheTrackerComesBack) {
  const auto watch = StartShowing();
  ASSERT_TRUE(tracker_->Publish(FillBlock, 1000));
  ASSERT_TRUE(watch->ExpectOutput("frame 1000 "));
  tracker_.reset();
  ASSERT_TRUE(watch->ExpectError("has closed"));
  OpenTracker();  // counts from 0 again
  ASSERT_TRUE(tracker_->Publish(FillBlock, 7));
  EXPECT_TRUE(watch->ExpectOutput("frame 7 "));
  EXPECT_TRUE(watch->ExpectError("frames from Test tracker"));
}

TEST_F(Watch, FollowsACountThatWrapsAround) {
  const auto watch = StartShowing();
  ASSERT_TRUE(tracker_->Publish(FillBlock, INT_MAX));
  ASSERT_TRUE(watch->ExpectOutput("frame 2147483647 "));
  ASSERT_TRUE(tracker_->Publish());
  EXPECT_TRUE(watch->ExpectOutput("frame -2147483648 "));
  ASSERT_TRUE(tracker_->Publish());
  EXPECT_TRUE(watch->ExpectOutput("frame -2147483647 "));
}

TEST_F(Watch, SaysThatAKilledTrackerIsSilentAndTakesTheNextOne) {
  const auto watch = Start();
  auto writer = StartWriter("5");
  ASSERT_TRUE(watch->ExpectOutput("frame "));
  writer->Kill();
  ASSERT_TRUE(watch->ExpectError("no new frames for 2 s"));
  EXPECT_FALSE(Contains(watch->error(), "closed"));
  writer = StartWriter("5");
  EXPECT_TRUE(watch->ExpectError("no new frames for 2 s\nkinetrel-watch: frames from Test writer"));
}

TEST_F(Watch, SurvivesATrackerThatDiedWithTheMutex) {
  const auto watch = Start();
  ASSERT_TRUE(watch->ExpectError("waiting"));
  ASSERT_EQ(StartWriter("0")->Wait(), ChildProcess::kKilled);
  ASSERT_TRUE(watch->ExpectOutput("frame 1 "));
  OpenTracker();
  ASSERT_TRUE(tracker_->Publish(FillBlock, 42));
  EXPECT_TRUE(watch->ExpectOutput("frame 42 "));
}

TEST_F(Watch, NeverShowsAnOldFrameAsNew) {
  OpenTracker();
  ASSERT_TRUE(tracker_->Publish());
  const auto watch = Start({"--once", "--timeout", "0.6"});
  EXPECT_EQ(watch->Wait(), 3);
  EXPECT_EQ(watch->output(), "");
}

// ---- Ways out ----------------------------------------------------------------------------------

struct EndCase {
  const char* name;
  Strings arguments;
  int code;
  int lines;
  const char* error;
};
class Ends : public Watch, public testing::WithParamInterface<EndCase> {};

TEST_P(Ends, AsAsked) {
  OpenTracker();
  const auto watch = Start(GetParam().arguments);
  int code = ChildProcess::kStillRuns;
  const auto ended = [&] {
    code = watch->Wait(std::chrono::milliseconds(2));
    return code != ChildProcess::kStillRuns;
  };
  ASSERT_TRUE(GetParam().lines > 0 ? tracker_->PublishUntil(ended) : WaitUntil(ended));
  EXPECT_EQ(code, GetParam().code);
  EXPECT_EQ(Lines(watch->output()).size(), static_cast<std::size_t>(GetParam().lines));
  EXPECT_EQ(watch->error(), GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    Watch, Ends,
    testing::Values(
        EndCase{"Once", {"--once"}, 0, 1, ""},
        EndCase{"AfterFrames", {"--frames=3", "--json"}, 0, 3, ""},
        EndCase{"Timeout", {"--timeout", "0.25"}, 3, 0, "kinetrel-watch: no frame for 0.25 s\n"},
        EndCase{"BadArgument",
                {"--slot", "17", "--json"},
                2,
                0,
                "kinetrel-watch: --slot: wants a number from 1 to 16, not '17' (see kinetrel-watch "
                "--help)\n"},
        EndCase{"Version", {"--version"}, 0, 3, ""}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace kinetrel::test
