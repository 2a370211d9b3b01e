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
      title_(feed.options.spec().text),
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
  const auto address = boost::asio::ip::make_address_v4(interface_, error);
  if (!error) socket_.set_option(multicast::outbound_interface(address), error);
  return error ? "interface " + interface_ + " cannot be used: " + error.message() : std::string();
}

bool UdpSender::Send(std::span<const std::byte> datagram) { return SendTo(datagram, endpoint_); }

bool UdpSender::SendToGroup(std::span<const std::byte> datagram, unsigned lastByte) {
  udp::endpoint group = endpoint_;
  auto bytes = group.address().to_v4().to_bytes();
  bytes.back() = static_cast<unsigned char>(lastByte);
  group.address(boost::asio::ip::address_v4(bytes));
  return SendTo(datagram, group);
}

bool UdpSender::SendTo(std::span<const std::byte> datagram, const udp::endpoint& endpoint) {
  if (context_.dryRun) {
    context_.print(title_ + ": " + describe_(datagram));
    return true;
  }
  if (pauseNs_ != 0 && kinetrel_now_ns() < nextTryNs_) {
    ++counts_.dropped;
    return false;
  }
  boost::system::error_code error;
  socket_.send_to(boost::asio::buffer(datagram.data(), datagram.size()), endpoint, 0, error);
  // Windows reports here that an earlier datagram found no receiver; the socket goes on.
  if (error == boost::asio::error::connection_refused ||
      error == boost::asio::error::connection_reset) {
    return true;
  }
  if (error) {
    Fail(error);
    return false;
  }
  if (pauseNs_ != 0) {
    pauseNs_ = 0;
    if (counts_.Clear()) context_.say(title_ + ": sends again");
  }
  return true;
}

void UdpSender::Fail(const boost::system::error_code& error) {
  ++counts_.dropped;
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
