// A named object of the system that this process has open.
//
// The system itself follows the rules of named objects: one lives while a process has a handle, and
// a process that dies returns its handles. A process opens each name once and shares it.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <utility>

#include "platform/named_objects.h"
#include "platform/status.h"
#include "platform/win32/local_event.h"
#include "platform/win32/os.h"

namespace kinetrel {

enum class ObjectKind { Memory, Mutex, Event };

// Memory of the system, mapped into this process.
class View {
 public:
  View() = default;
  View(void* memory, std::size_t size) : memory_(memory), size_(size) {}
  View(View&& other) noexcept
      : memory_(std::exchange(other.memory_, nullptr)), size_(other.size_) {}
  View& operator=(View&& other) noexcept {
    std::swap(memory_, other.memory_);
    std::swap(size_, other.size_);
    return *this;
  }
  ~View();

  void* memory() const { return memory_; }
  std::size_t size() const { return size_; }

 private:
  void* memory_ = nullptr;
  std::size_t size_ = 0;
};

class SharedObject {
 public:
  // Opens or makes the object of that name. Errors: see platform/named_objects.h.
  //
  // size  of memory, in bytes; 0 for the other kinds.
  static Result<std::shared_ptr<SharedObject>> Open(const std::string& name, ObjectKind kind,
                                                    std::size_t size, Access access);

  SharedObject() : local_(std::make_unique<LocalEvent>()) {}  // an event of this process alone
  SharedObject(std::string name, ObjectKind kind, Handle handle, View view);
  ~SharedObject();
  SharedObject(const SharedObject&) = delete;
  SharedObject& operator=(const SharedObject&) = delete;

  bool ClaimWriting();

  void* handle() const { return handle_.get(); }
  LocalEvent* local() const { return local_.get(); }  // null: a named object
  void* memory() const { return view_.memory(); }
  std::size_t size() const { return view_.size(); }
  ObjectKind kind() const { return kind_; }

 private:
  std::string name_;
  ObjectKind kind_ = ObjectKind::Event;
  Handle handle_;
  Handle writing_;  // open while this process is the writer
  View view_;
  std::unique_ptr<LocalEvent> local_;
};

}  // namespace kinetrel
