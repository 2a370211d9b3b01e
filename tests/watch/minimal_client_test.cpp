// The client that the client authors' page shows, against a real writer.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/free_slot.h"
#include "tests/watch/tracker.h"

namespace kinetrel::test {
namespace {

class MinimalClient : public testing::Test {
 protected:
  std::vector<std::string> Arguments(const std::string& frames) const {
    return {std::to_string(slot_.slot()), "0", frames};
  }

  FreeSlot slot_;
};

TEST_F(MinimalClient, WaitsForTheTrackerAndEndsAfterItsFrames) {
  ChildProcess client("kinetrel-minimal-client", Arguments("3"));
  ASSERT_TRUE(client.ExpectError("KinetrelShMem"));
  Tracker tracker(slot_);
  int code = ChildProcess::kStillRuns;
  ASSERT_TRUE(tracker.PublishUntil([&] {
    code = client.Wait(std::chrono::milliseconds(2));
    return code != ChildProcess::kStillRuns;
  }));
  EXPECT_EQ(code, 0);
  const std::string pose = " position 1.0000 -2.5000 3.0000 angles 0.5000 -0.2500 0.1250\n";
  EXPECT_NE(client.output().find(pose), std::string::npos) << client.output();
  EXPECT_EQ(std::count(client.output().begin(), client.output().end(), '\n'), 3) << client.output();
}

TEST_F(MinimalClient, OutlivesATrackerThatDiesWithTheMutex) {
  Tracker tracker(slot_);
  ChildProcess client("kinetrel-minimal-client", Arguments("0"));
  ASSERT_TRUE(tracker.PublishUntil([&] { return !client.output().empty(); }));
  ChildProcess writer("kinetrel-test-writer", {std::to_string(slot_.device()), "0"});
  ASSERT_EQ(writer.Wait(), ChildProcess::kKilled);
  ASSERT_TRUE(tracker.Publish(FillBlock, 4711));
  EXPECT_TRUE(client.ExpectOutput("frame 4711 "));
}

}  // namespace
}  // namespace kinetrel::test
