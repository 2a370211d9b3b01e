// TCP: connecting, listening, sending and receiving, each step with one deadline.
//
// Every socket uses keep-alive (idle 30 s, then 3 probes 10 s apart) and sends small messages at
// once. When the peer is gone, the step fails; the process never gets a signal.
//
// Errors   NotFound: no such host. Denied: not permitted. Busy: the address is taken. TimedOut: the
//          deadline passed. Closed: the far end refused, ended or broke the connection. NoSpace:
//          the system's limit. Else Failed, with the system's number.
// Memory   nothing is allocated, except where an operation says so.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/status.h"

namespace kinetrel {

// An address and port in the system's own form.
struct StreamAddress {
  alignas(8) std::array<std::byte, 128> bytes{};
  std::uint32_t length = 0;
  int family = 0;
};

// ---- Looking up hosts ------------------------------------------------------------------------

// The address that `host` itself is, without a look-up; never empty. NotFound: it is a name.
Result<std::vector<StreamAddress>> NumericAddresses(const std::string& host, std::uint16_t port);

// The addresses that the system finds for the name; never empty. May take many seconds.
Result<std::vector<StreamAddress>> LookUpAddresses(const std::string& host, std::uint16_t port);

// ---- Connections -----------------------------------------------------------------------------

inline constexpr std::intptr_t kNoStream = -1;  // no socket

class StreamListener;
struct StreamWait;

// One connection.
//
// Threads  one at a time.
class StreamSocket {
 public:
  // Allocates only when it fails.
  static Result<StreamSocket> Connect(const StreamAddress& to, const Deadline& deadline);

  StreamSocket(StreamSocket&& other) noexcept : handle_(other.Release()) {}
  StreamSocket& operator=(StreamSocket&& other) noexcept;
  ~StreamSocket() { Close(); }

  // Sends all of `bytes`. After a failure some may have been sent: close the connection.
  Status Send(std::span<const std::byte> bytes, const Deadline& deadline);

  // Receives at least one byte and at most what fits. Closed: the far end ended the connection.
  Result<std::size_t> Receive(std::span<std::byte> into, const Deadline& deadline);

  // The same without waiting. 0: no room to send, or nothing to receive.
  Result<std::size_t> SendSome(std::span<const std::byte> bytes);
  Result<std::size_t> ReceiveSome(std::span<std::byte> into);

  // Limits roughly how many bytes of each direction the system holds for this connection. Without a
  // limit it may hold megabytes for a far end that does not read.
  void LimitBuffers(int bytes);

  // Whether the connection is open and has nothing to receive.
  bool IsQuiet() const;

 private:
  friend StreamListener;
  friend bool WaitForStreams(const StreamListener*, std::span<StreamWait>, Milliseconds);
  explicit StreamSocket(std::intptr_t handle) : handle_(handle) {}
  Status AwaitInput(const Deadline& deadline) const;
  Status AwaitRoom(const Deadline& deadline) const;
  std::intptr_t Release();
  void Close();

  std::intptr_t handle_;
};

// Connects by name. A look-up that outlasts its deadline goes on, and the next attempt at the same
// name uses its result: each object runs at most one look-up of a name.
//
// Threads  one at a time.
class StreamConnector {
 public:
  // Tries the addresses of `host` in turn; numeric ones are not looked up. Allocates.
  Result<StreamSocket> Connect(const std::string& host, std::uint16_t port,
                               const Deadline& deadline);

 private:
  struct LookUp;  // stream_connector.cpp
  Result<std::vector<StreamAddress>> Resolve(const std::string& host, std::uint16_t port,
                                             const Deadline& deadline);

  std::shared_ptr<LookUp> pending_;
};

// For a socket that will listen, before it is bound. While it listens, no other program can take
// its port; when it has ended, the next one can, although old connections are still ending.
void ClaimPort(std::intptr_t handle);

// A port that accepts connections.
//
// Threads  one at a time.
class StreamListener {
 public:
  // address  numeric, IPv4 or IPv6 ("0.0.0.0" for all of the machine's). Allocates.
  // port     0: any that is free; see port().
  static Result<StreamListener> Open(const std::string& address, std::uint16_t port);

  StreamListener(StreamListener&& other) noexcept;
  StreamListener& operator=(StreamListener&&) = delete;
  ~StreamListener();

  // The next connection that waits. TimedOut: none does.
  Result<StreamSocket> Accept();

  std::uint16_t port() const;

 private:
  friend bool WaitForStreams(const StreamListener*, std::span<StreamWait>, Milliseconds);
  explicit StreamListener(std::intptr_t handle) : handle_(handle) {}

  std::intptr_t handle_;
};

// One connection to wait for.
struct StreamWait {
  const StreamSocket* socket = nullptr;
  bool forRoom = false;  // to send; false: for something to receive
  bool ready = false;    // set by the wait
};

inline constexpr std::size_t kMostStreamWaits = 255;

// Waits until the listener (null: none) has a connection or one of `waits` is ready; a connection
// that has ended counts as ready. Looks at the first kMostStreamWaits only. Returns whether the
// listener has a connection.
bool WaitForStreams(const StreamListener* listener, std::span<StreamWait> waits,
                    Milliseconds timeout);

}  // namespace kinetrel
