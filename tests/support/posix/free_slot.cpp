#include "tests/support/free_slot.h"

#include <fcntl.h>
#include <kinetrel/stream.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

namespace kinetrel::test {

// Every user of a block holds a read lock on its first byte. What a killed program left is free.
bool FreeSlot::IsUsed(const std::string& block) {
  const int fd = ::shm_open(("/" + block).c_str(), O_RDWR | O_CLOEXEC, 0);
  if (fd < 0) return errno != ENOENT;
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_len = 1;
  const bool used = ::fcntl(fd, F_OFD_GETLK, &lock) != 0 || lock.l_type != F_UNLCK;
  ::close(fd);
  return used;
}

// A killed writer leaves its stream, which a reader would take for a tracker that was lost.
void FreeSlot::RemoveAbandonedStream(int slot) {
  kinetrel_stream stream;
  if (kinetrel_stream_open(&stream, slot, 0) != kinetrel_stream_ok) return;
  const auto writer = static_cast<pid_t>(stream.head.writer_pid);
  const std::string name = "/KinetrelStream" + std::string(1, "0123456789ABCDEF"[slot - 1]);
  if (::kill(writer, 0) != 0 && errno == ESRCH) ::shm_unlink(name.c_str());
  kinetrel_stream_close(&stream);
}

bool FreeSlot::Lock(const std::string& name) {
  const auto path = std::filesystem::temp_directory_path() / (name + ".lock");
  const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  lock_ = file;
  return file >= 0 && ::flock(file, LOCK_EX | LOCK_NB) == 0;
}

void FreeSlot::Unlock() {
  if (lock_ >= 0) ::close(static_cast<int>(lock_));
  lock_ = -1;
}

}  // namespace kinetrel::test
