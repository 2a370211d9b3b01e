// Two instances on one machine: a host passes the poses of its tracker on, and the program
// publishes them as its own.
#include <gtest/gtest.h>

#include <csignal>

#include <kinetrel/kinetrel.h>
#include "platform/datagram_socket.h"
#include "publish/shared_track_reader.h"
#include "tests/support/child_process.h"
#include "tests/support/free_slot.h"
#include "tests/support/isense_settings.h"

namespace kinetrel::test {
namespace {

class IsenseChain : public testing::Test {
 protected:
  IsenseChain() {
    settings_.Set("CALLS", "");
    const std::string where = "-w" + std::to_string(hostSlot_.slot());
    const char* const options[] = {"host", "-d6", "-p1", where.c_str()};
    EXPECT_EQ(kinetrel_set_options(host_, 4, options), 1);
    EXPECT_EQ(kinetrel_open_configured(host_), kinetrel_opened);
    EXPECT_EQ(kinetrel_set_attribute_string(host_, kinetrel_control_string, port_.c_str()), 1);
  }
  ~IsenseChain() override { kinetrel_destroy(host_); }

  // So many poses that differ from those of a missing source.
  bool Follows(int poses) {
    int seen = -1;
    return WaitUntil([&] {
      SharedTrackBlock block{};
      if (!follower_.OpenOnly(0) || !follower_.WaitForFrame(seen, Milliseconds(100)) ||
          !follower_.Copy(block, Milliseconds(1000)) || block.frameCount == seen) {
        return false;
      }
      seen = block.frameCount;
      yaw_ = block.poses[0][3];
      return yaw_ != 0.0F && --poses <= 0;
    });
  }

  IsenseSettings settings_;
  FreeSlot hostSlot_;
  FreeSlot followerSlot_;
  kinetrel_engine* const host_ = kinetrel_create();
  const std::string port_ = std::to_string(DatagramSocket::Open(0)->port());
  SharedTrackReader follower_{followerSlot_.device()};
  float yaw_ = 0;
};

TEST_F(IsenseChain, ComesGoesAndComesAgain) {
  ChildProcess program("kinetrel",
                       {"-d6", "-p" + port_, "-w" + std::to_string(followerSlot_.slot())},
                       ChildProcess::Options{.emptyInput = true});
  ASSERT_TRUE(program.ExpectError("Running ...")) << program.error();
  float before = 10;
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(kinetrel_start_sampling(host_), 1);
    EXPECT_TRUE(Follows(50));
    EXPECT_NE(yaw_, before);
    before = yaw_;
    ASSERT_EQ(kinetrel_stop_sampling(host_, 1), 1);
    EXPECT_EQ(program.Wait(std::chrono::milliseconds(1)), ChildProcess::kStillRuns);
  }
  program.Signal(SIGINT);
  EXPECT_EQ(program.Wait(), 0);
}

}  // namespace
}  // namespace kinetrel::test
