// Shared memory that one process writes and any account may read, and the wake-up of its readers.
//
// Readers are never trusted: they cannot write here, and the writer never waits for one.
//
// Threads  Announce and Replaced may be called by several at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/status.h"

namespace kinetrel {

std::uint32_t OwnProcessId();  // in this process's own namespace

class StreamMemory {
 public:
  // Makes the object `name` of `size` bytes, all of it in memory, so that writing to it cannot fail
  // later. No other process can open it until Offer. On Linux an object that has the name is
  // removed first and stays as it is for its readers. On Windows it is taken over while readers
  // have it open, with what it holds: the writer clears it. Denied: another account's object has
  // the name. NoSpace: the system's memory for such objects is used up. Busy (Windows): another
  // live process writes it.
  static Result<StreamMemory> Create(const std::string& name, std::size_t size);
  StreamMemory(StreamMemory&&) noexcept;
  ~StreamMemory();  // removes the name, unless it is another writer's by now

  void* data() const;
  void Offer();  // lets any account open it for reading

  // Adds one to `count`, a word of this memory that readers wait for, and wakes them all. One
  // system call on Linux, two on Windows, whether readers wait or not.
  void Announce(std::uint32_t* count);

  // Another writer has taken the name. Linux only: Windows refuses the second writer.
  bool Replaced() const;

 private:
  struct Os;
  explicit StreamMemory(std::unique_ptr<Os> os);
  std::unique_ptr<Os> os_;
};

}  // namespace kinetrel
