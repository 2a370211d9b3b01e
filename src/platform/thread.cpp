#include "platform/thread.h"

#include <system_error>
#include <thread>
#include <utility>

#include "platform/named_objects.h"

namespace kinetrel {

struct Thread::State {
  Event ended;
  std::thread thread;
};

Thread::Thread(std::shared_ptr<State> state) : state_(std::move(state)) {}
Thread::Thread(Thread&&) noexcept = default;
Thread& Thread::operator=(Thread&&) noexcept = default;

Thread::~Thread() {
  if (state_ == nullptr) return;
  if (Wait(Milliseconds(0)) && !IsCurrent()) {
    state_->thread.join();
  } else {
    state_->thread.detach();
  }
}

Result<Thread> Thread::Start(std::function<void()> body) {
  auto state = std::make_shared<State>();
  try {
    state->thread = std::thread([ended = state->ended, body = std::move(body)]() mutable {
      body();
      body = nullptr;  // what it owned is destroyed before the end is reported
      ended.Set();
    });
  } catch (const std::system_error& refused) {
    return Status{Error::NoSpace, refused.code().value(), "starting a thread"};
  }
  return Thread(std::move(state));
}

bool Thread::Wait(Milliseconds timeout) const { return state_->ended.Wait(timeout); }

bool Thread::IsCurrent() const { return state_->thread.get_id() == std::this_thread::get_id(); }

}  // namespace kinetrel
