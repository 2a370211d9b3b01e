// Sockets on loopback, also with a far end that does not read or answer.
#include "platform/stream_socket.h"

#include <gtest/gtest.h>

#include <optional>
#include <string_view>

#include "platform/datagram_socket.h"
#include "tests/support/wait_until.h"

namespace kinetrel::test {
namespace {

using std::chrono::steady_clock;

class Pair : public testing::Test {
 protected:
  void SetUp() override {
    StreamConnector connector;
    auto near = connector.Connect("127.0.0.1", listener_.port(), Deadline(kPatience));
    ASSERT_TRUE(near.Ok()) << Describe(near.status());
    near_ = std::move(*near);
    ASSERT_TRUE(WaitUntil([&] {
      auto far = listener_.Accept();
      if (far.Ok()) far_ = std::move(*far);
      return far.Ok();
    }));
  }

  StreamListener listener_ = std::move(*StreamListener::Open("127.0.0.1", 0));
  std::optional<StreamSocket> near_, far_;
  std::array<std::byte, 256> buffer_{};
};

std::span<const std::byte> Bytes(std::string_view text) { return std::as_bytes(std::span(text)); }

TEST_F(Pair, CarriesBytesBothWaysAndReportsTheEnd) {
  EXPECT_TRUE(near_->IsQuiet());
  ASSERT_TRUE(far_->Send(Bytes("hello"), Deadline(kPatience)).Ok());
  ASSERT_TRUE(WaitUntil([&] { return !near_->IsQuiet(); }));
  const auto got = near_->Receive(buffer_, Deadline(kPatience));
  ASSERT_TRUE(got.Ok());
  EXPECT_EQ(*got, 5U);
  EXPECT_EQ(*near_->ReceiveSome(buffer_), 0U);

  far_.reset();
  EXPECT_EQ(near_->Receive(buffer_, Deadline(kPatience)).status().error, Error::Closed);
  EXPECT_FALSE(near_->IsQuiet());
  // The second write meets a broken connection: it fails without a signal.
  Status last;
  EXPECT_TRUE(WaitUntil([&] {
    last = near_->Send(Bytes("x"), Deadline(Milliseconds(10)));
    return !last.Ok();
  }));
  EXPECT_EQ(last.error, Error::Closed);
}

TEST_F(Pair, WaitsNoLongerThanTheDeadline) {
  const auto start = steady_clock::now();
  const auto got = near_->Receive(buffer_, Deadline(Milliseconds(100)));
  EXPECT_EQ(got.status().error, Error::TimedOut);
  // A far end that does not read: the system's buffers fill, and the time runs out.
  const std::vector<std::byte> much(64 << 20);
  const Status sent = near_->Send(much, Deadline(Milliseconds(100)));
  EXPECT_EQ(sent.error, Error::TimedOut);
  EXPECT_GE(steady_clock::now() - start, std::chrono::milliseconds(200));
  EXPECT_LT(steady_clock::now() - start, kPatience);
}

TEST(StreamConnector, ReportsWhyItCannotConnect) {
  StreamConnector connector;
  std::uint16_t port = 0;
  {
    const auto listener = StreamListener::Open("127.0.0.1", 0);
    ASSERT_TRUE(listener.Ok());
    port = listener->port();
    EXPECT_EQ(StreamListener::Open("127.0.0.1", port).status().error, Error::Busy);
  }
  const Deadline end(kPatience);
  EXPECT_EQ(connector.Connect("127.0.0.1", port, end).status().error, Error::Closed);
  EXPECT_EQ(connector.Connect("", port, end).status().error, Error::NotFound);
  EXPECT_EQ(StreamListener::Open("nobody.invalid", 0).status().error, Error::NotFound);
}

// However long the system looks up a name, the call ends in time, and the caller may ask again.
TEST(StreamConnector, DoesNotWaitForALookUpBeyondTheDeadline) {
  StreamConnector connector;
  for (int i = 0; i < 20; ++i) {
    const auto start = steady_clock::now();
    EXPECT_FALSE(connector.Connect("nobody.invalid", 9, Deadline(Milliseconds(20))).Ok());
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(5));
  }
}

TEST(DatagramSocket, BroadcastsOnlyWhereAllowed) {
  auto receiver = DatagramSocket::Open(0);
  auto sender = DatagramSocket::Open(0);
  ASSERT_TRUE(receiver.Ok() && sender.Ok());
  const auto send = [&](const char* to) {
    return sender->Send(to, receiver->port(), Bytes("abc"));
  };
  EXPECT_EQ(send("nowhere").error, Error::Invalid);
  EXPECT_EQ(send("127.255.255.255").error, Error::Denied);
  ASSERT_TRUE(sender->AllowBroadcast());
  ASSERT_TRUE(send("127.255.255.255").Ok());
  std::array<std::byte, 10> into;
  EXPECT_TRUE(WaitUntil([&] { return receiver->Receive(into).Ok(); }));
}

}  // namespace
}  // namespace kinetrel::test
