// Sends datagrams to one place without ever waiting, as all UDP outputs do.
//
// A datagram that the system does not take at once is dropped and counted. When the network is lost
// (no route, interface down), the operator is told once; the next try comes after 0.1 s, later
// after up to 5 s, and the operator is told when it works again.
#pragma once

#include <boost/asio/ip/udp.hpp>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "bridge/output.h"
#include "bridge/packet.h"
#include "platform/datagram_burst.h"

namespace kinetrel::bridge {

class UdpSender {
 public:
  // describe  a datagram as text, for the dry run. For any bytes.
  using Describe = std::string (*)(std::span<const std::byte> datagram);

  // Reads the options of multicast from the feed: ttl=1 (0 to 255), and interface=ADDRESS of an
  // interface, or interface=NAME for groups of IPv6.
  // counts  of the output that the sender belongs to; lives as long as the sender.
  UdpSender(const OutputContext& context, Feed& feed, OutputCounts& counts, Describe describe);

  // Resolves the host and opens a socket. Returns empty, or why it failed.
  std::string Open();

  // Returns  true if the network took one of them, or the dry run printed them.
  // Threads  one at a time.
  bool Send(const PacketBatch& packets);

  std::string Place() const;  // "192.168.1.20:9000"

 private:
  std::string OpenSocket();
  boost::system::error_code ChooseInterfaceV4();
  boost::system::error_code ChooseInterfaceV6();
  void Print(const PacketBatch& packets) const;
  void Collect(const PacketBatch& packets);
  boost::asio::ip::udp::endpoint GroupOf(std::uint8_t lastByte) const;
  void Fail(const boost::system::error_code& error, std::size_t packets);

  const OutputContext& context_;
  OutputCounts& counts_;
  const Describe describe_;
  const std::string title_;  // the output as the operator wrote it
  const std::string host_;
  const std::uint16_t port_;
  const int ttl_;
  const std::string interface_;
  boost::asio::ip::udp::socket socket_;
  boost::asio::ip::udp::endpoint endpoint_;
  DatagramBurst burst_;
  std::vector<OutgoingDatagram> datagrams_;             // what Send sends
  std::vector<boost::asio::ip::udp::endpoint> groups_;  // that they go to
  std::int64_t pauseNs_ = 0;    // after the last failure; 0: the last datagram went out
  std::int64_t nextTryNs_ = 0;  // of kinetrel_now_ns()
};

}  // namespace kinetrel::bridge
