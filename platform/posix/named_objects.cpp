#include "platform/named_objects.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <ctime>
#include <functional>
#include <map>
#include <mutex>
#include <utility>

#include "platform/posix/os_status.h"

namespace kinetrel {
namespace {

// Every user of an object holds a read lock on its first byte for as long as it has the object
// open: who can get the write lock instead knows that there is no other user. The second byte
// belongs to the process that writes. These are locks of the open file, so two opens in one
// process conflict as two processes do, and the kernel drops them with the process.
constexpr off_t kUseByte = 0;
constexpr off_t kWriterByte = 1;

constexpr mode_t kAnyAccount = 0666;
constexpr Milliseconds kHalfMadePatience{2000};

bool SetLock(int fd, short type, off_t byte) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = byte;
  lock.l_len = 1;
  int result = 0;
  do {
    result = ::fcntl(fd, F_OFD_SETLK, &lock);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

bool IsLinked(int fd) {
  struct stat about {};
  return ::fstat(fd, &about) == 0 && about.st_nlink > 0;
}

// Opens what exists, else creates it. Never O_CREAT on what exists: in a sticky directory the
// kernel may refuse that for another account's file.
int OpenOrCreate(const char* path) {
  for (;;) {
    int fd = ::shm_open(path, O_RDWR | O_CLOEXEC, 0);
    if (fd >= 0 || errno != ENOENT) return fd;
    fd = ::shm_open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kAnyAccount);
    if (fd >= 0) {
      ::fchmod(fd, kAnyAccount);  // whatever the umask took away
      return fd;
    }
    if (errno != EEXIST) return -1;
  }
}

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&&) = delete;
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

}  // namespace

// One named object as this process has it open.
class SharedObject {
 public:
  // Prepares fresh, zeroed memory; others see it only afterwards.
  using Prepare = std::function<Status(void*)>;

  SharedObject(std::string path, Descriptor descriptor, void* memory, std::size_t size)
      : path_(std::move(path)), descriptor_(std::move(descriptor)), memory_(memory), size_(size) {}

  // Memory of this process alone, for objects without a name.
  explicit SharedObject(std::size_t size)
      : descriptor_(-1),
        own_(std::make_unique<std::uint64_t[]>(size / 8 + 1)),
        memory_(own_.get()) {}

  ~SharedObject();
  SharedObject(const SharedObject&) = delete;
  SharedObject& operator=(const SharedObject&) = delete;

  void* memory() const { return memory_; }
  std::size_t size() const { return size_; }
  bool named() const { return !path_.empty(); }
  bool ClaimWriting() { return SetLock(descriptor_.get(), F_WRLCK, kWriterByte); }

 private:
  std::string path_;
  Descriptor descriptor_;
  std::unique_ptr<std::uint64_t[]> own_;
  void* memory_;
  std::size_t size_ = 0;
};

namespace {

using Opened = std::shared_ptr<SharedObject>;

// The objects that this process has open, by path, so that a name is opened once however many
// readers there are. Written by every open and close; one per process because names are the
// machine's.
class OpenObjects {
 public:
  static OpenObjects& Instance() {
    // Never destroyed: objects may be closed while the process exits.
    static OpenObjects& objects = *new OpenObjects;
    return objects;
  }

  Result<Opened> Open(const std::string& name, std::size_t size,
                      const SharedObject::Prepare& prepare);

  // Runs `close` while no open runs, so that a close never unlinks what an open just found.
  void Close(const std::string& path, const std::function<void()>& close) {
    const std::lock_guard held(lock_);
    close();
    const auto entry = byPath_.find(path);
    if (entry != byPath_.end() && entry->second.expired()) byPath_.erase(entry);
  }

