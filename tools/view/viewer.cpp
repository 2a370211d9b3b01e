#include "view/viewer.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/websocket/rfc6455.hpp>
#include <utility>

#include "view/view_json.h"

namespace kinetrel::view {
namespace {

namespace asio = boost::asio;
namespace websocket = boost::beast::websocket;

constexpr std::size_t kLargestMessage = 64;  // bytes that a viewer may send at once

// The system's own buffer is a queue too: it must not hold many old frames.
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
      ticket_(std::move(ticket)) {
  // Pings find a viewer that has gone, and one that reads nothing any more.
  socket_.set_option(websocket::stream_base::timeout{patience, patience, true});
  socket_.read_message_max(kLargestMessage);
  socket_.auto_fragment(false);
  socket_.text(true);
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
  writing_ = TakeNext();
  if (!writing_) return;
  socket_.async_write(asio::buffer(*writing_),
                      [self = shared_from_this()](Error error, std::size_t) {
                        self->writing_ = nullptr;
                        if (!error) self->WriteNext();
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
  if (!shown_.log || shown_.log->log.empty()) return nullptr;
  const bool sameRun = before && before->run.started_ns == shown_.log->run.started_ns;
  const std::uint64_t after = sameRun ? lastLine_ : 0;
  lastLine_ = shown_.log->log.back().number;
  if (lastLine_ == after) return nullptr;
  return std::make_shared<const std::string>(LogMessage(*shown_.log, after));
}

}  // namespace kinetrel::view
