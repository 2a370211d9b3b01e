#include "bridge/udp_sender.h"

#include <kinetrel/stream.h>

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/multicast.hpp>

namespace kinetrel::bridge {
namespace {

using boost::asio::ip::udp;
namespace multicast = boost::asio::ip::multicast;

constexpr std::int64_t kFirstPauseNs = 100 * 1000000LL;
constexpr std::int64_t kLongestPauseNs = 5000 * 1000000LL;

}  // namespace

UdpSender::UdpSender(const OutputContext& context, Feed& feed, OutputCounts& counts,
                     Describe describe)
    : context_(context),
      counts_(counts),
      describe_(describe),
      title_(feed.options.address().text),
      host_(HostOf(feed)),
      port_(PortOf(feed)),
      ttl_(feed.options.Integer("ttl", 1, 0, 255)),
      interface_(feed.options.Text("interface", "")),
      socket_(context.io) {
  if (host_.empty())
    feed.options.Complain("it needs a host, as in " + std::string(feed.protocol->scheme) +
                          "://192.168.1.20");
  if (port_ == 0)
    feed.options.Complain("it needs a port, as in " + std::string(feed.protocol->scheme) +
                          "://192.168.1.20:9000");
}

std::string UdpSender::Open() {
  boost::system::error_code error;
  udp::resolver resolver(context_.io);
  const auto found = resolver.resolve(host_, std::to_string(port_), error);
  if (error || found.empty()) return "host " + host_ + " does not resolve: " + error.message();
  // Most receivers listen at IPv4 only, also where the name leads to IPv6 first.
  const auto v4 = std::find_if(found.begin(), found.end(),
                               [](const auto& each) { return each.endpoint().address().is_v4(); });
  endpoint_ = (v4 == found.end() ? found.begin() : v4)->endpoint();
  return context_.dryRun ? std::string() : OpenSocket();
}

std::string UdpSender::OpenSocket() {
  boost::system::error_code error;
  socket_.open(endpoint_.protocol(), error);
  if (error) return "no socket: " + error.message();
  socket_.non_blocking(true, error);
  if (endpoint_.address().is_multicast()) {
    socket_.set_option(multicast::hops(ttl_), error);
    socket_.set_option(multicast::enable_loopback(true), error);
  } else {
    socket_.set_option(boost::asio::socket_base::broadcast(true), error);
  }
  if (interface_.empty()) return {};
  error = endpoint_.address().is_v4() ? ChooseInterfaceV4() : ChooseInterfaceV6();
  return error ? "interface " + interface_ + " cannot be used: " + error.message() : std::string();
}

boost::system::error_code UdpSender::ChooseInterfaceV4() {
  boost::system::error_code error;
  const auto address = boost::asio::ip::make_address_v4(interface_, error);
  if (!error) socket_.set_option(multicast::outbound_interface(address), error);
  return error;
}

boost::system::error_code UdpSender::ChooseInterfaceV6() {
  boost::system::error_code error;
  // The library looks names up as a part of an address.
  const auto any = boost::asio::ip::make_address_v6("fe80::1%" + interface_, error);
  if (error || any.scope_id() == 0)
    return boost::system::errc::make_error_code(boost::system::errc::no_such_device);
  socket_.set_option(multicast::outbound_interface(static_cast<unsigned>(any.scope_id())), error);
  return error;
}

void UdpSender::Print(const PacketBatch& packets) const {
  for (std::size_t i = 0; i < packets.size(); ++i) {
    context_.print(title_ + ": " + describe_(packets[i]));
  }
}

void UdpSender::Collect(const PacketBatch& packets) {
  datagrams_.clear();
  groups_.clear();
  groups_.reserve(packets.size());  // they stay where they are
  for (std::size_t i = 0; i < packets.size(); ++i) {
    const std::uint8_t lastByte = packets.LastByteOf(i);
    const udp::endpoint& to = lastByte == 0 ? endpoint_ : groups_.emplace_back(GroupOf(lastByte));
    datagrams_.push_back(
        {packets[i], std::span(reinterpret_cast<const std::byte*>(to.data()), to.size())});
  }
}

// The host's address with another last byte.
udp::endpoint UdpSender::GroupOf(std::uint8_t lastByte) const {
  auto bytes = endpoint_.address().to_v4().to_bytes();
  bytes.back() = lastByte;
  return {boost::asio::ip::address_v4(bytes), endpoint_.port()};
}

bool UdpSender::Send(const PacketBatch& packets) {
  if (context_.dryRun) {
    Print(packets);
    return true;
  }
  if (pauseNs_ != 0 && kinetrel_now_ns() < nextTryNs_) {
    counts_.dropped += packets.size();
    return false;
  }
  Collect(packets);
  std::span<const OutgoingDatagram> rest = datagrams_;
  bool sent = false;
  while (!rest.empty()) {
    const auto outcome = burst_.Send(static_cast<std::intptr_t>(socket_.native_handle()), rest);
    const boost::system::error_code error(outcome.osCode, boost::system::system_category());
    rest = rest.subspan(outcome.sent);
    // Windows reports here that an earlier datagram found no receiver; the socket goes on.
    const bool refused = error == boost::asio::error::connection_refused ||
                         error == boost::asio::error::connection_reset;
    sent = sent || outcome.sent > 0 || refused;
    if (refused) {
      rest = rest.subspan(1);
    } else if (error) {
      Fail(error, rest.size());
      return sent;
    }
  }
  if (pauseNs_ != 0) {
    pauseNs_ = 0;
    if (counts_.Clear()) context_.say(title_ + ": sends again");
  }
  return sent;
}

void UdpSender::Fail(const boost::system::error_code& error, std::size_t packets) {
  counts_.dropped += packets;
  if (error == boost::asio::error::would_block || error == boost::asio::error::try_again) return;
  pauseNs_ = std::clamp(2 * pauseNs_, kFirstPauseNs, kLongestPauseNs);
  nextTryNs_ = kinetrel_now_ns() + pauseNs_;
  const std::string trouble = "cannot send: " + error.message();
  if (counts_.Report(trouble)) context_.say(title_ + ": " + trouble);
}

std::string UdpSender::Place() const {
  const std::string address = endpoint_.address().to_string();
  return (endpoint_.address().is_v6() ? "[" + address + "]" : address) + ":" +
         std::to_string(endpoint_.port());
}

}  // namespace kinetrel::bridge
