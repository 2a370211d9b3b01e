// A client of kinetrel-view over a bare socket, which may also send what no honest client sends.
#pragma once

#include <cstddef>
#include <map>
#include <string>

namespace kinetrel::test {

struct WebAnswer {
  int status = 0;  // 0: the server closed the connection without an answer
  std::string head;
  std::string body;
};

class WebClient {
 public:
  explicit WebClient(int port);
  ~WebClient();
  WebClient(WebClient&& other) noexcept;
  WebClient(const WebClient&) = delete;
  WebClient& operator=(const WebClient&) = delete;

  void Send(const std::string& bytes);  // as far as the server takes them
  WebAnswer Receive(bool hasBody = true);

  // With the fields that a request must have, and `fields`: whole lines.
  WebAnswer Get(const std::string& target, const std::string& fields = "");

  // Waits until the server has closed the connection; drops what it sends. False: it never did.
  bool AwaitClosed();

  // ---- As a WebSocket ----
  WebAnswer Upgrade(const std::string& target, const std::string& fields = "");
  void SendFrame(int opcode, const std::string& payload);
  struct Frame {
    int opcode = -1;  // 1 text, 8 close, 10 pong; -1: the connection is closed
    std::string payload;
  };
  Frame ReceiveFrame();  // answers pings by itself

 private:
  Frame ReceiveAnyFrame();
  std::string Take(std::size_t count);  // fewer: the connection is closed
  bool Fill();

  int port_;
  int socket_;
  std::string received_;
};

}  // namespace kinetrel::test
