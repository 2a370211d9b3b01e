#include "view/tracker_feed.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "view/view_json.h"

namespace kinetrel::view {
namespace {

using std::chrono::milliseconds;

constexpr int kLookEveryMs = 100;  // at state and log
constexpr milliseconds kStatusEvery{1000};
constexpr milliseconds kRetryEvery{250};  // to open the stream

// At most 60 frames a second, on average over any two.
constexpr std::chrono::nanoseconds kFrameEvery{1'000'000'000 / 60};
constexpr milliseconds kShortWait{4};

Message Share(std::string text) { return std::make_shared<const std::string>(std::move(text)); }

bool SameLog(const TrackerSnapshot& one, const TrackerSnapshot& other) {
  const auto newest = [](const TrackerSnapshot& tracker) {
    return tracker.log.empty() ? 0 : tracker.log.back().number;
  };
  return one.run.started_ns == other.run.started_ns && newest(one) == newest(other);
}

bool SameState(const TrackerSnapshot& one, const TrackerSnapshot& other) {
  return one.result == other.result && one.state == other.state && one.sentence == other.sentence &&
         one.run.started_ns == other.run.started_ns && one.run.sensor_mask == other.run.sensor_mask;
}

}  // namespace

TrackerFeed::TrackerFeed(int slot, std::function<void()> changed)
    : slot_(slot), changed_(std::move(changed)), thread_([this] { Run(); }) {}

TrackerFeed::~TrackerFeed() {
  {
    const std::lock_guard held(lock_);
    ended_ = true;
  }
  woken_.notify_all();
  thread_.join();
}

void TrackerFeed::SetWatched(bool watched) {
  {
    const std::lock_guard held(lock_);
    if (watched && !watched_) ++visit_;
    watched_ = watched;
    if (!watched) news_ = {};
  }
  woken_.notify_all();
}

FeedNews TrackerFeed::News() const {
  const std::lock_guard held(lock_);
  return news_;
}

bool TrackerFeed::IsFollowed() const {
  const std::lock_guard held(lock_);
  return IsFollowedLocked();
}

bool TrackerFeed::IsFollowedLocked() const { return watched_ && !ended_ && visit_ == followed_; }

void TrackerFeed::Rest(Clock::time_point end) {
  std::unique_lock held(lock_);
  woken_.wait_until(held, end, [this] { return !IsFollowedLocked(); });
}

template <typename Change>
void TrackerFeed::Tell(Change change) {
  {
    const std::lock_guard held(lock_);
    if (!IsFollowedLocked()) return;
    change(news_);
  }
  changed_();
}

void TrackerFeed::Run() {
  for (;;) {
    {
      std::unique_lock held(lock_);
      woken_.wait(held, [this] { return watched_ || ended_; });
      if (ended_) return;
      if (followed_ != visit_) problem_ = kinetrel_stream_ok;
      followed_ = visit_;
    }
    Follow();
  }
}

// Until the visit ends, or the stream has to be opened anew.
void TrackerFeed::Follow() {
  now_ = {};
  now_.slot = slot_;
  nextLook_ = nextFrame_ = Clock::now();
  TrackerStream stream(slot_);
  bool changed = stream.ReadRecords(now_);
  for (kinetrel_stream_result result = stream.result(); IsFollowed();) {
    if (result == kinetrel_stream_restarted) {
      now_ = {};
      now_.slot = slot_;
      Tell([](FeedNews& news) { news = {}; });  // a new viewer gets no pose of the earlier run
      changed = stream.ReadRecords(now_);
      nextLook_ = Clock::now();
    } else if (result != kinetrel_stream_ok && result != kinetrel_stream_timed_out) {
      TellProblem(result);
      return Rest(Clock::now() + kRetryEvery);
    }
    problem_ = kinetrel_stream_ok;
    if (Clock::now() >= nextLook_) LookAtRun(stream);
    // A frame that comes much too early gives way to the next one. If it waited, so would all later
    // frames of a tracker of 60 Hz.
    const auto wait = nextFrame_ - Clock::now();
    int patienceMs = kLookEveryMs;
    if (changed && wait <= kShortWait) {
      Rest(nextFrame_);
      TellFrame();
      changed = false;
    } else if (changed) {
      patienceMs = static_cast<int>(std::chrono::ceil<milliseconds>(wait + kFrameEvery).count());
    }
    result = stream.TakeRecords(now_, patienceMs);
    changed = changed || result == kinetrel_stream_ok;
  }
}

void TrackerFeed::LookAtRun(TrackerStream& stream) {
  const TrackerSnapshot before = now_;
  const Clock::time_point now = Clock::now();
  nextLook_ = now + milliseconds(kLookEveryMs);
  stream.ReadRun(now_);
  stream.ReadLog(now_);
  if (!SameState(before, now_) || now >= nextStatus_) {
    nextStatus_ = now + kStatusEvery;
    Message status = Share(StatusMessage(now_, MomentNow()));
    Tell([&](FeedNews& news) { news.status = std::move(status); });
  }
  if (!SameLog(before, now_)) {
    auto log = std::make_shared<const TrackerSnapshot>(now_);
    Tell([&](FeedNews& news) { news.log = std::move(log); });
  }
}

void TrackerFeed::TellFrame() {
  // A late frame does not make the next one late.
  nextFrame_ = std::max(nextFrame_, Clock::now() - kFrameEvery) + kFrameEvery;
  Message frame = Share(FrameMessage(now_, MomentNow()));
  Tell([&](FeedNews& news) { news.frame = std::move(frame); });
}

void TrackerFeed::TellProblem(kinetrel_stream_result result) {
  if (result == problem_ && Clock::now() < nextStatus_) return;
  nextStatus_ = Clock::now() + kStatusEvery;
  now_.result = problem_ = result;
  Message status = Share(StatusMessage(now_, MomentNow()));
  Tell([&](FeedNews& news) {
    news = {};
    news.status = std::move(status);
  });
}

}  // namespace kinetrel::view
