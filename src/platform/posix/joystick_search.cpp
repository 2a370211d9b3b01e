#include "platform/posix/joystick_search.h"

#include <unistd.h>

#include <atomic>
#include <utility>

#include "platform/named_objects.h"
#include "platform/thread.h"

namespace kinetrel {
namespace {

constexpr Milliseconds kBetweenTries{500};

void Close(int fd) {
  if (fd >= 0) ::close(fd);
}

}  // namespace

// Shared with the thread, which may still be opening a device when the owner is gone.
struct JoystickSearch::State {
  State(std::string thePath, JoystickIdentity theIdentity)
      : path(std::move(thePath)), identity(std::move(theIdentity)) {}
  ~State() {
    Close(lost);
    Close(found);
  }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  void Run();
  bool Find();

  const std::string path;
  const JoystickIdentity identity;
  Event changed;  // lost, or stopped
  std::atomic<bool> stopped{false};
  std::atomic<int> lost{-1};
  std::atomic<int> found{-1};
};

void JoystickSearch::State::Run() {
  for (;;) {
    changed.Wait(kForever);
    changed.Reset();
    if (stopped) return;
    Close(lost.exchange(-1));
    // The pause comes first: a pipe without a writer opens and is lost again every time.
    do {
      changed.Wait(kBetweenTries);
      if (stopped) return;
    } while (!Find());
  }
}

// Another stick may have that name now.
bool JoystickSearch::State::Find() {
  const Result<int> fd = OpenJoystick(path);
  if (!fd.Ok()) return false;
  if (AskJoystickIdentity(*fd) != identity) {
    Close(*fd);
    return false;
  }
  found = *fd;
  return true;
}

JoystickSearch::JoystickSearch(std::shared_ptr<State> state) : state_(std::move(state)) {}
JoystickSearch::JoystickSearch(JoystickSearch&&) noexcept = default;
JoystickSearch& JoystickSearch::operator=(JoystickSearch&& other) noexcept {
  std::swap(state_, other.state_);
  return *this;
}

JoystickSearch::~JoystickSearch() {
  if (state_ == nullptr) return;
  state_->stopped = true;
  state_->changed.Set();
}

Result<JoystickSearch> JoystickSearch::Start(std::string path, JoystickIdentity identity) {
  auto state = std::make_shared<State>(std::move(path), std::move(identity));
  const Result<Thread> thread = Thread::Start([state] { state->Run(); });
  if (!thread.Ok()) return thread.status();
  return JoystickSearch(std::move(state));
}

void JoystickSearch::Lost(int fd) {
  state_->lost = fd;
  state_->changed.Set();
}

int JoystickSearch::TakeFound() { return state_->found.exchange(-1); }

}  // namespace kinetrel
