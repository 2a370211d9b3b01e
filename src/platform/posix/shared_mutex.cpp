#include "platform/posix/shared_mutex.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <ctime>

#include "platform/posix/os.h"

namespace kinetrel {
namespace {

// The mark comes last and tells a mutex from anything else.
struct MutexObject {
  pthread_mutex_t mutex;
  std::uint32_t mark;
};
constexpr std::uint32_t kMutexMark = 0x4B4D5458;

static_assert(offsetof(MutexObject, mutex.__data.__lock) == 0);

// The C library's values of __owner: a mutex whose owner died, and one that was unlocked then
// without pthread_mutex_consistent. Nothing can be locked any more where it finds the second.
constexpr int kNotRecoverable = 0x7FFFFFFE;

// A content that was overwritten may hide that threads sleep. So they look for themselves.
constexpr Milliseconds kLongestSleep{1000};

pthread_mutex_t MakeMutex() {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_t mutex;
  pthread_mutex_init(&mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  return mutex;
}

// The C library's number for the kind of mutex that clients find.
int Kind() {
  static const int kind = MakeMutex().__data.__kind;
  return kind;
}

MutexObject& ObjectAt(void* memory) { return *static_cast<MutexObject*>(memory); }

template <typename T>
std::atomic_ref<T> Shared(T& field) {
  return std::atomic_ref<T>(field);
}

template <typename T>
bool Correct(T& field, T right) {
  if (Shared(field).load(std::memory_order_relaxed) == right) return false;
  Shared(field).store(right, std::memory_order_relaxed);
  return true;
}

std::uint32_t OwnerIn(std::uint32_t word) {
  return (word & FUTEX_OWNER_DIED) != 0 ? 0 : word & FUTEX_TID_MASK;
}

void Wake(void* word, int count) {
  ::syscall(SYS_futex, word, FUTEX_WAKE, count, nullptr, nullptr, 0);
}

}  // namespace

// ---- The calling thread ------------------------------------------------------------------------

struct SharedMutex::ThisThread {
  std::uint32_t number = 0;            // in this process's namespace, as the kernel writes it
  robust_list_head* robust = nullptr;  // the C library's; null: the system has none for us

  static const ThisThread& Get() {
    if (own.number == 0) own.LookUp();
    return own;
  }

  // What the kernel looks at if this thread dies. Null: nothing.
  void* pending() const { return robust != nullptr ? robust->list_op_pending : nullptr; }
  void SetPending(void* entry) const {
    if (robust == nullptr) return;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    robust->list_op_pending = static_cast<robust_list*>(entry);
    std::atomic_signal_fence(std::memory_order_seq_cst);
  }

  // The kernel finds the word at the list's own distance from the entry.
  void* EntryOf(void* word) const {
    return robust != nullptr ? static_cast<char*>(word) - robust->futex_offset : nullptr;
  }

 private:
  void LookUp() {
    // The one thread of a forked child has a number and a robust list of its own.
    static const int watched = ::pthread_atfork(nullptr, nullptr, [] { own = {}; });
    static_cast<void>(watched);
    number = static_cast<std::uint32_t>(::syscall(SYS_gettid));
    std::size_t size = 0;
    if (::syscall(SYS_get_robust_list, 0, &robust, &size) != 0) robust = nullptr;
  }

