// A library that is loaded while the program runs: what a device's vendor ships.
#pragma once

#include <string>
#include <utility>

#include "platform/status.h"

namespace kinetrel {

// One loaded library; unloaded with the object.
//
// Threads  one at a time.
class DynamicLibrary {
 public:
  // Loads a library by its name, as the vendor's documents write it ("isense.dll"). Where it is
  // taken from, the first that applies:
  //   - a name with a '/' is the file itself;
  //   - the file that the environment variable KINETREL_<NAME> names, the name without its ending
  //     and in capitals (KINETREL_ISENSE), and then no other;
  //   - where the system looks for libraries: the name in the system's own form (on Linux
  //     libisense.so), then the name itself.
  // The library's calls of its own functions reach its own, also where this program exports
  // functions of the same names.
  //
  // why      unless null: in the system's words why it failed.
  // Errors   NotFound: no such file, or it is no library that can be loaded here.
  static Result<DynamicLibrary> Load(const std::string& name, std::string* why = nullptr);

  DynamicLibrary(DynamicLibrary&& other) noexcept
      : handle_(std::exchange(other.handle_, nullptr)) {}
  DynamicLibrary& operator=(DynamicLibrary&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  ~DynamicLibrary();

  using AnyFunction = void (*)();

  // The library's function of that name, to be cast to its true type; good as long as this object.
  // NotFound, with the system's number, and `found` null: the library exports none.
  Status Find(const char* function, AnyFunction& found) const;

 private:
  explicit DynamicLibrary(void* handle) : handle_(handle) {}

  void* handle_;
};

}  // namespace kinetrel
