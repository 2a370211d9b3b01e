#include "view/server.h"

#include <boost/asio/ip/host_name.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/beast/websocket/rfc6455.hpp>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

#include "platform/stream_socket.h"
#include "view/access.h"
#include "view/site.h"
#include "view/viewer.h"

namespace kinetrel::view {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using asio::ip::tcp;
using Error = boost::system::error_code;

struct House {
  const AccessRules rules;
  const std::chrono::seconds patience;
  const std::shared_ptr<Audience> audience;
  const Ticket connections = std::make_shared<int>();  // a copy for each, and this one
  const Ticket viewers = std::make_shared<int>();

  static std::size_t Holders(const Ticket& ticket) {
    return static_cast<std::size_t>(ticket.use_count() - 1);
  }
};

namespace {

constexpr std::size_t kMostConnections = 256;
constexpr std::size_t kMostRefused = 32;  // connections beyond, while they are told so
constexpr std::size_t kLargestHead = 8192;
constexpr std::chrono::milliseconds kAcceptAgain{100};
constexpr std::chrono::seconds kLinger{1};
constexpr std::size_t kMostLingering = 256 * 1024;  // bytes that are read and dropped

constexpr const char* kContentPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
    "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

using Request = http::request<http::empty_body>;

std::string_view View(beast::string_view text) { return {text.data(), text.size()}; }

Visit VisitOf(const Request& request) {
  return {.target = View(request.target()),
          .host = View(request[http::field::host]),
          .origin = View(request[http::field::origin]),
          .fetchSite = View(request["Sec-Fetch-Site"]),
          .fetchMode = View(request["Sec-Fetch-Mode"]),
          .cookie = View(request[http::field::cookie]),
          .authorization = View(request[http::field::authorization])};
}

bool HasBody(const Request& request) {
  if (request.chunked()) return true;
  const auto length = request.find(http::field::content_length);
  return length != request.end() && length->value() != "0";
}

// What is wrong with the request itself; none: nothing.
std::optional<Answer> Malformed(const Request& request) {
  const auto [first, last] = request.equal_range(http::field::host);
  if (std::distance(first, last) > 1) return ErrorAnswer(400, "The request has two hosts.");
  if (request.method() != http::verb::get && request.method() != http::verb::head) {
    return ErrorAnswer(405, "Only GET and HEAD are known.");
  }
  if (HasBody(request)) return ErrorAnswer(400, "The request must not have a body.");
  if (!request.target().starts_with('/')) return ErrorAnswer(400, "The request names no path.");
  return {};
}

std::optional<Answer> Refusal(Access access) {
  switch (access) {
    case Access::NoHost:
      return ErrorAnswer(400, "The request names no host.");
    case Access::ForeignHost:
      return ErrorAnswer(403, "The request names another host.");
    case Access::ForeignOrigin:
      return ErrorAnswer(403, "Pages of this origin may not read here.");
    case Access::NoToken:
      return ErrorAnswer(401, "The token is missing or wrong: kinetrel-view printed it.");
    case Access::Granted:
      break;
  }
  return {};
}

// ---- One connection -----------------------------------------------------------------------------

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  // full  all connections are in use: tells so.
  Connection(tcp::socket socket, std::shared_ptr<House> house, bool full)
      : stream_(std::move(socket)),
        house_(std::move(house)),
        ticket_(house_->connections),
        full_(full) {}

  void Read();

 private:
  void Judge(Error error);
  void Serve(const Request& request);
  void Send(const Answer& answer);
  void Linger();
  void Drop();

