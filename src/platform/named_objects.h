// Memory, mutexes and events that unrelated processes reach by name.
//
// An object lives as long as some process has it open; the last one to close it removes it from
// the system. A process that dies, however it dies, releases what it held. Any account of the
// machine may open an object that another one made.
//
// Opening a name twice in one process shares one object. Every Open may answer:
//   Denied   the system refuses this account the object
//   NoSpace  the system's memory or limit for such objects is used up
//   Invalid  something else, or an object of another size (Windows: a smaller one), has the name
//   Busy     another process holds the object half made for longer than 2 s
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/clock.h"
#include "platform/status.h"

namespace kinetrel {

// Who, besides this account, may open what a call makes. Where the system knows no account's
// default (Linux) it is always anyone.
enum class Access { Anyone, AccountsDefault };

class SharedObject;  // the system's own part, shared by all users of a name in this process

class NamedMemory {
 public:
  // Opens `size` bytes named `name`, or creates them, all zero. Nobody sees them half made.
  static Result<NamedMemory> Open(const std::string& name, std::size_t size);

  void* data() const;

  // Marks this process as the one that writes. False, and no mark, while another process has it.
  // The mark goes with the last NamedMemory of this name, or with the process.
  bool ClaimWriting();

 private:
  explicit NamedMemory(std::shared_ptr<SharedObject> object);
  std::shared_ptr<SharedObject> object_;
};

// A recursive mutex. Its owner may die: the next one to lock it gets it as if it were released.
// On Linux a thread that holds it runs at the priority of the highest one that waits for it.
//
// Threads  locked and unlocked by the same thread; several processes, several threads.
class NamedMutex {
 public:
  static Result<NamedMutex> Open(const std::string& name);  // made not locked

  // False: not locked within `timeout`, or what the name holds is no usable mutex. On Linux
  // no system call where nobody else holds it.
  bool Lock(Milliseconds timeout);
  void Unlock();

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

  // A moment in the event's life, to wait from: what is set after it is not missed, though somebody
  // else should reset the event before the wait has begun; at the latest it is found after
  // LongestBlindWait.
  using Ticket = std::uint32_t;

  void Set();
  Ticket Reset();
  bool IsSet() const;

  // Set in two steps, for a caller that holds a lock the waiters want: Mark sets the event, and
  // when it answers true Wake must follow, after the lock is released. On Linux no system call in
  // Mark; on Windows it does it all, since other programs use the system's events as they are.
  [[nodiscard]] bool Mark();
  void Wake();

  // A hint that a Mark comes soon: asks for the memory that whoever waited last has on its CPU.
  void PrefetchToSet() const;

  // True when the event is set, or has been since the ticket was taken (or the call began).
  bool Wait(Milliseconds timeout) const;
  bool WaitSince(Ticket ticket, Milliseconds timeout) const;

  // How long to wait at the most before looking for oneself whether what the event announces has
  // come. kForever on Linux; a named event of Windows does not tell a set that somebody else has
  // reset since.
  Milliseconds LongestBlindWait() const;

 private:
  explicit Event(std::shared_ptr<SharedObject> object);
  std::shared_ptr<SharedObject> object_;
};

}  // namespace kinetrel
