// The lock inside a named mutex: the C library's robust mutex, kept without the C library.
//
// Clients lock the object with pthread_mutex_lock. Any process may write into the object, and the C
// library trusts it: it follows list pointers that lie in the object, ends the process over an
// owner that does not exist, and takes an owner with its own thread's number for itself, although
// numbers repeat in every process-id namespace. So this side speaks the same protocol on one word
// of the object only, and trusts no content:
//
//   bits 0-29   the owner's thread number; 0: free
//   bit 30      the owner died; the next thread to lock takes the mutex
//   bit 31      threads of some process sleep on the word
//
// Which of our threads holds the mutex, and how often, is kept in this process. If we die as the
// owner, the kernel marks the word: the thread's robust list names it in list_op_pending, a field
// outside the shared memory. A thread has one such field. While it holds a second mutex, the first
// is not released if it dies.
//
// The mutex is not recursive for clients: a recursive one lets two clients of different process-id
// namespaces in at once if their thread numbers are equal.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/clock.h"

namespace kinetrel {

class SharedMutex {
 public:
  static std::size_t Size();  // bytes of the object

  // Makes the object usable for clients, whatever it holds. Its lock word stays as it is.
  static void Prepare(void* memory);

  explicit SharedMutex(void* memory) : memory_(memory) {}
  SharedMutex(const SharedMutex&) = delete;
  SharedMutex& operator=(const SharedMutex&) = delete;

  // As NamedMutex, which see.
  bool Lock(Milliseconds timeout);
  bool Unlock();
  bool TakeRepaired() { return repaired_ && repaired_.exchange(false); }
  std::uint32_t OwnerNumber() const;
  bool TakeFrom(std::uint32_t owner);

  bool IsOurs() const;  // a thread of this process is the owner

 private:
  struct ThisThread;

  std::atomic_ref<std::uint32_t> Word() const;
  bool IsHeldBy(const ThisThread& self) const;
  bool Acquire(const ThisThread& self, Milliseconds timeout);
  void Sleep(const ThisThread& self, std::uint32_t seen, Milliseconds timeout);
  void BecomeOwner(const ThisThread& self);

  void* const memory_;
  std::atomic<std::uint32_t> holder_ = 0;  // the number of our thread that holds the mutex
  std::atomic<bool> repaired_ = false;

  // The holder's own.
  unsigned depth_ = 0;
  void* before_ = nullptr;  // what list_op_pending named before
};

}  // namespace kinetrel
