#include "platform/stream_memory.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <utility>

#include "platform/posix/os.h"

namespace kinetrel {
namespace {

constexpr const char* kMaking = "making the record stream";
constexpr mode_t kOwnerOnly = 0600;
constexpr mode_t kAnyoneReads = 0644;
constexpr int kTries = 100;  // against other writers that make an object of this name

bool IsLinked(int fd) {
  struct stat about {};
  return ::fstat(fd, &about) == 0 && about.st_nlink > 0;
}

// A new object in place of the one that has the name; errno tells why on failure (-1).
int MakeAfresh(const char* path) {
  for (int tries = 0; tries < kTries; ++tries) {
    const int fd = ::shm_open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kOwnerOnly);
    if (fd >= 0 || errno != EEXIST) return fd;
    if (::shm_unlink(path) != 0 && errno != ENOENT) return -1;
  }
  errno = EBUSY;
  return -1;
}

}  // namespace

struct StreamMemory::Os {
  std::string path;
  int fd = -1;
  void* memory = nullptr;
  std::size_t size = 0;
  pid_t maker = ::getpid();

  Os() = default;
  Os(const Os&) = delete;
  Os& operator=(const Os&) = delete;
  ~Os() {
    if (memory != nullptr) ::munmap(memory, size);
    if (fd < 0) return;
    if (::getpid() == maker && IsLinked(fd)) ::shm_unlink(path.c_str());
    ::close(fd);
  }

  Status Make() {
    fd = MakeAfresh(path.c_str());
    if (fd < 0) {
      const int code = errno;
      if (code == EACCES || code == EPERM) {
        return {Error::Denied, code, "another account's record stream has the name"};
      }
      return StatusFromErrno(code, kMaking);
    }
    // Allocated now: on a full system a later write would kill the process instead of failing.
    int code = EINTR;
    while (code == EINTR) code = ::posix_fallocate(fd, 0, static_cast<off_t>(size));
    if (code != 0) return StatusFromErrno(code, kMaking);
    void* const mapped =
        ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd, 0);
    if (mapped == MAP_FAILED) return StatusFromErrno(errno, kMaking);
    memory = mapped;
    return {};
  }
};

std::uint32_t OwnProcessId() { return static_cast<std::uint32_t>(::getpid()); }

StreamMemory::StreamMemory(std::unique_ptr<Os> os) : os_(std::move(os)) {}
StreamMemory::StreamMemory(StreamMemory&&) noexcept = default;
StreamMemory::~StreamMemory() = default;

Result<StreamMemory> StreamMemory::Create(const std::string& name, std::size_t size) {
  auto os = std::make_unique<Os>();
  os->path = "/" + name;
  os->size = size;
  const Status made = os->Make();
  if (!made.Ok()) return made;
  return StreamMemory(std::move(os));
}

void* StreamMemory::data() const { return os_->memory; }

void StreamMemory::Offer() { ::fchmod(os_->fd, kAnyoneReads); }  // whatever the umask is

void StreamMemory::Announce(std::uint32_t* count) {
  std::atomic_ref(*count).fetch_add(1, std::memory_order_release);
  ::syscall(SYS_futex, count, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

bool StreamMemory::Replaced() const { return !IsLinked(os_->fd); }

}  // namespace kinetrel
