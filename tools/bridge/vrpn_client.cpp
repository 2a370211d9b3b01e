#include "bridge/vrpn_client.h"

#include <kinetrel/stream.h>

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/asio/write.hpp>

namespace kinetrel::bridge {
namespace {

constexpr std::int64_t kSecondNs = 1000000000;
constexpr std::int64_t kConnectNs = 2 * kSecondNs;
constexpr std::int64_t kCookieNs = 5 * kSecondNs;
constexpr std::int64_t kProgressNs = 10 * kSecondNs;

// Bytes that the system may hold for a client: what is in there cannot be replaced by newer poses.
constexpr int kSendBuffer = 16 * 1024;

// Bytes. Poses replace each other, so only a client that asks and does not read gets there.
constexpr std::size_t kMostWaiting = 256 * 1024;

}  // namespace

VrpnClient::VrpnClient(boost::asio::ip::tcp::socket socket, Server& server,
                       const std::vector<std::string>& devices)
    : socket_(std::move(socket)), server_(server), reader_(devices), called_(!socket_.is_open()) {}

// ---- The connection
// ------------------------------------------------------------------------------

void VrpnClient::Start() {
  boost::system::error_code error;
  peer_ = socket_.remote_endpoint(error);
  if (!error) socket_.non_blocking(true, error);
  if (error) {
    Close();
    return;
  }
  socket_.set_option(boost::asio::ip::tcp::no_delay(true), error);
  socket_.set_option(boost::asio::socket_base::keep_alive(true), error);
  socket_.set_option(boost::asio::socket_base::send_buffer_size(kSendBuffer), error);
  greetBy_ = kinetrel_now_ns() + kCookieNs;
  if (called_) {
    VrpnMessages cookie;
    AppendVrpnCookie(cookie.bytes);
    cookie.End(kVrpnKept);
    Send(cookie);
  }
  Read();
}

void VrpnClient::Call(const boost::asio::ip::tcp::endpoint& endpoint) {
  peer_ = endpoint;
  greetBy_ = kinetrel_now_ns() + kConnectNs;
  socket_.async_connect(endpoint, [self = shared_from_this()](boost::system::error_code error) {
    const std::lock_guard lock(self->server_.Lock());
    if (self->IsClosed()) return;
    if (error) {
      self->Close();
    } else {
      self->Start();
    }
  });
}

void VrpnClient::Close() {
  boost::system::error_code ignored;
  socket_.close(ignored);  // the system may read the queue until the handlers have run
  greeted_ = false;
  poses.reset();
}

void VrpnClient::JudgeTime(std::int64_t nowNs) {
  if (IsClosed()) return;
  const bool stuck = !queue_.empty() && nowNs > progressBy_;
  if (stuck) {
    // Without this, the system goes on offering what it holds for this client, at longer and longer
    // intervals, and the client learns only then that it was dropped.
    boost::system::error_code ignored;
    socket_.set_option(boost::asio::socket_base::linger(true, 0), ignored);
  }
  if (stuck || (!reader_.HasCookie() && nowNs > greetBy_)) Close();
}

// ---- Reading
// -------------------------------------------------------------------------------------

void VrpnClient::Read() {
  if (IsClosed()) return;
  socket_.async_read_some(
      boost::asio::buffer(input_),
      [self = shared_from_this()](boost::system::error_code error, std::size_t count) {
        const std::lock_guard lock(self->server_.Lock());
        if (self->IsClosed()) return;
        if (error) {
          self->Close();
        } else {
          self->OnBytes(count);
        }
      });
}

void VrpnClient::OnBytes(std::size_t count) {
  requests_.clear();
  const bool sound = reader_.Read(std::span(input_).first(count), requests_);
  server_.OnRequests(*this, requests_);
  if (sound) {
    Read();
  } else {
    Close();
  }
}

// ---- Sending
// -------------------------------------------------------------------------------------

std::size_t VrpnClient::Send(const VrpnMessages& messages) {
  if (IsClosed() || messages.bytes.empty()) return 0;
  std::size_t sent = 0;
  if (queue_.empty()) {
    boost::system::error_code error;
    sent = socket_.send(boost::asio::buffer(messages.bytes), 0, error);
    if (error && error != boost::asio::error::would_block) {
      Close();
      return 0;
    }
    if (sent == messages.bytes.size()) return 0;
    progressBy_ = kinetrel_now_ns() + kProgressNs;
  }
  const std::size_t dropped = Queue(messages, sent);
  if (waiting_ > kMostWaiting) {
    Close();
  } else {
    Drain();
  }
  return dropped;
}

// Queues what the socket did not take. The first of these messages may have been sent in part.
std::size_t VrpnClient::Queue(const VrpnMessages& messages, std::size_t sent) {
  std::size_t dropped = 0;
  std::size_t begin = 0;
  for (const VrpnMessages::Mark& mark : messages.marks) {
    if (mark.end > sent) {
      const auto message = std::span(messages.bytes).subspan(begin, mark.end - begin);
      if (!Enqueue(message, mark.key)) ++dropped;
      if (begin < sent) frontSent_ = sent - begin;
    }
    begin = mark.end;
  }
  return dropped;
}

// False: it replaced an older one.
bool VrpnClient::Enqueue(std::span<const std::byte> message, VrpnKey key) {
  // The first is on its way, perhaps in part.
  const auto older = key == kVrpnKept || queue_.empty()
                         ? queue_.end()
                         : std::find_if(queue_.begin() + 1, queue_.end(),
                                        [&](const Waiting& each) { return each.key == key; });
  if (older != queue_.end()) {
    older->bytes.assign(message.begin(), message.end());
    return false;
  }
  queue_.push_back({VrpnBytes(message.begin(), message.end()), key});
  waiting_ += message.size();
  return true;
}

void VrpnClient::Drain() {
  if (draining_ || queue_.empty() || IsClosed()) return;
  draining_ = true;
  const VrpnBytes& front = queue_.front().bytes;
  socket_.async_write_some(
      boost::asio::buffer(front.data() + frontSent_, front.size() - frontSent_),
      [self = shared_from_this()](boost::system::error_code error, std::size_t count) {
        const std::lock_guard lock(self->server_.Lock());
        self->draining_ = false;
        if (self->IsClosed()) return;
        if (error) {
          self->Close();
          return;
        }
        self->progressBy_ = kinetrel_now_ns() + kProgressNs;
        self->frontSent_ += count;
        if (self->frontSent_ == self->queue_.front().bytes.size()) {
          self->waiting_ -= self->frontSent_;
          self->frontSent_ = 0;
          self->queue_.pop_front();
        }
        self->Drain();
      });
}

}  // namespace kinetrel::bridge
