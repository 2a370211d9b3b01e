// UDP sockets over the loopback.
#include "platform/datagram_socket.h"

#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "tests/support/wait_until.h"

namespace kinetrel::test {
namespace {

class DatagramSocketTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(receiver_.Ok());
    ASSERT_TRUE(sender_.Ok());
  }

  // The length of the next datagram as received into `room` bytes; -1 when none comes.
  int ReceiveInto(std::size_t room) {
    std::vector<std::byte> into(room);
    int length = -1;
    WaitUntil([&] {
      const Result<std::size_t> got = receiver_->Receive(into);
      if (got.Ok()) length = static_cast<int>(*got);
      return got.Ok();
    });
    return length;
  }

  Status Send(std::size_t size, const char* to = "127.0.0.1") {
    const std::vector<std::byte> bytes(size);
    return sender_->Send(to, receiver_->port(), bytes);
  }

  Result<DatagramSocket> receiver_ = DatagramSocket::Open(0);
  Result<DatagramSocket> sender_ = DatagramSocket::Open(0);
};

TEST_F(DatagramSocketTest, CarriesEmptyAndLargeOnesAndCutsWhatDoesNotFit) {
  std::array<std::byte, 8> into;
  EXPECT_EQ(receiver_->Receive(into).status().error, Error::TimedOut);
  for (const std::size_t size : {1U, 0U, 1088U, 65507U}) {
    ASSERT_TRUE(Send(size).Ok());
    EXPECT_EQ(ReceiveInto(70000), static_cast<int>(size));
  }
  ASSERT_TRUE(Send(5000).Ok());
  EXPECT_EQ(ReceiveInto(2048), 2048);
  EXPECT_FALSE(Send(65508).Ok());
}

TEST_F(DatagramSocketTest, BroadcastsOnlyWhereAllowed) {
  EXPECT_EQ(Send(3, "127.255.255.255").error, Error::Denied);
  ASSERT_TRUE(sender_->AllowBroadcast());
  ASSERT_TRUE(Send(3, "127.255.255.255").Ok());
  EXPECT_EQ(ReceiveInto(10), 3);
}

TEST_F(DatagramSocketTest, RefusesATakenPortAndAWordForAnAddress) {
  EXPECT_EQ(DatagramSocket::Open(receiver_->port()).status().error, Error::Busy);
  EXPECT_EQ(Send(1, "nowhere").error, Error::Invalid);
  EXPECT_TRUE(receiver_->SetReceiveBuffer(65536));
}

}  // namespace
}  // namespace kinetrel::test
