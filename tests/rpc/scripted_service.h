// The far end of a client's connection on a real loopback socket, controlled by a test's script.
#pragma once

#include <atomic>
#include <functional>
#include <thread>

#include "platform/stream_socket.h"
#include "tests/rpc/hex.h"
#include "tests/support/wait_until.h"

namespace kinetrel::test {

// One accepted connection, which the script controls.
class ServiceLine {
 public:
  ServiceLine(StreamSocket socket, const std::atomic<bool>& stop)
      : socket_(std::move(socket)), stop_(stop) {}

  // False when the client has closed the connection or the test has ended.
  bool Send(const Octets& bytes) { return socket_.Send(bytes, Deadline(kPatience)).Ok(); }
  bool Take(std::size_t size) {
    Octets bytes(size);
    std::size_t got = 0;
    while (got < size && !stop_) {
      const auto some = socket_.Receive(std::span(bytes).subspan(got), Deadline(Milliseconds(20)));
      if (some.Ok()) got += *some;
      if (!some.Ok() && some.status().error != Error::TimedOut) return false;
    }
    taken = bytes;
    return got == size;
  }
  // Binds the client and takes its first request.
  bool TakeRequest(const Octets& bindAnswer) { return Take(72) && Send(bindAnswer) && Take(36); }
  // Waits until the client closes the connection or the test ends.
  void Hold() {
    while (Take(1)) {
    }
  }
  bool over() const { return stop_; }

  Octets taken;

 private:
  StreamSocket socket_;
  const std::atomic<bool>& stop_;
};

class ScriptedService {
 public:
  // Plays `script` for every connection, one after the other.
  explicit ScriptedService(std::function<void(ServiceLine&)> script) : script_(std::move(script)) {
    thread_ = std::thread([this] { Run(); });
  }
  ~ScriptedService() {
    stop_ = true;
    thread_.join();
  }
  ScriptedService(const ScriptedService&) = delete;
  ScriptedService& operator=(const ScriptedService&) = delete;

  std::uint16_t port() const { return listener_.port(); }
  int connections() const { return connections_; }

 private:
  void Run() {
    while (!stop_) {
      WaitForStreams(&listener_, {}, Milliseconds(20));
      auto socket = listener_.Accept();
      if (!socket.Ok()) continue;
      ++connections_;
      ServiceLine line(std::move(*socket), stop_);
      script_(line);
    }
  }

  StreamListener listener_ = std::move(*StreamListener::Open("127.0.0.1", 0));
  std::function<void(ServiceLine&)> script_;
  std::atomic<bool> stop_ = false;
  std::atomic<int> connections_ = 0;
  std::thread thread_;
};

}  // namespace kinetrel::test
