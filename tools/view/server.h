// The web server: accepts connections, checks each request, answers it or makes it a viewer.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <memory>
#include <string>
#include <vector>

#include "view/view_options.h"

namespace kinetrel::view {

struct House;  // what the connections share; server.cpp

class Server {
 public:
  explicit Server(const ViewOptions& options);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Returns the reason in words if the address cannot be served, else an empty text.
  std::string Open();

  // The addresses for the user, with the token if one is asked for. The first one reaches the
  // server from this machine. After Open.
  std::vector<std::string> Addresses() const;

  // Serves until SIGINT or SIGTERM.
  void Run();

 private:
  void Accept();
  void Take(boost::asio::ip::tcp::socket socket);

  const ViewOptions options_;
  const std::string token_;  // empty: none is asked for
  boost::asio::io_context context_{1};
  boost::asio::ip::tcp::acceptor acceptor_{context_};
  boost::asio::steady_timer pause_{context_};
  boost::asio::signal_set signals_{context_};
  std::shared_ptr<House> house_;
};

}  // namespace kinetrel::view