 private:
  std::mutex lock_;
  std::map<std::string, std::weak_ptr<SharedObject>> byPath_;
};

Result<Opened> Map(const std::string& path, Descriptor descriptor, std::size_t size, bool created,
                   const SharedObject::Prepare& prepare) {
  void* const memory =
      ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor.get(), 0);
  if (memory == MAP_FAILED) return StatusFromErrno(errno, "mapping shared memory");
  if (created) {
    const Status prepared = prepare(memory);
    if (!prepared.Ok()) {
      ::munmap(memory, size);
      return prepared;
    }
  }
  if (created) SetLock(descriptor.get(), F_RDLCK, kUseByte);  // atomically: never unlocked between
  return std::make_shared<SharedObject>(path, std::move(descriptor), memory, size);
}

// We are alone with the object: whatever it held belongs to nobody.
Result<Opened> Create(const std::string& path, Descriptor descriptor, std::size_t size,
                      const SharedObject::Prepare& prepare) {
  const int fd = descriptor.get();
  Status status;
  if (::ftruncate(fd, 0) != 0) status = StatusFromErrno(errno, "clearing shared memory");
  // Allocated now: on a full system a later write would kill the process instead of failing.
  if (status.Ok()) {
    const int code = ::posix_fallocate(fd, 0, static_cast<off_t>(size));
    if (code != 0) status = StatusFromErrno(code, "allocating shared memory");
  }
  if (!status.Ok()) {
    ::shm_unlink(path.c_str());
    return status;
  }
  return Map(path, std::move(descriptor), size, true, prepare);
}

Result<Opened> Attach(const std::string& path, Descriptor descriptor, std::size_t size) {
  struct stat about {};
  if (::fstat(descriptor.get(), &about) != 0) {
    return StatusFromErrno(errno, "examining shared memory");
  }
  if (about.st_size != static_cast<off_t>(size)) {
    return Status{Error::Invalid, 0, "an object of another size has the name"};
  }
  return Map(path, std::move(descriptor), size, false, {});
}

enum class Use { Alone, Shared, HalfMade };

// While another process makes the object, or takes its leave of it, neither lock is to be had.
Use TakeUse(int fd, const Deadline& deadline) {
  for (;;) {
    if (SetLock(fd, F_WRLCK, kUseByte)) return Use::Alone;
    if (SetLock(fd, F_RDLCK, kUseByte)) return Use::Shared;
    if (deadline.Passed()) return Use::HalfMade;
    SleepFor(Milliseconds(1));
  }
}

Result<Opened> OpenSystemObject(const std::string& path, std::size_t size,
                                const SharedObject::Prepare& prepare) {
  const Deadline deadline(kHalfMadePatience);
  for (;;) {
    Descriptor descriptor(OpenOrCreate(path.c_str()));
    if (descriptor.get() < 0) return StatusFromErrno(errno, "opening shared memory");
    const Use use = TakeUse(descriptor.get(), deadline);
    if (use == Use::HalfMade) {
      return Status{Error::Busy, 0, "another process holds the object half made"};
    }
    // Its last user may have removed it between our open and our lock.
    if (!IsLinked(descriptor.get())) continue;
    return use == Use::Alone ? Create(path, std::move(descriptor), size, prepare)
                             : Attach(path, std::move(descriptor), size);
  }
}

Result<Opened> OpenObjects::Open(const std::string& name, std::size_t size,
                                 const SharedObject::Prepare& prepare) {
  const std::string path = "/" + name;
  const std::lock_guard held(lock_);
  std::weak_ptr<SharedObject>& known = byPath_[path];
  if (std::shared_ptr<SharedObject> object = known.lock()) {
    if (object->size() == size) return object;
    return Status{Error::Invalid, 0, "an object of another size has the name"};
  }
  Result<Opened> opened = OpenSystemObject(path, size, prepare);
  if (opened.Ok()) {
    known = *opened;
  } else {
    byPath_.erase(path);
  }
  return opened;
}

Result<Opened> OpenObject(const std::string& name, std::size_t size,
                          const SharedObject::Prepare& prepare) {
  return OpenObjects::Instance().Open(name, size, prepare);
}

}  // namespace

