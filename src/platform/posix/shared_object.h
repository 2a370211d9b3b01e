// A named object that this process has open: memory shared with other processes.
//
// The shared-memory file of that name holds the object and nothing else. Every user holds a read
// lock on its first byte while the object is open. A process that gets the write lock instead knows
// that it is alone. The locks belong to the open file, so the kernel drops them when a process ends
// in any way.
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

// What a name holds.
struct ObjectKind {
  std::size_t size;

  // Fills in fresh memory, all zero.
  Status (*prepare)(void*) = [](void*) { return Status{}; };
};

// One open and mapped shared-memory file. The last user removes it. If another account owns it, it
// stays, and its next user finds itself alone and starts afresh.
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
  pid_t opener_;  // a forked child shares the locks but does not count as a user
  void* memory_ = nullptr;
  std::size_t size_ = 0;
};

class SharedObject {
 public:
  // Opens or makes the object of that name. A process opens each name once and shares it.
  // Errors: see platform/named_objects.h.
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
