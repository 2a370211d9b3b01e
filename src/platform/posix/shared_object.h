// A named object of the system, as this process has it open: memory shared with other processes.
//
// The file of the system's shared memory that has the object's name holds the object and nothing
// else. Every user holds a read lock on its first byte for as long as the object is open: who can
// get the write lock instead knows that there is no other user. These are locks of the open file,
// so the kernel drops them with the process, however that ends.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/posix/shared_mutex.h"
#include "platform/status.h"

namespace kinetrel {

// What is kept under a name.
struct ObjectKind {
  std::size_t size;

  // Fills in fresh memory, all zero.
  Status (*prepare)(void*) = [](void*) { return Status{}; };
};

// One open and mapped file of the system's shared memory. The last user to let go removes it;
// another account's stays, and its next user will find itself alone and start afresh.
class SharedFile {
 public:
  SharedFile(std::string path, int fd);
  SharedFile(SharedFile&& other) noexcept;
  SharedFile& operator=(SharedFile&&) = delete;
  ~SharedFile();

  Status Map(std::size_t size);

  int fd() const { return fd_; }
  const std::string& path() const { return path_; }
  void* memory() const { return memory_; }
  std::size_t size() const { return size_; }

 private:
  void RemoveIfLast();

  std::string path_;
  int fd_;
  pid_t opener_;  // a forked child shares the locks, but is no user of its own
  void* memory_ = nullptr;
  std::size_t size_ = 0;
};

class SharedObject {
 public:
  // Opens or makes the object of that name; a name is opened once in a process and then shared.
  // Errors as platform/named_objects.h tells.
  static Result<std::shared_ptr<SharedObject>> Open(const std::string& name,
                                                    const ObjectKind& kind);

  explicit SharedObject(SharedFile file) : file_(std::move(file)), memory_(file_->memory()) {}

  // Memory of this process alone, for objects without a name.
  explicit SharedObject(std::size_t size)
      : own_(std::make_unique<std::uint64_t[]>(size / 8 + 1)), memory_(own_.get()) {}

  ~SharedObject();
  SharedObject(const SharedObject&) = delete;
  SharedObject& operator=(const SharedObject&) = delete;

  void* memory() const { return memory_; }
  std::size_t size() const { return file_->size(); }
  bool named() const { return file_.has_value(); }

  // The lock on the second byte belongs to the process that writes.
  bool ClaimWriting();

  bool IsOpenElsewhere() const;  // another process has it open
  const std::string& path() const { return file_->path(); }

  // The lock, where the object is a mutex.
  SharedMutex& mutex() { return mutex_; }

 private:
  std::optional<SharedFile> file_;
  std::unique_ptr<std::uint64_t[]> own_;
  void* memory_;
  SharedMutex mutex_{memory_};
};

}  // namespace kinetrel
