#include "platform/win32/shared_object.h"

#include <windows.h>

#include <map>
#include <utility>

#include "platform/mutex.h"
#include "platform/win32/os.h"

namespace kinetrel {
namespace {

using Opened = std::shared_ptr<SharedObject>;

constexpr const char* kOpening = "opening a shared object";

// A descriptor whose access list is null: any account may open the new object. Without a descriptor
// the system uses the default of the account.
class Security {
 public:
  Security() {
    ::InitializeSecurityDescriptor(&descriptor_, SECURITY_DESCRIPTOR_REVISION);
    ::SetSecurityDescriptorDacl(&descriptor_, TRUE, nullptr, FALSE);
  }
  Security(const Security&) = delete;
  Security& operator=(const Security&) = delete;

  SECURITY_ATTRIBUTES* For(Access access) {
    return access == Access::Anyone ? &attributes_ : nullptr;
  }

 private:
  SECURITY_DESCRIPTOR descriptor_{};
  SECURITY_ATTRIBUTES attributes_{sizeof attributes_, &descriptor_, FALSE};
};

// Opens or makes an object of that kind. The last error then tells whether it is new.
HANDLE OpenHandle(const char* name, ObjectKind kind, std::size_t size, Access access) {
  Security security;
  SECURITY_ATTRIBUTES* const attributes = security.For(access);
  switch (kind) {
    case ObjectKind::Memory:
      return ::CreateFileMappingA(INVALID_HANDLE_VALUE, attributes, PAGE_READWRITE, 0,
                                  static_cast<DWORD>(size), name);
    case ObjectKind::Mutex:
      return ::CreateMutexA(attributes, FALSE, name);
    case ObjectKind::Event:
      return ::CreateEventA(attributes, TRUE, FALSE, name);
  }
  return nullptr;
}

// The system reports an invalid handle when an object of another kind has the name.
Status OpenFailure(DWORD code) {
  if (code != ERROR_INVALID_HANDLE) return StatusFromSystem(code, kOpening);
  return {Error::Invalid, static_cast<int>(code), "another kind of object has the name"};
}

// Whether all of the memory can be used. A program that touches reserved memory would be ended.
bool IsUsable(const void* memory, std::size_t size) {
  MEMORY_BASIC_INFORMATION about{};
  return ::VirtualQuery(memory, &about, sizeof about) == sizeof about &&
         about.State == MEM_COMMIT && about.RegionSize >= size;
}

Result<View> Map(const Handle& handle, std::size_t size, bool existed) {
  View view(::MapViewOfFile(handle.get(), FILE_MAP_ALL_ACCESS, 0, 0, size), size);
  const Status mapped = view.memory() != nullptr ? Status{} : StatusOfLastError(kOpening);
  if (mapped.Ok() && IsUsable(view.memory(), size)) return view;
  if (!existed) return mapped;
  return Status{Error::Invalid, mapped.osCode, "an object of another size has the name"};
}

Result<Opened> OpenInSystem(const std::string& name, ObjectKind kind, std::size_t size,
                            Access access) {
  Handle handle(OpenHandle(name.c_str(), kind, size, access));
  const DWORD code = ::GetLastError();
  if (!handle) return OpenFailure(code);
  Result<View> view = View();
  if (kind == ObjectKind::Memory) view = Map(handle, size, code == ERROR_ALREADY_EXISTS);
  if (!view.Ok()) return view.status();
  return std::make_shared<SharedObject>(name, kind, std::move(handle), std::move(*view));
}

// The objects that this process has open, by name. One per process: names belong to the machine.
class OpenObjects {
 public:
  static OpenObjects& Instance() {
    // Never destroyed: objects may be closed while the process exits.
    static OpenObjects& objects = *new OpenObjects;
    return objects;
  }

  Result<Opened> Open(const std::string& name, ObjectKind kind, std::size_t size, Access access) {
    const Lock held(lock_);
    if (Opened object = byName_[name].lock()) {
      if (object->kind() == kind && object->size() == size) return object;
      return Status{Error::Invalid, 0, "an object of another size has the name"};
    }
    Result<Opened> opened = OpenInSystem(name, kind, size, access);
    if (opened.Ok()) {
      byName_[name] = *opened;
    } else {
      byName_.erase(name);
    }
    return opened;
  }

  void Forget(const std::string& name) {
    const Lock held(lock_);
    const auto entry = byName_.find(name);
    if (entry != byName_.end() && entry->second.expired()) byName_.erase(entry);
  }

 private:
  Mutex lock_;
  std::map<std::string, std::weak_ptr<SharedObject>> byName_ GUARDED_BY(lock_);
};

}  // namespace

Result<Opened> SharedObject::Open(const std::string& name, ObjectKind kind, std::size_t size,
                                  Access access) {
  return OpenObjects::Instance().Open(name, kind, size, access);
}

View::~View() {
  if (memory_ != nullptr) ::UnmapViewOfFile(memory_);
}

SharedObject::SharedObject(std::string name, ObjectKind kind, Handle handle, View view)
    : name_(std::move(name)), kind_(kind), handle_(std::move(handle)), view_(std::move(view)) {}

SharedObject::~SharedObject() {
  if (local_ == nullptr) OpenObjects::Instance().Forget(name_);
}

// The writer is the process that made the object with the mark's name. Other processes open it just
// long enough to see that it exists, so two of them may disturb each other for a moment.
bool SharedObject::ClaimWriting() {
  constexpr int kTries = 20;
  if (writing_) return true;
  const std::string mark = name_ + "Writer";
  for (int tries = 0; tries < kTries; ++tries) {
    Handle handle(OpenHandle(mark.c_str(), ObjectKind::Mutex, 0, Access::Anyone));
    if (!handle) return false;
    if (::GetLastError() != ERROR_ALREADY_EXISTS) {
      writing_ = std::move(handle);
      return true;
    }
    handle = Handle();
    ::Sleep(1);
  }
  return false;
}

}  // namespace kinetrel
