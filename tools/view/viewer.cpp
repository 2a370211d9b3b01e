#include "view/viewer.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/websocket/rfc6455.hpp>
#include <charconv>
#include <string>
#include <utility>

#include "view/view_json.h"

namespace kinetrel::view {
namespace {

namespace asio = boost::asio;
namespace websocket = boost::beast::websocket;

constexpr std::size_t kLargestMessage = 64;  // bytes that a viewer may send at once

// A viewer that reads late finds at most this many old messages.
constexpr std::uint64_t kMostUnconfirmed = 8;
constexpr std::uint64_t kAskEvery = 2;  // messages from one ping to the next

// What the system holds for a viewer that confirms without reading.
constexpr int kSendBuffer = 64 * 1024;

}  // namespace

// ---- Audience -----------------------------------------------------------------------------------

void Audience::Join(int slot, Viewer& viewer) {
  Stage& stage = stages_[static_cast<std::size_t>(slot - 1)];
  if (!stage.feed) {
    // News that come before the last ones were told are told with them.
    stage.feed = std::make_unique<TrackerFeed>(slot, [this, &stage] {
      if (stage.newsUnderWay.exchange(true)) return;
      asio::post(context_, [this, &stage] { TellNews(stage); });
    });
  }
  stage.viewers.insert(&viewer);
  stage.feed->SetWatched(true);
  viewer.Show(stage.feed->News());
}

void Audience::Leave(int slot, Viewer& viewer) {
  Stage& stage = stages_[static_cast<std::size_t>(slot - 1)];
  stage.viewers.erase(&viewer);
  if (stage.viewers.empty() && stage.feed) stage.feed->SetWatched(false);
}

void Audience::EndFeeds() {
  for (Stage& stage : stages_) stage.feed.reset();
}

void Audience::TellNews(Stage& stage) {
  stage.newsUnderWay = false;
  if (!stage.feed) return;
  const FeedNews news = stage.feed->News();
  for (Viewer* const viewer : stage.viewers) viewer->Show(news);
}

// ---- Viewer -------------------------------------------------------------------------------------

Viewer::Viewer(boost::beast::tcp_stream stream, int slot, std::shared_ptr<Audience> audience,
               std::chrono::seconds patience, Ticket ticket)
    : socket_(std::move(stream)),
      received_(kLargestMessage),
      slot_(slot),
      audience_(std::move(audience)),
      ticket_(std::move(ticket)),
      patience_(patience),
      timer_(socket_.get_executor()) {
  // Finds a viewer that has gone while it was paused.
  socket_.set_option(websocket::stream_base::timeout{patience, patience, true});
  socket_.read_message_max(kLargestMessage);
  socket_.auto_fragment(false);
  socket_.text(true);
  socket_.control_callback([this](websocket::frame_type kind, boost::beast::string_view payload) {
    if (kind == websocket::frame_type::pong) Confirm({payload.data(), payload.size()});
  });
}

Viewer::~Viewer() {
  if (watching_) audience_->Leave(slot_, *this);
}

void Viewer::Start(const Request& request) {
  Error ignored;
  auto& tcp = socket_.next_layer();
  tcp.expires_never();  // the WebSocket has its own time-outs
  tcp.socket().set_option(asio::ip::tcp::no_delay(true), ignored);
  tcp.socket().set_option(asio::socket_base::send_buffer_size(kSendBuffer), ignored);
  socket_.async_accept(request, [self = shared_from_this()](Error error) {
    if (error) return;
    self->CheckPatience();
    self->SetWatching(true);
    self->Read();
  });
}

void Viewer::Read() {
  socket_.async_read(received_, [self = shared_from_this()](Error error, std::size_t size) {
    self->Obey(error, size);
  });
}

// The two words of a viewer.
void Viewer::Obey(Error error, std::size_t size) {
  const std::string word = boost::beast::buffers_to_string(received_.data());
  received_.consume(size);
  if (error) {
    SetWatching(false);
    return;
  }
  if (word == "pause" || word == "resume") {
    SetWatching(word == "resume");
    return Read();
  }
  SetWatching(false);
  refused_ = true;
  socket_.async_close({websocket::close_code::policy_error, "Only pause and resume are known."},
                      [self = shared_from_this()](Error) {});
}

void Viewer::SetWatching(bool watching) {
  if (watching == watching_) return;
  watching_ = watching;
  if (!watching) return audience_->Leave(slot_, *this);
  news_ = {};
  shown_.status = {};  // it comes first again
  audience_->Join(slot_, *this);
}

void Viewer::Show(const FeedNews& news) {
  news_ = news;
  WriteNext();
}

// One message at a time. What comes meanwhile replaces what is waiting.
void Viewer::WriteNext() {
  if (writing_ || !watching_ || refused_) return;
  if (sent_ - asked_ >= kAskEvery) return Ask();
  if (sent_ - confirmed_ >= kMostUnconfirmed) return;  // until it confirms some
  const Message next = TakeNext();
  if (!next) return;
  BeginWriting();
  ++sent_;
  socket_.async_write(
      asio::buffer(*next),
      [self = shared_from_this(), next](Error error, std::size_t) { self->EndWriting(error); });
}

// A ping with the count of messages, which the answer repeats.
void Viewer::Ask() {
  BeginWriting();
  asked_ = sent_;
  const std::string count = std::to_string(asked_);
  socket_.async_ping({count.data(), count.size()},
                     [self = shared_from_this()](Error error) { self->EndWriting(error); });
}

void Viewer::BeginWriting() {
  if (!IsDue()) dueSince_ = std::chrono::steady_clock::now();
  writing_ = true;
}

void Viewer::EndWriting(Error error) {
  writing_ = false;
  if (!error) WriteNext();
}

// Counts that were not asked for confirm nothing.
void Viewer::Confirm(std::string_view answer) {
  std::uint64_t count = 0;
  const char* const end = answer.data() + answer.size();
  const auto [stop, bad] = std::from_chars(answer.data(), end, count);
  if (bad != std::errc() || stop != end || count <= confirmed_ || count > asked_) return;
  confirmed_ = count;
  dueSince_ = std::chrono::steady_clock::now();
  asio::post(socket_.get_executor(), [self = shared_from_this()] { self->WriteNext(); });
}

bool Viewer::IsDue() const { return writing_ || asked_ > confirmed_; }

// Drops a viewer that has taken nothing for too long, whatever it sends itself.
void Viewer::CheckPatience() {
  const auto now = std::chrono::steady_clock::now();
  const auto end = (IsDue() ? dueSince_ : now) + patience_;
  if (now >= end) return socket_.next_layer().close();
  timer_.expires_at(end);
  timer_.async_wait([weak = weak_from_this()](Error error) {
    if (const auto self = weak.lock(); self && !error) self->CheckPatience();
  });
}

Message Viewer::TakeNext() {
  if (news_.status != shown_.status) return shown_.status = news_.status;
  if (!shown_.status) return nullptr;
  if (news_.log && news_.log != shown_.log) {
    if (Message log = TakeLog()) return log;
  }
  if (news_.frame != shown_.frame) return shown_.frame = news_.frame;
  return nullptr;
}

// The lines that this viewer has not seen. Null: none.
Message Viewer::TakeLog() {
  const auto before = std::exchange(shown_.log, news_.log);
  const TrackerSnapshot& now = *shown_.log;
  if (!before || before->run.started_ns != now.run.started_ns) lastLine_ = 0;
  if (now.log.empty() || now.log.back().number <= lastLine_) return nullptr;
  const std::uint64_t after = std::exchange(lastLine_, now.log.back().number);
  return std::make_shared<const std::string>(LogMessage(now, after));
}

}  // namespace kinetrel::view
