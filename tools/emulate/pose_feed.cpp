#include "emulate/pose_feed.h"

#include <utility>

namespace kinetrel::emulate {
namespace {

constexpr Milliseconds kStep{100};  // between two looks at the request to stop
constexpr std::size_t kMostNews = 100;

}  // namespace

PoseFeed::PoseFeed(std::unique_ptr<PoseSource> source) { shared_->source = std::move(source); }

PoseFeed::~PoseFeed() {
  shared_->stop = true;
  if (thread_) thread_->Wait(kForever);
}

std::uint32_t PoseFeed::Shared::Step(Milliseconds patience) {
  const std::uint32_t stations = source->Next(patience);
  std::string text = source->TakeNews();
  if (text.empty()) return stations;
  const std::lock_guard lock(mutex);
  if (news.size() < kMostNews) news.push_back(std::move(text));
  return stations;
}

bool PoseFeed::Await(Milliseconds patience) {
  const Deadline deadline(patience);
  while (!shared_->source->IsKnown()) {
    if (deadline.Passed()) return false;
    shared_->Step(kStep);
  }
  return true;
}

Status PoseFeed::Start(Arrived arrived) {
  auto started = Thread::Start([shared = shared_, arrived = std::move(arrived)] {
    while (!shared->stop) {
      const std::uint32_t stations = shared->Step(kStep);
      if (stations != 0) arrived(stations);
    }
  });
  if (!started.Ok()) return started.status();
  thread_.emplace(std::move(*started));
  return {};
}

std::vector<std::string> PoseFeed::TakeNews() {
  const std::lock_guard lock(shared_->mutex);
  return std::exchange(shared_->news, {});
}

}  // namespace kinetrel::emulate