  // Looked up once for each thread: a lock must not cost two system calls.
  // NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables)
  static thread_local ThisThread own;
};

// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables)
thread_local SharedMutex::ThisThread SharedMutex::ThisThread::own;

// ---- Locking -----------------------------------------------------------------------------------

std::size_t SharedMutex::Size() { return sizeof(MutexObject); }

void SharedMutex::Prepare(void* memory) {
  MutexObject& object = ObjectAt(memory);
  Correct(object.mutex.__data.__kind, Kind());
  Correct(object.mark, kMutexMark);
}

std::atomic_ref<std::uint32_t> SharedMutex::Word() const {
  return std::atomic_ref(*static_cast<std::uint32_t*>(memory_));
}

std::uint32_t SharedMutex::OwnerNumber() const { return OwnerIn(Word().load()); }

bool SharedMutex::IsOurs() const {
  const std::uint32_t holder = holder_;
  return holder != 0 && holder == OwnerNumber();
}

bool SharedMutex::IsHeldBy(const ThisThread& self) const {
  return holder_.load(std::memory_order_relaxed) == self.number && OwnerNumber() == self.number;
}

bool SharedMutex::Lock(Milliseconds timeout) {
  const ThisThread& self = ThisThread::Get();
  if (IsHeldBy(self)) {
    ++depth_;
    return true;
  }
  void* const before = self.pending();
  self.SetPending(self.EntryOf(memory_));
  if (!Acquire(self, timeout)) {
    self.SetPending(before);
    return false;
  }
  before_ = before;
  BecomeOwner(self);
  return true;
}

bool SharedMutex::Acquire(const ThisThread& self, Milliseconds timeout) {
  const std::atomic_ref<std::uint32_t> word = Word();
  std::uint32_t seen = 0;
  if (word.compare_exchange_strong(seen, self.number, std::memory_order_acquire)) return true;
  const Deadline deadline(timeout);
  std::uint32_t sleepers = 0;  // set after a sleep: others may still sleep when we unlock
  for (;;) {
    if (OwnerIn(seen) == 0) {
      const std::uint32_t ours = self.number | (seen & FUTEX_WAITERS) | sleepers;
      if (word.compare_exchange_weak(seen, ours, std::memory_order_acquire)) return true;
      continue;
    }
    const Milliseconds left = deadline.Remaining();
    if (left.count() <= 0) return false;
    const std::uint32_t awaited = seen | FUTEX_WAITERS;
    if (seen != awaited && !word.compare_exchange_weak(seen, awaited)) continue;
    Sleep(self, awaited, left);
    sleepers = FUTEX_WAITERS;
    seen = word.load();
  }
}

void SharedMutex::Sleep(const ThisThread& self, std::uint32_t seen, Milliseconds timeout) {
  // If another namespace's thread of our number is the owner and we died, the kernel would take the
  // mutex from it.
  const bool namesake = OwnerIn(seen) == self.number;
  void* const entry = self.pending();
  if (namesake) self.SetPending(nullptr);
  const timespec end = MomentAfter(CLOCK_MONOTONIC, std::min(timeout, kLongestSleep));
  ::syscall(SYS_futex, memory_, FUTEX_WAIT_BITSET, seen, &end, nullptr, FUTEX_BITSET_MATCH_ANY);
  if (namesake) self.SetPending(entry);
}

void SharedMutex::BecomeOwner(const ThisThread& self) {
  holder_.store(self.number, std::memory_order_relaxed);
  depth_ = 1;
  MutexObject& object = ObjectAt(memory_);
  const std::atomic_ref<int> owner = Shared(object.mutex.__data.__owner);
  bool repaired = owner.load(std::memory_order_relaxed) == kNotRecoverable;
  repaired |= Correct(object.mutex.__data.__kind, Kind());
  repaired |= Correct(object.mark, kMutexMark);
  owner.store(static_cast<int>(self.number), std::memory_order_relaxed);
  if (repaired) repaired_ = true;
}

bool SharedMutex::Unlock() {
  const ThisThread& self = ThisThread::Get();
  if (holder_.load(std::memory_order_relaxed) != self.number) {
    if (self.pending() == self.EntryOf(memory_)) self.SetPending(nullptr);
    return false;
  }
  if (--depth_ > 0) return true;
  void* const before = before_;  // the next holder's as soon as the word is free
  Shared(ObjectAt(memory_).mutex.__data.__owner).store(0, std::memory_order_relaxed);
  holder_.store(0, std::memory_order_relaxed);
  const std::atomic_ref<std::uint32_t> word = Word();
  std::uint32_t seen = self.number;
  bool ours = true;
  while (!word.compare_exchange_weak(seen, 0, std::memory_order_release)) {
    ours = OwnerIn(seen) == self.number;
    if (!ours) break;
  }
  if (!ours) {
    Wake(memory_, INT_MAX);
  } else if ((seen & FUTEX_WAITERS) != 0) {
    Wake(memory_, 1);
  }
  if (self.pending() == self.EntryOf(memory_)) self.SetPending(before);
  return ours;
}

bool SharedMutex::TakeFrom(std::uint32_t owner) {
  const ThisThread& self = ThisThread::Get();
  std::uint32_t seen = Word().load();
  if (OwnerIn(seen) != owner || owner == 0) return false;
  void* const before = self.pending();
  self.SetPending(self.EntryOf(memory_));
  // Whether threads sleep on the word cannot be known, so the unlock wakes one.
  if (!Word().compare_exchange_strong(seen, self.number | FUTEX_WAITERS)) {
    self.SetPending(before);
    return false;
  }
  before_ = before;
  BecomeOwner(self);
  return true;
}

}  // namespace kinetrel
