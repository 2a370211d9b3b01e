// Memory, mutexes and events that unrelated processes reach by name.
//
// An object lives as long as a process has it open; the last process to close it removes it from
// the system. A process that dies in any way releases what it held. Any account of the machine may
// open an object that another account made.
//
// Opening a name twice in one process shares one object. Every Open may return:
//   Denied   the system refuses this account the object
//   NoSpace  the system's memory or limit for such objects is used up
//   Invalid  something else, or an object of another size (Windows: a smaller one), has the name
//   Busy     another process took longer than 2 s to make the object
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/clock.h"
#include "platform/status.h"

namespace kinetrel {

// Who, besides this account, may open a new object. On Linux, which has no default per account,
// anyone may in both cases.
enum class Access { Anyone, AccountsDefault };

class SharedObject;  // the system's part, shared by all users of a name in this process

class NamedMemory {
 public:
  // Opens `size` bytes named `name`, or creates them, all zero. No process sees them half made.
  static Result<NamedMemory> Open(const std::string& name, std::size_t size);

  void* data() const;

  // Marks this process as the one that writes. Returns false while another process has the mark.
  // The mark ends with the last NamedMemory of this name in this process, or with the process.
  bool ClaimWriting();

 private:
  explicit NamedMemory(std::shared_ptr<SharedObject> object);
  std::shared_ptr<SharedObject> object_;
};

// Who keeps a mutex from being locked.
struct MutexOwner {
  enum class Evidence {
    Found,      // a live process that has the mutex open
    NotFound,   // none that this process can see; one may exist in another container
    Impossible  // no other process has the mutex open
  };
  Evidence evidence = Evidence::NotFound;
  int process = 0;  // its number; 0: not known
};

// A recursive mutex. If its owner dies, the next thread to lock it takes it.
//
// On Linux other programs can overwrite it. No content ends or blocks the process that uses it, but
// a content may name an owner that does not exist: then the mutex stays locked until TakeFrom.
//
// Threads  locked and unlocked by the same thread; several processes, several threads.
class NamedMutex {
 public:
  static Result<NamedMutex> Open(const std::string& name);  // made not locked

  // False: not locked within `timeout`. On Linux no system call if the mutex is free.
  bool Lock(Milliseconds timeout);

  // False: the mutex was not ours any more. Another program has overwritten it, and a second thread
  // may have been in.
  bool Unlock();

  // True once after a Lock found a mutex that other programs could not lock, and repaired it: one
  // of them had overwritten it, or had left it unrecoverable.
  bool TakeRepaired();

  // The number by which the mutex names its owner; 0 while it is free. Windows: always 0.
  std::uint32_t OwnerNumber() const;

  // Looks for the owner in the system; may take milliseconds. Windows: always NotFound.
  MutexOwner FindOwner() const;

  // Locks the mutex although it names `owner`. Only for an owner that does not exist. False: it
  // names another one now. Windows: always false; the system releases what a dead owner held.
  bool TakeFrom(std::uint32_t owner);

 private:
  explicit NamedMutex(std::shared_ptr<SharedObject> object);
  std::shared_ptr<SharedObject> object_;
};

// An event that stays set until it is reset, and wakes everyone who waits when it is set.
//
// Threads  any number may use it at once, in any process. A waiter that dies costs nothing.
class Event {
 public:
  // Made not set.
  static Result<Event> Open(const std::string& name, Access access = Access::Anyone);
  Event();  // without a name, for this process; not set

  // A moment in the event's life. A wait from that moment on misses no Set, even when another
  // process resets the event before the wait begins. It notices such a Set within LongestBlindWait.
  using Ticket = std::uint32_t;

  void Set();
  Ticket Reset();
  bool IsSet() const;

  // Set in two steps, for a caller that holds a lock which the waiters want. Mark sets the event;
  // when it returns true, call Wake after releasing the lock. On Linux Mark makes no system call.
  // On Windows it does everything, because other programs use the system's events directly.
  [[nodiscard]] bool Mark();
  void Wake();

  // A hint that a Mark comes soon: fetches the memory that the last waiter has in its CPU's cache.
  void PrefetchToSet() const;

  // True when the event is set, or was set since the ticket was taken (or the call began).
  bool Wait(Milliseconds timeout) const;
  bool WaitSince(Ticket ticket, Milliseconds timeout) const;

  // The longest time-out after which the waiter must look itself for what the event announces.
  // kForever on Linux. On Windows a named event does not show a Set that another process has reset.
  Milliseconds LongestBlindWait() const;

 private:
  explicit Event(std::shared_ptr<SharedObject> object);
  std::shared_ptr<SharedObject> object_;
};

}  // namespace kinetrel
