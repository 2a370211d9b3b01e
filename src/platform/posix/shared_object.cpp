#include "platform/posix/shared_object.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <utility>

#include "platform/clock.h"
#include "platform/mutex.h"
#include "platform/posix/os.h"

namespace kinetrel {
namespace {

constexpr off_t kUseByte = 0;
constexpr off_t kWriterByte = 1;
constexpr mode_t kAnyAccount = 0666;

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

struct stat Examine(int fd) {
  struct stat about {};
  ::fstat(fd, &about);  // all zero when the system does not tell
  return about;
}

bool IsLinked(int fd) { return Examine(fd).st_nlink > 0; }

}  // namespace

// ---- SharedFile ------------------------------------------------------------------------------

SharedFile::SharedFile(std::string path, int fd)
    : path_(std::move(path)), fd_(fd), opener_(::getpid()) {}

SharedFile::SharedFile(SharedFile&& other) noexcept
    : path_(std::move(other.path_)),
      fd_(std::exchange(other.fd_, -1)),
      opener_(other.opener_),
      memory_(std::exchange(other.memory_, nullptr)),
      size_(other.size_) {}

SharedFile::~SharedFile() {
  if (memory_ != nullptr) ::munmap(memory_, size_);
  if (fd_ < 0) return;
  if (::getpid() == opener_) RemoveIfLast();
  ::close(fd_);
}

void SharedFile::RemoveIfLast() {
  // Unlock first. Two users that close at once and look before they unlock would each see the
  // other, and neither would remove the object.
  SetLock(fd_, F_UNLCK, kUseByte);
  if (SetLock(fd_, F_WRLCK, kUseByte) && IsLinked(fd_)) ::shm_unlink(path_.c_str());
}

Status SharedFile::Map(std::size_t size) {
  void* const memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
  if (memory == MAP_FAILED) return StatusFromErrno(errno, "mapping shared memory");
  memory_ = memory;
  size_ = size;
  return {};
}

// ---- Opening ---------------------------------------------------------------------------------

namespace {

using Opened = std::shared_ptr<SharedObject>;

// How one try to open an object ended.
struct Attempt {
  Opened object = {};  // null: failed
  Status failure = {};
  int worthTries = 0;  // how often to try, 1 ms apart, when the failure may pass
};

// While another process makes or removes the object. A loaded machine needs time for that.
constexpr int kTriesWhileBusy = 2000;
// While other processes hold what a dying process left half made. They let go of it, as we do.
constexpr int kTriesWhileHalfMade = 500;
// While an object that another account just made does not have its mode yet.
constexpr int kTriesWhileDenied = 50;

// Opens what exists, or creates it. Never uses O_CREAT on what exists: in a sticky directory the
// kernel may refuse that for a file of another account.
int OpenOrCreate(const char* path) {
  for (;;) {
    int fd = ::shm_open(path, O_RDWR | O_CLOEXEC, 0);
    if (fd >= 0 || errno != ENOENT) return fd;
    fd = ::shm_open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kAnyAccount);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
}

// Zeroes what a killed process left. In place when the size fits: a program may have it mapped
// without holding the lock of a user.
bool Clear(int fd, off_t size) {
  if (Examine(fd).st_size != size) return ::ftruncate(fd, 0) == 0;
  return ::fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, size) == 0;
}

Status Make(SharedFile& file, const ObjectKind& kind) {
  const off_t size = static_cast<off_t>(kind.size);
  ::fchmod(file.fd(),
           kAnyAccount);  // the umask took rights away; an object of another account has them
  if (!Clear(file.fd(), size)) return StatusFromErrno(errno, "clearing shared memory");
  // Allocated now: on a full system a later write would kill the process instead of failing.
  int code = EINTR;
  while (code == EINTR) code = ::posix_fallocate(file.fd(), 0, size);
  if (code != 0) return StatusFromErrno(code, "allocating shared memory");
  const Status mapped = file.Map(kind.size);
  return mapped.Ok() ? kind.prepare(file.memory()) : mapped;
}

// No other process uses the object, so its old content is dropped.
Attempt Create(SharedFile file, const ObjectKind& kind) {
  const Status made = Make(file, kind);
  if (!made.Ok()) return {.failure = made};
  SetLock(file.fd(), F_RDLCK, kUseByte);  // atomically: never unlocked between
  return {.object = std::make_shared<SharedObject>(std::move(file))};
}

Attempt Attach(SharedFile file, const ObjectKind& kind) {
  const Status half{Error::Invalid, 0, "the object of the name was never finished"};
  const off_t size = Examine(file.fd()).st_size;
  if (size == 0) return {.failure = half, .worthTries = kTriesWhileHalfMade};
  if (size != static_cast<off_t>(kind.size)) {
    return {.failure = {Error::Invalid, 0, "an object of another size has the name"}};
  }
  const Status mapped = file.Map(kind.size);
  if (!mapped.Ok()) return {.failure = mapped};
  return {.object = std::make_shared<SharedObject>(std::move(file))};
}

Attempt TryOpen(const std::string& path, const ObjectKind& kind) {
  const int fd = OpenOrCreate(path.c_str());
  if (fd < 0) {
    const int code = errno;
    return {.failure = StatusFromErrno(code, "opening shared memory"),
            .worthTries = code == EACCES ? kTriesWhileDenied : 0};
  }
  if (!S_ISREG(Examine(fd).st_mode)) {
    ::close(fd);
    return {.failure = {Error::Invalid, 0, "something other than shared memory has the name"}};
  }
  SharedFile file(path, fd);
  const bool alone = SetLock(fd, F_WRLCK, kUseByte);
  // While another process makes or removes the object, it refuses both locks. The last user may
  // also have removed the object between our open and our lock.
  if ((!alone && !SetLock(fd, F_RDLCK, kUseByte)) || !IsLinked(fd)) {
    return {.failure = {Error::Busy, 0, "another process holds the object half made"},
            .worthTries = kTriesWhileBusy};
  }
  return alone ? Create(std::move(file), kind) : Attach(std::move(file), kind);
}

Result<Opened> OpenInSystem(const std::string& path, const ObjectKind& kind) {
  for (int tries = 1;; ++tries) {
    const Attempt attempt = TryOpen(path, kind);
    if (attempt.object) return attempt.object;
    if (tries >= attempt.worthTries) return attempt.failure;
    SleepFor(Milliseconds(1));
  }
}

// The objects that this process has open, by path. Written by every open and close. One per
// process, because names belong to the machine and each name is opened once for all its users.
class OpenObjects {
 public:
  static OpenObjects& Instance() {
    // Never destroyed: objects may be closed while the process exits.
    // NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables)
    static OpenObjects& objects = *new OpenObjects;
    return objects;
  }

