#include "tests/support/free_slot.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "tests/support/wait_until.h"

namespace kinetrel::test {
namespace {

constexpr int kDevices = 16;
constexpr int kBins = 16;

char Digit(int value) { return "0123456789ABCDEF"[value]; }

// Every user of a block holds a read lock on its first byte. What a killed program left is free.
bool IsUsed(int device, int bin) {
  const std::string name = std::string("/KinetrelShMem") + Digit(device) + Digit(bin);
  const int fd = ::shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0);
  if (fd < 0) return errno != ENOENT;
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_len = 1;
  const bool used = ::fcntl(fd, F_OFD_GETLK, &lock) != 0 || lock.l_type != F_UNLCK;
  ::close(fd);
  return used;
}

bool IsUsed(int device) {
  for (int bin = 0; bin < kBins; ++bin) {
    if (IsUsed(device, bin)) return true;
  }
  return false;
}

}  // namespace

FreeSlot::FreeSlot() {
  if (!WaitUntil([this] { return Take(); }, std::chrono::minutes(2))) {
    throw std::runtime_error("no free shared-memory slot");
  }
}

FreeSlot::~FreeSlot() { ::close(static_cast<int>(lock_)); }

bool FreeSlot::Take() {
  // From a different start in every process: tests that run at once seldom try the same number.
  for (int i = 0; i < kDevices; ++i) {
    device_ = (::getpid() + i) % kDevices;
    const auto path = std::filesystem::temp_directory_path() /
                      ("kinetrel-test-slot-" + std::to_string(device_) + ".lock");
    const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    lock_ = file;
    if (file >= 0 && ::flock(file, LOCK_EX | LOCK_NB) == 0 && !IsUsed(device_)) return true;
    if (file >= 0) ::close(file);
  }
  return false;
}

}  // namespace kinetrel::test
