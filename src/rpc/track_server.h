// Serves the procedures of a tracking service to many clients, on one thread.
//
// The protocol neither identifies clients nor encrypts: every client that can connect can call.
//
// Bounds   at most kMostClients connections, each of fixed size. When all are in use, a new client
//          replaces the longest idle one if that has been idle for kIdleLimit; otherwise the new
//          client is closed. A client that does not bind, complete a message or read its reply
//          within 5 s is closed.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/stream_socket.h"
#include "platform/thread.h"
#include "rpc/server_session.h"

namespace kinetrel::rpc {

class TrackServer {
 public:
  static constexpr std::size_t kMostClients = 64;
  static constexpr Milliseconds kIdleLimit{30000};

  // procedures  called on the server's thread; must outlive the server.
  TrackServer(StreamListener listener, TrackProcedures& procedures);
  ~TrackServer();  // stops
  TrackServer(const TrackServer&) = delete;
  TrackServer& operator=(const TrackServer&) = delete;

  Status Start();  // call it once
  void Stop();     // waits for the current call to end

  std::uint16_t port() const { return listener_.port(); }
  std::size_t clients() const { return clientCount_; }  // any thread

 private:
  struct Client {
    StreamSocket socket;
    ServerSession session;
  };

  void Run();
  bool Wait();
  void AcceptWaiting();
  void Admit(StreamSocket socket);
  bool Serve(Client& client, bool ready);
  bool TakeInput(Client& client);
  bool GiveOutput(Client& client);

  StreamListener listener_;
  TrackProcedures& procedures_;
  const std::string endpoint_;
  std::atomic<bool> stop_ = false;
  std::atomic<std::size_t> clientCount_ = 0;
  std::optional<Thread> thread_;

  // The server's thread only.
  std::vector<std::unique_ptr<Client>> clients_;
  std::vector<StreamWait> waits_;
  std::uint32_t lastGroup_ = 0;
  bool moreToDo_ = false;
  Deadline acceptAgain_{Milliseconds(0)};
};

}  // namespace kinetrel::rpc