  Result<Opened> Open(const std::string& path, const ObjectKind& kind) {
    const Lock held(lock_);
    if (Opened object = byPath_[path].lock()) {
      if (object->size() == kind.size) return object;
      return Status{Error::Invalid, 0, "an object of another size has the name"};
    }
    Result<Opened> opened = OpenInSystem(path, kind);
    if (opened.Ok()) {
      byPath_[path] = *opened;
    } else {
      byPath_.erase(path);
    }
    return opened;
  }

  void Close(std::optional<SharedFile>& file) {
    const Lock held(lock_);
    const auto entry = byPath_.find(file->path());
    if (entry != byPath_.end() && entry->second.expired()) byPath_.erase(entry);
    file.reset();
  }

 private:
  Mutex lock_;
  std::map<std::string, std::weak_ptr<SharedObject>> byPath_ GUARDED_BY(lock_);
};

}  // namespace

// ---- SharedObject ----------------------------------------------------------------------------

Result<Opened> SharedObject::Open(const std::string& name, const ObjectKind& kind) {
  return OpenObjects::Instance().Open("/" + name, kind);
}

SharedObject::~SharedObject() {
  if (named()) OpenObjects::Instance().Close(file_);
}

bool SharedObject::ClaimWriting() { return SetLock(file_->fd(), F_WRLCK, kWriterByte); }

bool SharedObject::IsOpenElsewhere() const {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = kUseByte;
  lock.l_len = 1;
  return ::fcntl(file_->fd(), F_OFD_GETLK, &lock) != 0 || lock.l_type != F_UNLCK;
}

}  // namespace kinetrel
