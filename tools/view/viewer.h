// The viewers of the trackers: WebSockets that get the newest messages of a slot's feed.
//
// Threads  the one that runs the io_context, unless an operation says otherwise.
#pragma once

#include <array>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <chrono>
#include <cstdint>
#include <memory>
#include <set>
#include <string_view>

#include "view/tracker_feed.h"

namespace kinetrel::view {

class Viewer;

// The feeds of all slots and who watches them. A feed's thread starts with the first viewer.
class Audience {
 public:
  explicit Audience(boost::asio::io_context& context) : context_(context) {}
  Audience(const Audience&) = delete;
  Audience& operator=(const Audience&) = delete;

  void Join(int slot, Viewer& viewer);  // slot 1 to 16
  void Leave(int slot, Viewer& viewer);
  void EndFeeds();  // waits for their threads; no news come afterwards

 private:
  struct Stage {
    std::unique_ptr<TrackerFeed> feed;
    std::set<Viewer*> viewers;
    std::atomic<bool> newsUnderWay = false;
  };

  void TellNews(Stage& stage);

  boost::asio::io_context& context_;
  std::array<Stage, kinetrel_stream_slots> stages_;
};

// Each copy counts one: a connection of the server, or a viewer.
using Ticket = std::shared_ptr<void>;

// One WebSocket. It confirms what it has taken by its answers to pings, which every WebSocket gives
// by itself: the system's buffers would take many old frames for it.
class Viewer : public std::enable_shared_from_this<Viewer> {
 public:
  using Request = boost::beast::http::request<boost::beast::http::empty_body>;

  Viewer(boost::beast::tcp_stream stream, int slot, std::shared_ptr<Audience> audience,
         std::chrono::seconds patience, Ticket ticket);
  ~Viewer();
  Viewer(const Viewer&) = delete;
  Viewer& operator=(const Viewer&) = delete;

  void Start(const Request& request);  // answers the request and begins
  void Show(const FeedNews& news);

 private:
  using Error = boost::system::error_code;

  void Read();
  void Obey(Error error, std::size_t size);
  void SetWatching(bool watching);
  void WriteNext();
  void Ask();
  void BeginWriting();
  void EndWriting(Error error);
  Message TakeNext();
  Message TakeLog();
  void Confirm(std::string_view answer);
  bool IsDue() const;  // it has not taken all that was sent, as far as we know
  void CheckPatience();

  boost::beast::websocket::stream<boost::beast::tcp_stream> socket_;
  boost::beast::flat_buffer received_;
  const int slot_;
  const std::shared_ptr<Audience> audience_;
  const Ticket ticket_;
  bool watching_ = false;
  bool refused_ = false;  // the connection is being closed
  FeedNews news_;         // the newest
  FeedNews shown_;        // what was sent of it
  std::uint64_t lastLine_ = 0;
  bool writing_ = false;

  // Messages, counted from the first one.
  std::uint64_t sent_ = 0;
  std::uint64_t asked_ = 0;      // up to here pings have asked
  std::uint64_t confirmed_ = 0;  // up to here pings were answered

  const std::chrono::seconds patience_;
  std::chrono::steady_clock::time_point dueSince_;  // counts while IsDue()
  boost::asio::steady_timer timer_;
};

}  // namespace kinetrel::view
