#include "platform/named_objects.h"

#include <windows.h>

#include <utility>

#include "platform/win32/os.h"
#include "platform/win32/shared_object.h"

namespace kinetrel {
namespace {

using Opened = std::shared_ptr<SharedObject>;

}  // namespace

// ---- NamedMemory -----------------------------------------------------------------------------

NamedMemory::NamedMemory(std::shared_ptr<SharedObject> object) : object_(std::move(object)) {}

Result<NamedMemory> NamedMemory::Open(const std::string& name, std::size_t size) {
  Result<Opened> opened = SharedObject::Open(name, ObjectKind::Memory, size, Access::Anyone);
  if (!opened.Ok()) return opened.status();
  return NamedMemory(std::move(*opened));
}

void* NamedMemory::data() const { return object_->memory(); }

bool NamedMemory::ClaimWriting() { return object_->ClaimWriting(); }

// ---- NamedMutex ------------------------------------------------------------------------------

NamedMutex::NamedMutex(std::shared_ptr<SharedObject> object) : object_(std::move(object)) {}

Result<NamedMutex> NamedMutex::Open(const std::string& name) {
  Result<Opened> opened = SharedObject::Open(name, ObjectKind::Mutex, 0, Access::Anyone);
  if (!opened.Ok()) return opened.status();
  return NamedMutex(std::move(*opened));
}

bool NamedMutex::Lock(Milliseconds timeout) {
  const WaitEnd end = WaitFor(object_->handle(), timeout);
  return end == WaitEnd::Signalled || end == WaitEnd::Abandoned;
}

bool NamedMutex::Unlock() { return ::ReleaseMutex(object_->handle()) != 0; }

// The system keeps the content of its mutexes: no program overwrites it.
bool NamedMutex::TakeRepaired() { return false; }

std::uint32_t NamedMutex::OwnerNumber() const { return 0; }

MutexOwner NamedMutex::FindOwner() const { return {}; }

bool NamedMutex::TakeFrom(std::uint32_t) { return false; }

// ---- Event -----------------------------------------------------------------------------------

Event::Event() : object_(std::make_shared<SharedObject>()) {}

Event::Event(std::shared_ptr<SharedObject> object) : object_(std::move(object)) {}

Result<Event> Event::Open(const std::string& name, Access access) {
  Result<Opened> opened = SharedObject::Open(name, ObjectKind::Event, 0, access);
  if (!opened.Ok()) return opened.status();
  return Event(std::move(*opened));
}

void Event::Set() {
  if (LocalEvent* const local = object_->local()) return local->Set();
  ::SetEvent(object_->handle());
}

// Clients use the system's events, which wake at once. If the event were set after the mutex is
// released, it could wake a reader that has taken the frame and reset the event to wait for the
// next.
bool Event::Mark() {
  Set();
  return false;
}

void Event::Wake() {}

void Event::PrefetchToSet() const {}

Event::Ticket Event::Reset() {
  if (LocalEvent* const local = object_->local()) return local->Reset();
  ::ResetEvent(object_->handle());
  return 0;
}

bool Event::IsSet() const { return Wait(Milliseconds(0)); }

bool Event::Wait(Milliseconds timeout) const {
  const LocalEvent* const local = object_->local();
  return WaitSince(local != nullptr ? local->Count() : 0, timeout);
}

bool Event::WaitSince(Ticket ticket, Milliseconds timeout) const {
  if (const LocalEvent* const local = object_->local()) return local->WaitSince(ticket, timeout);
  return WaitFor(object_->handle(), timeout) == WaitEnd::Signalled;
}

Milliseconds Event::LongestBlindWait() const {
  return object_->local() != nullptr ? kForever : Milliseconds(100);
}

}  // namespace kinetrel
