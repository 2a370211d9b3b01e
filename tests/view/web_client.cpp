#include "tests/view/web_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <utility>

#include "tests/support/wait_until.h"

namespace kinetrel::test {

WebClient::WebClient(int port) : port_(port), socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const timeval patience{kPatience.count() / 1000, 0};
  ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  if (::connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error("the server takes no connection");
  }
}

WebClient::~WebClient() {
  if (socket_ >= 0) ::close(socket_);
}

WebClient::WebClient(WebClient&& other) noexcept
    : port_(other.port_),
      socket_(std::exchange(other.socket_, -1)),
      received_(std::move(other.received_)) {}

void WebClient::Send(const std::string& bytes) {
  for (std::size_t sent = 0; sent < bytes.size();) {
    const ssize_t now = ::send(socket_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (now <= 0) return;
    sent += static_cast<std::size_t>(now);
  }
}

bool WebClient::Fill() {
  char bytes[65536];
  const ssize_t got = ::recv(socket_, bytes, sizeof bytes, 0);
  if (got < 0 && errno == EAGAIN) throw std::runtime_error("the server is silent");
  if (got <= 0) return false;
  received_.append(bytes, static_cast<std::size_t>(got));
  return true;
}

std::string WebClient::Take(std::size_t count) {
  while (received_.size() < count && Fill()) {
  }
  const std::string taken = received_.substr(0, count);
  received_.erase(0, count);
  return taken;
}

WebAnswer WebClient::Receive(bool hasBody) {
  std::size_t end = 0;
  while ((end = received_.find("\r\n\r\n")) == std::string::npos) {
    if (!Fill()) return {};
  }
  WebAnswer answer;
  answer.head = Take(end + 4);
  answer.status = std::stoi(answer.head.substr(9, 3));
  const std::size_t length = answer.head.find("Content-Length: ");
  if (hasBody && length != std::string::npos) {
    answer.body = Take(std::stoul(answer.head.substr(length + 16)));
  }
  return answer;
}

WebAnswer WebClient::Get(const std::string& target, const std::string& fields) {
  Send("GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port_) + "\r\n" + fields +
       "\r\n");
  return Receive();
}

bool WebClient::AwaitClosed() {
  try {
    while (Fill()) received_.clear();
    return true;
  } catch (const std::runtime_error&) {
    return false;
  }
}

WebAnswer WebClient::Upgrade(const std::string& target, const std::string& fields) {
  return Get(target,
             "Connection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
             "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n" +
                 fields);
}

void WebClient::SendFrame(int opcode, const std::string& payload) {
  std::string frame = {static_cast<char>(0x80 | opcode),
                       static_cast<char>(0x80 | static_cast<int>(payload.size()))};
  frame += std::string(4, '\0') + payload;  // a mask of zeros leaves the payload as it is
  Send(frame);
}

WebClient::Frame WebClient::ReceiveFrame() {
  for (;;) {
    const Frame frame = ReceiveAnyFrame();
    if (frame.opcode != 9) return frame;
    SendFrame(10, frame.payload);
  }
}

WebClient::Frame WebClient::ReceiveAnyFrame() {
  const std::string head = Take(2);
  if (head.size() < 2) return {};
  std::size_t size = static_cast<unsigned char>(head[1]);
  if (size >= 126) {
    const std::string more = Take(size == 126 ? 2 : 8);
    size = 0;
    for (const char byte : more) size = size << 8 | static_cast<unsigned char>(byte);
  }
  return {head[0] & 0xF, Take(size)};
}

}  // namespace kinetrel::test
