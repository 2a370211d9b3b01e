// Datagrams through real sockets of this machine.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>
#include <vector>

#include "platform/datagram_burst.h"
#include "tests/support/wait_until.h"

namespace kinetrel::test {
namespace {

using boost::asio::ip::udp;
using Bytes = std::vector<std::byte>;

class Burst : public testing::Test {
 protected:
  void SetUp() override {
    for (udp::socket& receiver : receivers_) {
      receiver.non_blocking(true);
      receiver.set_option(boost::asio::socket_base::receive_buffer_size(1 << 20));
      endpoints_.push_back(receiver.local_endpoint());
    }
    sender_.non_blocking(true);
  }

  void Add(Bytes bytes, std::size_t receiver) {
    contents_.push_back(std::move(bytes));
    to_.push_back(receiver);
  }

  DatagramBurst::Outcome Send() {
    std::vector<OutgoingDatagram> datagrams;
    for (std::size_t i = 0; i < contents_.size(); ++i) {
      const udp::endpoint& to = endpoints_[to_[i]];
      datagrams.push_back(
          {contents_[i],
           std::as_bytes(std::span(static_cast<const char*>(static_cast<const void*>(to.data())),
                                   to.size()))});
    }
    return burst_.Send(static_cast<std::intptr_t>(sender_.native_handle()), datagrams);
  }

  // What the receiver has next; empty if nothing comes.
  Bytes Receive(std::size_t receiver) {
    Bytes into(2000);
    boost::system::error_code error;
    std::size_t size = 0;
    WaitUntil([&] {
      size = receivers_[receiver].receive(boost::asio::buffer(into), 0, error);
      return !error;
    });
    into.resize(error ? 0 : size);
    return into;
  }

  boost::asio::io_context io_;
  const udp::endpoint anyPort_{boost::asio::ip::address_v4::loopback(), 0};
  std::array<udp::socket, 2> receivers_{udp::socket(io_, anyPort_), udp::socket(io_, anyPort_)};
  std::vector<udp::endpoint> endpoints_;
  udp::socket sender_{io_, udp::v4()};
  DatagramBurst burst_;
  std::vector<Bytes> contents_;
  std::vector<std::size_t> to_;
};

// Runs of one length, other lengths between them, and more than one call or one join takes.
TEST_F(Burst, EachReceiverGetsItsDatagramsWholeAndInOrder) {
  for (std::size_t i = 0; i < 200; ++i) {
    const std::size_t size = i % 40 == 7 ? 1 : i % 50 == 9 ? 300 : 29;
    Add(Bytes(size, static_cast<std::byte>(i)), i / 70 % 2);
  }
  const auto outcome = Send();
  EXPECT_EQ(outcome.sent, contents_.size());
  EXPECT_EQ(outcome.osCode, 0);
  for (std::size_t i = 0; i < contents_.size(); ++i) ASSERT_EQ(Receive(to_[i]), contents_[i]) << i;
}

#if defined(SO_NO_CHECK)
// Linux joins no datagrams of a socket without checksums.
TEST_F(Burst, WhereTheSystemRefusesJoinedDatagramsTheyGoOneByOne) {
  sender_.set_option(boost::asio::detail::socket_option::integer<SOL_SOCKET, SO_NO_CHECK>(1));
  for (std::size_t i = 0; i < 3; ++i) Add(Bytes(29, static_cast<std::byte>(i)), 0);
  EXPECT_EQ(Send().sent, 3U);
  for (const Bytes& bytes : contents_) EXPECT_EQ(Receive(0), bytes);
}
#endif

TEST_F(Burst, OneThatIsTooLongStopsOnlyThoseBehindIt) {
  for (const std::size_t size : {29U, 29U, 70'000U, 29U}) Add(Bytes(size), 0);
  const auto outcome = Send();
  EXPECT_EQ(outcome.sent, 2U);
  EXPECT_NE(outcome.osCode, 0);
  EXPECT_EQ(Receive(0).size() + Receive(0).size(), 58U);
}

}  // namespace
}  // namespace kinetrel::test