SharedObject::~SharedObject() {
  if (!named()) return;
  OpenObjects::Instance().Close(path_, [this] {
    ::munmap(memory_, size_);
    const int fd = descriptor_.get();
    // The write lock is ours only when no other process uses the object. Another account's object
    // stays: the next one to open it will find itself alone and start afresh.
    if (SetLock(fd, F_WRLCK, kUseByte) && IsLinked(fd)) ::shm_unlink(path_.c_str());
  });
}

// ---- NamedMemory -----------------------------------------------------------------------------

NamedMemory::NamedMemory(std::shared_ptr<SharedObject> object) : object_(std::move(object)) {}

Result<NamedMemory> NamedMemory::Open(const std::string& name, std::size_t size) {
  Result<Opened> opened = OpenObject(name, size, [](void*) { return Status{}; });
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
  if (code == 0) object->mark = kMutexMark;
  return StatusFromErrno(code, "making a shared mutex");
}

timespec After(clockid_t clock, Milliseconds time) {
  timespec moment{};
  ::clock_gettime(clock, &moment);
  moment.tv_sec += time.count() / 1000;
  moment.tv_nsec += (time.count() % 1000) * 1'000'000;
  if (moment.tv_nsec >= 1'000'000'000) {
    moment.tv_nsec -= 1'000'000'000;
    ++moment.tv_sec;
  }
  return moment;
}

int LockWithin(pthread_mutex_t* mutex, Milliseconds timeout) {
  if (timeout == kForever) return pthread_mutex_lock(mutex);
  const int tried = pthread_mutex_trylock(mutex);
  if (tried != EBUSY || timeout.count() <= 0) return tried;
  timespec end = After(CLOCK_MONOTONIC, timeout);
  const int code = pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &end);
  if (code != EINVAL) return code;
  // Kernels before 5.14 know no monotonic end for a priority-inheriting lock.
  end = After(CLOCK_REALTIME, timeout);
  return pthread_mutex_timedlock(mutex, &end);
}

pthread_mutex_t* MutexOf(const SharedObject& object) {
  return &static_cast<MutexObject*>(object.memory())->mutex;
}

}  // namespace

NamedMutex::NamedMutex(std::shared_ptr<SharedObject> object) : object_(std::move(object)) {}

Result<NamedMutex> NamedMutex::Open(const std::string& name) {
  Result<Opened> opened = OpenObject(name, sizeof(MutexObject), MakeMutex);
  if (!opened.Ok()) return opened.status();
  if (static_cast<MutexObject*>((*opened)->memory())->mark != kMutexMark) {
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

// Waits while the word is `value`, until `end` on the monotonic clock (null: for ever). False
// when the time is up.
bool FutexWait(const SharedObject& object, std::uint32_t value, const timespec* end) {
  return Futex(object, FUTEX_WAIT_BITSET, value, end) == 0 || errno != ETIMEDOUT;
}

}  // namespace

Event::Event() : object_(std::make_shared<SharedObject>(sizeof(std::uint32_t))) {}

Event::Event(std::shared_ptr<SharedObject> object) : object_(std::move(object)) {}

Result<Event> Event::Open(const std::string& name) {
  Result<Opened> opened = OpenObject(name, sizeof(std::uint32_t), [](void*) { return Status{}; });
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
  std::uint32_t now = word.load();
  if (happened(now) || timeout.count() <= 0) return happened(now);

  timespec end{};
  if (timeout != kForever) end = After(CLOCK_MONOTONIC, timeout);
  const timespec* const until = timeout == kForever ? nullptr : &end;
  for (;;) {
    // Whatever state it was in, from here on a Set must know that somebody waits.
    if (happened(now)) return true;
    if (!word.compare_exchange_weak(now, ticket | kAwaited)) continue;
    if (!FutexWait(*object_, ticket | kAwaited, until)) return happened(word.load());
    now = word.load();
  }
}

}  // namespace kinetrel
