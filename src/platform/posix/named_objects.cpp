#include "platform/named_objects.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <utility>

#include "platform/posix/os.h"
#include "platform/posix/shared_object.h"

namespace kinetrel {
namespace {

using Opened = std::shared_ptr<SharedObject>;

}  // namespace

// ---- NamedMemory -----------------------------------------------------------------------------

NamedMemory::NamedMemory(std::shared_ptr<SharedObject> object) : object_(std::move(object)) {}

Result<NamedMemory> NamedMemory::Open(const std::string& name, std::size_t size) {
  Result<Opened> opened = SharedObject::Open(name, {.size = size});
  if (!opened.Ok()) return opened.status();
  return NamedMemory(std::move(*opened));
}

void* NamedMemory::data() const { return object_->memory(); }

bool NamedMemory::ClaimWriting() { return object_->ClaimWriting(); }

// ---- NamedMutex ------------------------------------------------------------------------------

namespace {

Status MakeMutex(void* memory) {
  SharedMutex::Prepare(memory);
  return {};
}

// The value of a line "Key:\tvalue ..." of a file in /proc; empty: the thread is gone or not ours
// to see.
std::string FieldOf(std::uint32_t thread, const std::string& key) {
  std::ifstream file("/proc/" + std::to_string(thread) + "/status");
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with(key + ":\t")) return line.substr(key.size() + 2);
  }
  return {};
}

bool HasMapped(std::ifstream& maps, const std::string& path) {
  for (std::string line; std::getline(maps, line);) {
    if (line.ends_with(path)) return true;
  }
  return false;
}

// Whether the thread of that number, in our process-id namespace, may be the owner. Another account
// does not show what it has mapped; then a stopped process counts as the owner, for it cannot have
// released the mutex.
bool MayOwn(std::uint32_t thread, const std::string& path) {
  std::ifstream maps("/proc/" + std::to_string(thread) + "/maps");
  if (maps.peek() != std::ifstream::traits_type::eof()) return HasMapped(maps, path);
  const std::string state = FieldOf(thread, "State");
  return state.starts_with('T') || state.starts_with('t');
}

}  // namespace

NamedMutex::NamedMutex(std::shared_ptr<SharedObject> object) : object_(std::move(object)) {}

Result<NamedMutex> NamedMutex::Open(const std::string& name) {
  Result<Opened> opened =
      SharedObject::Open(name, {.size = SharedMutex::Size(), .prepare = MakeMutex});
  if (!opened.Ok()) return opened.status();
  // Also what another process left half made or has overwritten.
  SharedMutex::Prepare((*opened)->memory());
  return NamedMutex(std::move(*opened));
}

bool NamedMutex::Lock(Milliseconds timeout) { return object_->mutex().Lock(timeout); }

bool NamedMutex::Unlock() { return object_->mutex().Unlock(); }

bool NamedMutex::TakeRepaired() { return object_->mutex().TakeRepaired(); }

std::uint32_t NamedMutex::OwnerNumber() const { return object_->mutex().OwnerNumber(); }

MutexOwner NamedMutex::FindOwner() const {
  using Evidence = MutexOwner::Evidence;
  if (object_->mutex().IsOurs()) return {Evidence::Found, ::getpid()};
  if (!object_->IsOpenElsewhere()) return {Evidence::Impossible, 0};
  const std::uint32_t thread = OwnerNumber();
  if (thread == 0 || !MayOwn(thread, object_->path())) return {Evidence::NotFound, 0};
  return {Evidence::Found, std::atoi(FieldOf(thread, "Tgid").c_str())};
}

bool NamedMutex::TakeFrom(std::uint32_t owner) { return object_->mutex().TakeFrom(owner); }

// ---- Event -----------------------------------------------------------------------------------

namespace {

// The event is one 32-bit word: its state in the low two bits, and above them how often it has been
// set. The count shows a waiter a set that was reset while it slept.
constexpr std::uint32_t kUnset = 0;
constexpr std::uint32_t kSet = 1;
constexpr std::uint32_t kAwaited = 2;  // unset, and a thread may be waiting
constexpr std::uint32_t kStateBits = 3;
constexpr std::uint32_t kOneSet = 4;

// A process may be killed after it set an event and before it wakes the waiters. So they also look.
constexpr Milliseconds kLongestSleep{1000};

using Word = std::atomic_ref<std::uint32_t>;

Word WordOf(const SharedObject& object) {
  return Word(*static_cast<std::uint32_t*>(object.memory()));
}

long Futex(const SharedObject& object, int operation, std::uint32_t value, const timespec* end) {
  // A named event is shared between processes; one without a name is private to this one.
  const int scope = object.named() ? 0 : FUTEX_PRIVATE_FLAG;
  return ::syscall(SYS_futex, object.memory(), operation | scope, value, end, nullptr,
                   FUTEX_BITSET_MATCH_ANY);
}

// Sleeps while the word is `value`, until it is woken, or the time is up, or sooner.
void FutexWait(const SharedObject& object, std::uint32_t value, Milliseconds timeout) {
  const timespec end = MomentAfter(CLOCK_MONOTONIC, std::min(timeout, kLongestSleep));
  Futex(object, FUTEX_WAIT_BITSET, value, &end);
}

}  // namespace

Event::Event() : object_(std::make_shared<SharedObject>(sizeof(std::uint32_t))) {}

Event::Event(std::shared_ptr<SharedObject> object) : object_(std::move(object)) {}

Result<Event> Event::Open(const std::string& name, Access) {
  Result<Opened> opened = SharedObject::Open(name, {.size = sizeof(std::uint32_t)});
  if (!opened.Ok()) return opened.status();
  return Event(std::move(*opened));
}

void Event::Set() {
  if (Mark()) Wake();
}

bool Event::Mark() {
  const Word word = WordOf(*object_);
  std::uint32_t old = word.load(std::memory_order_relaxed);
  while (!word.compare_exchange_weak(old, ((old & ~kStateBits) + kOneSet) | kSet)) {
  }
  return (old & kStateBits) == kAwaited;
}

void Event::PrefetchToSet() const { __builtin_prefetch(object_->memory(), 1 /* to write */); }

void Event::Wake() { Futex(*object_, FUTEX_WAKE, INT_MAX, nullptr); }

Event::Ticket Event::Reset() {
  const Word word = WordOf(*object_);
  std::uint32_t old = word.load();
  while ((old & kStateBits) == kSet &&
         !word.compare_exchange_weak(old, (old & ~kStateBits) | kUnset)) {
  }
  return old & ~kStateBits;
}

bool Event::IsSet() const { return (WordOf(*object_).load() & kStateBits) == kSet; }

bool Event::Wait(Milliseconds timeout) const {
  return WaitSince(WordOf(*object_).load() & ~kStateBits, timeout);
}

bool Event::WaitSince(Ticket ticket, Milliseconds timeout) const {
  const Word word = WordOf(*object_);
  const auto happened = [&](std::uint32_t now) {
    return (now & kStateBits) == kSet || (now & ~kStateBits) != ticket;
  };
  const Deadline deadline(timeout);
  for (std::uint32_t now = word.load();; now = word.load()) {
    if (happened(now)) return true;
    const Milliseconds left = deadline.Remaining();
    if (left.count() <= 0) return false;
    // Whatever state it was in, from here on a Set must know that a thread waits.
    if (word.compare_exchange_strong(now, ticket | kAwaited)) {
      FutexWait(*object_, ticket | kAwaited, left);
    }
  }
}

Milliseconds Event::LongestBlindWait() const { return kForever; }

}  // namespace kinetrel
