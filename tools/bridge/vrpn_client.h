// One client of the VRPN server: its connection, what it asked for, and what waits for it.
//
// While the socket takes no more, a newer pose of a sensor replaces the one that waits, and so does
// a newer answer of a device; other messages stay. The client is dropped when it takes nothing for
// 10 s, or when more waits than kMostWaiting.
//
// Threads  every call is made under the server's lock.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/udp.hpp>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "bridge/vrpn_wire.h"

namespace kinetrel::bridge {

// Of a message that a newer one may replace while it waits; kKept is never replaced.
using VrpnKey = std::uint32_t;
inline constexpr VrpnKey kVrpnKept = 0xFFFFFFFF;
inline constexpr VrpnKey kVrpnPong = 0x80000000;    // and the device's number
inline constexpr VrpnKey kVrpnStates = 0xC0000000;  // and the device's number

// Messages that lie one behind the other in one buffer, which all clients share.
struct VrpnMessages {
  struct Mark {
    std::size_t end = 0;  // of the message in `bytes`
    VrpnKey key = kVrpnKept;
  };
  VrpnBytes bytes;
  std::vector<Mark> marks;

  void Clear() { bytes.clear(), marks.clear(); }
  void End(VrpnKey key) { marks.push_back({bytes.size(), key}); }  // the message is appended
};

class VrpnClient : public std::enable_shared_from_this<VrpnClient> {
 public:
  // What the server does for its clients.
  class Server {
   public:
    virtual ~Server() = default;
    virtual std::mutex& Lock() = 0;
    virtual void OnRequests(VrpnClient& client, std::span<const VrpnRequest> requests) = 0;
  };

  VrpnClient(boost::asio::ip::tcp::socket socket, Server& server,
             const std::vector<std::string>& devices);

  // A connected socket: sets it up and begins to read.
  void Start();
  // Calls a client back; the deadline is the greeting's.
  void Call(const boost::asio::ip::tcp::endpoint& endpoint);
  void Close();
  bool IsClosed() const { return !socket_.is_open(); }

  // Returns how many waiting poses were replaced or left out.
  std::size_t Send(const VrpnMessages& messages);

  // Closes the connection if it is past one of its deadlines. nowNs of kinetrel_now_ns().
  void JudgeTime(std::int64_t nowNs);

  // Has sent its cookie and may be sent messages.
  bool IsGreeted() const { return greeted_; }
  void SetGreeted() { greeted_ = true; }
  bool WasCalled() const { return called_; }
  const boost::asio::ip::tcp::endpoint& peer() const { return peer_; }

  // Where its poses go by UDP; empty: by TCP like the rest.
  std::optional<boost::asio::ip::udp::endpoint> poses;

 private:
  struct Waiting {
    VrpnBytes bytes;
    VrpnKey key;
  };

  void Read();
  void OnBytes(std::size_t count);
  std::size_t Queue(const VrpnMessages& messages, std::size_t sent);
  bool Enqueue(std::span<const std::byte> message, VrpnKey key);
  void Drain();

  boost::asio::ip::tcp::socket socket_;
  Server& server_;
  VrpnReader reader_;
  boost::asio::ip::tcp::endpoint peer_;
  const bool called_;
  bool greeted_ = false;
  std::array<std::byte, 4096> input_{};
  std::vector<VrpnRequest> requests_;
  std::deque<Waiting> queue_;
  std::size_t frontSent_ = 0;  // bytes of the first that the socket took
  std::size_t waiting_ = 0;    // bytes in the queue
  bool draining_ = false;
  std::int64_t greetBy_ = 0;     // of kinetrel_now_ns()
  std::int64_t progressBy_ = 0;  // while something waits
};

}  // namespace kinetrel::bridge