  beast::tcp_stream stream_;
  beast::flat_buffer received_{2 * kLargestHead};
  std::optional<http::request_parser<http::empty_body>> parser_;
  http::response<http::string_body> response_;
  const std::shared_ptr<House> house_;
  const Ticket ticket_;
  const bool full_;
  std::size_t lingered_ = 0;
};

void Connection::Read() {
  parser_.emplace();
  parser_->header_limit(kLargestHead);
  stream_.expires_after(house_->patience);
  http::async_read_header(
      stream_, received_, *parser_,
      [self = shared_from_this()](Error error, std::size_t) { self->Judge(error); });
}

void Connection::Judge(Error error) {
  if (full_) return Send(ErrorAnswer(503, "All connections are in use."));
  if (error == http::error::header_limit || error == http::error::buffer_overflow) {
    return Send(ErrorAnswer(431, "The head of the request is too large."));
  }
  if (error == http::error::end_of_stream || error == http::error::partial_message) return Drop();
  if (error && error.category() == http::make_error_code(http::error::bad_value).category()) {
    return Send(ErrorAnswer(400, "This is not an HTTP request."));
  }
  if (error) return Drop();
  Serve(parser_->get());
}

void Connection::Serve(const Request& request) {
  if (const auto malformed = Malformed(request)) return Send(*malformed);
  const Visit visit = VisitOf(request);
  if (const auto refusal = Refusal(house_->rules.Check(visit))) return Send(*refusal);
  const std::string_view path = PathOf(visit.target);
  const std::optional<int> slot = SlotOfStream(path);
  if (slot && *slot >= 1 && *slot <= kinetrel_stream_slots &&
      beast::websocket::is_upgrade(request)) {
    auto ticket = std::make_shared<std::pair<Ticket, Ticket>>(ticket_, house_->viewers);
    std::make_shared<Viewer>(std::move(stream_), *slot, house_->audience, house_->patience, ticket)
        ->Start(request);
    return;
  }
  Send(AnswerTo(path, {House::Holders(house_->connections), House::Holders(house_->viewers)}));
}

void Connection::Send(const Answer& answer) {
  const Request& request = parser_->get();
  const Visit visit = VisitOf(request);
  const bool whole = parser_->is_header_done();
  response_ = {};
  response_.result(answer.status);
  response_.version(11);
  response_.set(http::field::content_type, answer.type);
  response_.set("Content-Security-Policy", kContentPolicy);
  response_.set("X-Content-Type-Options", "nosniff");
  response_.set("Cross-Origin-Resource-Policy", "same-origin");
  response_.set("Referrer-Policy", "no-referrer");
  response_.set(http::field::cache_control, "no-store");
  if (answer.status == 405) response_.set(http::field::allow, "GET, HEAD");
  if (answer.status == 426) response_.set(http::field::upgrade, "websocket");
  if (answer.status == 401) response_.set(http::field::www_authenticate, "Bearer");
  if (house_->rules.IsAllowedOrigin(visit.origin)) {
    response_.set(http::field::access_control_allow_origin, request[http::field::origin]);
    response_.set(http::field::vary, "Origin");
  }
  const std::string cookie = answer.status == 200 ? house_->rules.CookieFor(visit) : "";
  if (!cookie.empty()) response_.set(http::field::set_cookie, cookie);
  response_.keep_alive(whole && answer.status < 400 && request.keep_alive());
  response_.content_length(answer.body.size());
  if (!whole || request.method() != http::verb::head) response_.body() = answer.body;

  stream_.expires_after(house_->patience);
  http::async_write(stream_, response_, [self = shared_from_this()](Error error, std::size_t) {
    if (error) return self->Drop();
    if (self->response_.keep_alive()) return self->Read();
    Error ignored;
    self->stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
    self->stream_.expires_after(kLinger);
    self->Linger();
  });
}

// A connection that is closed while bytes wait to be read loses the answer on its way.
void Connection::Linger() {
  received_.clear();
  stream_.async_read_some(received_.prepare(kLargestHead),
                          [self = shared_from_this()](Error error, std::size_t size) {
                            self->lingered_ += size;
                            if (error || self->lingered_ > kMostLingering) return self->Drop();
                            self->Linger();
                          });
}

void Connection::Drop() { stream_.close(); }

std::string UrlOf(const std::string& host, unsigned port, const std::string& token) {
  return "http://" + host + ":" + std::to_string(port) + "/" +
         (token.empty() ? "" : "?token=" + token);
}

}  // namespace

// ---- The server ---------------------------------------------------------------------------------

Server::Server(const ViewOptions& options)
    : options_(options), token_(options.listen.empty() ? "" : MakeToken()) {}

Server::~Server() {
  if (house_) house_->audience->EndFeeds();
}

std::string Server::Open() {
  Error error;
  const std::string host = options_.listen.empty() ? "127.0.0.1" : options_.listen;
  const tcp::endpoint endpoint(asio::ip::make_address(host), options_.port);
  acceptor_.open(endpoint.protocol(), error);
  if (!error) ClaimPort(static_cast<std::intptr_t>(acceptor_.native_handle()));
  if (!error && endpoint.address() == asio::ip::address_v6::any()) {
    acceptor_.set_option(asio::ip::v6_only(false), error);
  }
  if (!error) acceptor_.bind(endpoint, error);
  if (!error) acceptor_.listen(asio::socket_base::max_listen_connections, error);
  if (error == asio::error::address_in_use) {
    return "port " + std::to_string(options_.port) + " is in use: choose another one with --port";
  }
  if (error) return "cannot serve " + host + ": " + error.message();
  const std::string cookie = "kinetrel-view-" + std::to_string(acceptor_.local_endpoint().port());
  house_ = std::make_shared<House>(House{AccessRules(token_, options_.allowedOrigins, cookie),
                                         std::chrono::seconds(options_.patience),
                                         std::make_shared<Audience>(context_)});
  signals_.add(SIGINT);
  signals_.add(SIGTERM);
  signals_.async_wait([this](Error, int) { context_.stop(); });
  Accept();
  return {};
}

std::vector<std::string> Server::Addresses() const {
  const tcp::endpoint endpoint = acceptor_.local_endpoint();
  const asio::ip::address address = endpoint.address();
  if (!address.is_unspecified()) {
    const std::string host =
        address.is_v6() ? "[" + address.to_string() + "]" : address.to_string();
    return {UrlOf(host, endpoint.port(), token_)};
  }
  Error error;
  std::vector<std::string> addresses = {UrlOf("127.0.0.1", endpoint.port(), token_)};
  const std::string name = asio::ip::host_name(error);
  if (!error) addresses.push_back(UrlOf(name, endpoint.port(), token_));
  return addresses;
}

void Server::Run() { context_.run(); }

void Server::Accept() {
  acceptor_.async_accept([this](Error error, tcp::socket socket) {
    if (!error) {
      Take(std::move(socket));
      return Accept();
    }
    // Out of descriptors, most likely: connections that end make room.
    pause_.expires_after(kAcceptAgain);
    pause_.async_wait([this](Error) { Accept(); });
  });
}

void Server::Take(tcp::socket socket) {
  const std::size_t count = House::Holders(house_->connections);
  if (count >= kMostConnections + kMostRefused) return;
  std::make_shared<Connection>(std::move(socket), house_, count >= kMostConnections)->Read();
}

}  // namespace kinetrel::view
