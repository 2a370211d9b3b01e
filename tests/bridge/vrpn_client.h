// A VRPN client of the tests. It knows the bytes from the protocol's description, not from our
// server.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "platform/datagram_socket.h"
#include "platform/stream_socket.h"
#include "tests/bridge/vrpn_session.h"
#include "tests/support/wait_until.h"

namespace kinetrel::test {

struct VrpnHeard {
  std::int64_t utcNs = 0;
  std::int32_t sender = 0;
  std::string type;  // by the server's descriptions; "sender" and "type" are those themselves
  Octets payload;

  std::uint32_t U32(std::size_t at) const {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i) {
      value = value << 8 | std::to_integer<std::uint32_t>(payload.at(at + i));
    }
    return value;
  }
  double F64(std::size_t at) const {
    return std::bit_cast<double>(static_cast<std::uint64_t>(U32(at)) << 32 | U32(at + 4));
  }
  std::string Text(std::size_t at) const {
    std::string text;
    for (; at < payload.size() && payload[at] != std::byte{0}; ++at) {
      text += static_cast<char>(payload[at]);
    }
    return text;
  }
};

// Takes the server's bytes apart.
class VrpnEar {
 public:
  std::deque<VrpnHeard> heard;
  std::vector<std::string> senders;
  std::vector<std::string> types;

  void Add(std::span<const std::byte> bytes) {
    pending_.insert(pending_.end(), bytes.begin(), bytes.end());
    while (pending_.size() >= 24) {
      const std::size_t size = (Word(0) + 7) / 8 * 8;
      if (pending_.size() < size) return;
      Take(size);
    }
  }

 private:
  std::uint32_t Word(std::size_t at) const { return VrpnHeard{0, 0, {}, pending_}.U32(at); }

  void Take(std::size_t size) {
    VrpnHeard message;
    message.utcNs = Word(4) * 1000000000LL + Word(8) * 1000LL;
    message.sender = static_cast<std::int32_t>(Word(12));
    const auto type = static_cast<std::int32_t>(Word(16));
    message.payload.assign(pending_.begin() + 24, pending_.begin() + Word(0));
    if (type == -1) {
      message.type = "sender";
      senders.push_back(message.Text(4));
    } else if (type == -2) {
      message.type = "type";
      types.push_back(message.Text(4));
    } else {
      message.type = types.at(static_cast<std::size_t>(type));
    }
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(size));
    heard.push_back(std::move(message));
  }

  Octets pending_;
};

inline constexpr const char* kVrpnPose = "vrpn_Tracker Pos_Quat";

class VrpnTestClient {
 public:
  // Connects, as soon as the server listens, and sends `hello`.
  explicit VrpnTestClient(std::uint16_t port, const Octets& hello = WatchedVrpnCookie()) {
    const auto address = NumericAddresses("127.0.0.1", port);
    WaitUntil([&] {
      auto connected = StreamSocket::Connect(address.value()[0], Deadline(Milliseconds(1000)));
      if (connected.Ok()) socket_.emplace(std::move(*connected));
      return connected.Ok();
    });
    Send(hello);
  }
  explicit VrpnTestClient(StreamSocket socket) : socket_(std::move(socket)) {}

  bool Send(const Octets& bytes) {
    return socket_ && socket_->Send(bytes, Deadline(Milliseconds(5000))).Ok();
  }

  // Takes what has come. False: the server has closed the connection.
  bool Hear() {
    std::array<std::byte, 65536> bytes;
    for (;;) {
      const auto got = socket_->ReceiveSome(bytes);
      if (!got.Ok()) return false;
      if (*got == 0) return true;
      std::span<const std::byte> rest(bytes.data(), *got);
      while (cookie.size() < 24 && !rest.empty()) {
        cookie += static_cast<char>(rest[0]);
        rest = rest.subspan(1);
      }
      ear.Add(rest);
    }
  }

  // The next message of the type, whatever comes before it.
  std::optional<VrpnHeard> Next(const std::string& type) {
    std::optional<VrpnHeard> found;
    WaitUntil([&] {
      const bool open = Hear();
      while (!found && !ear.heard.empty()) {
        if (ear.heard.front().type == type) found = ear.heard.front();
        ear.heard.pop_front();
      }
      return found.has_value() || !open;
    });
    return found;
  }

  bool ExpectClosed(std::chrono::milliseconds patience = kPatience) {
    return WaitUntil([&] { return !Hear(); }, patience);
  }

  StreamSocket& socket() { return *socket_; }

  std::string cookie;
  VrpnEar ear;

 private:
  std::optional<StreamSocket> socket_;
};

}  // namespace kinetrel::test
