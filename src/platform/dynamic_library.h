// Loads a library while the program runs: the one that a device's vendor ships.
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
  // Loads a library by its name, as the vendor's documents write it ("isense.dll"). The first of
  // these that applies says where it is:
  //   - a name with a '/' is the file itself;
  //   - the environment variable KINETREL_<NAME>, the name without its ending and in capitals
  //     (KINETREL_ISENSE), names the file, and no other is tried;
  //   - where the system looks for libraries: the name in the system's own form (on Linux
  //     libisense.so), then the name itself.
  // Calls inside the library reach the library's own functions, even when this program exports
  // functions of the same names.
  //
  // why      unless null: receives the system's text on a failure.
  // Errors   NotFound: the file is missing, or this machine cannot load it as a library.
  static Result<DynamicLibrary> Load(const std::string& name, std::string* why = nullptr);

  DynamicLibrary(DynamicLibrary&& other) noexcept
      : handle_(std::exchange(other.handle_, nullptr)) {}
  DynamicLibrary& operator=(DynamicLibrary&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  ~DynamicLibrary();

  // The environment names the file to load for this name.
  static bool IsChosen(const std::string& name) { return ChosenFile(name) != nullptr; }

  using AnyFunction = void (*)();

  // Finds the function of that name. Cast it to its true type; it is valid as long as this object.
  // NotFound, with the system's number, and `found` null: the library does not export it.
  Status Find(const char* function, AnyFunction& found) const;

 private:
  explicit DynamicLibrary(void* handle) : handle_(handle) {}

  static std::string Stem(const std::string& name);        // without its ending
  static const char* ChosenFile(const std::string& name);  // by the environment; null: none

  void* handle_;
};

}  // namespace kinetrel
