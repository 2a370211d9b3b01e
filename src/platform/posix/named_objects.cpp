#include "platform/named_objects.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <ctime>
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

// What the object of a mutex holds. The mark comes last and tells a mutex from anything else.
struct MutexObject {
  pthread_mutex_t mutex;
  std::uint32_t mark;
};
constexpr std::uint32_t kMutexMark = 0x4B4D5458;

std::atomic_ref<std::uint32_t> MarkOf(void* memory) {
  return std::atomic_ref(static_cast<MutexObject*>(memory)->mark);
}

Status MakeMutex(void* memory) {
  auto* const object = static_cast<MutexObject*>(memory);
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  // The time-critical writer must not wait behind whatever keeps a low-priority client from
  // running.
  pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
  const int code = pthread_mutex_init(&object->mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  if (code == 0) MarkOf(memory).store(kMutexMark);
  return StatusFromErrno(code, "making a shared mutex");
}

pthread_mutex_t* MutexOf(const SharedObject& object) {
  return &static_cast<MutexObject*>(object.memory())->mutex;
}

}  // namespace

NamedMutex::NamedMutex(std::shared_ptr<SharedObject> object) : object_(std::move(object)) {}

Result<NamedMutex> NamedMutex::Open(const std::string& name) {
  const auto ready = [](void* memory) { return MarkOf(memory) != 0; };
  Result<Opened> opened =
      SharedObject::Open(name, {.size = sizeof(MutexObject), .prepare = MakeMutex, .ready = ready});
  if (!opened.Ok()) return opened.status();
  if (MarkOf((*opened)->memory()) != kMutexMark) {
    return Status{Error::Invalid, 0, "the name is not that of a mutex"};
  }
  return NamedMutex(std::move(*opened));
}

bool NamedMutex::Lock(Milliseconds timeout) {
  pthread_mutex_t* const mutex = MutexOf(*object_);
  const int code = LockWithin(mutex, timeout);
  if (code == EOWNERDEAD) return pthread_mutex_consistent(mutex) == 0;
  return code == 0;
}

void NamedMutex::Unlock() { pthread_mutex_unlock(MutexOf(*object_)); }

// ---- Event -----------------------------------------------------------------------------------

namespace {

// The event is one 32-bit word: its state in the low two bits, and above them how often it has
// been set, which tells a waiter that overslept a set and a reset.
constexpr std::uint32_t kUnset = 0;
constexpr std::uint32_t kSet = 1;
constexpr std::uint32_t kAwaited = 2;  // unset, and somebody may be waiting
constexpr std::uint32_t kStateBits = 3;
constexpr std::uint32_t kOneSet = 4;

// Whoever sets an event may be killed before it wakes the waiters; so they look for themselves.
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
    // Whatever state it was in, from here on a Set must know that somebody waits.
    if (word.compare_exchange_strong(now, ticket | kAwaited)) {
      FutexWait(*object_, ticket | kAwaited, left);
    }
  }
}

Milliseconds Event::LongestBlindWait() const { return kForever; }

}  // namespace kinetrel
