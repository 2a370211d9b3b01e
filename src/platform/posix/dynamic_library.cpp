#include "platform/dynamic_library.h"

#include <dlfcn.h>

#include <cerrno>
#include <mutex>
#include <vector>

namespace kinetrel {
namespace {

#ifdef __has_feature
constexpr bool kSanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// A library searches the program's functions first. With this flag it searches its own first, so it
// never calls a function of ours that has the same name. The sanitizers do not support the flag.
#ifdef RTLD_DEEPBIND
constexpr int kOwnFunctionsFirst = kSanitized ? 0 : RTLD_DEEPBIND;
#else
constexpr int kOwnFunctionsFirst = 0;
#endif

// chosen  the file that the environment names; null: none.
std::vector<std::string> Candidates(const std::string& name, const std::string& stem,
                                    const char* chosen) {
  if (name.find('/') != std::string::npos) return {name};
  if (chosen != nullptr) return {chosen};
  return {"lib" + stem + ".so", name};
}

// The loader has a lock of its own, but the thread sanitizer cannot see it.
std::mutex& LoaderMutex() {
  static std::mutex mutex;
  return mutex;
}

// Keeps the first failure, which helps the user most.
void NoteFailure(std::string* why) {
  const char* const text = ::dlerror();
  if (why != nullptr && why->empty() && text != nullptr) *why = text;
}

}  // namespace

Result<DynamicLibrary> DynamicLibrary::Load(const std::string& name, std::string* why) {
  if (why != nullptr) why->clear();
  const std::lock_guard lock(LoaderMutex());
  for (const std::string& file : Candidates(name, Stem(name), ChosenFile(name))) {
    void* const handle = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL | kOwnFunctionsFirst);
    if (handle != nullptr) return DynamicLibrary(handle);
    NoteFailure(why);
  }
  return Status{Error::NotFound, ENOENT, "loading a library"};
}

DynamicLibrary::~DynamicLibrary() {
  if (handle_ == nullptr) return;
  const std::lock_guard lock(LoaderMutex());
  ::dlclose(handle_);
}

// The system has no number for a missing function.
Status DynamicLibrary::Find(const char* function, AnyFunction& found) const {
  found = reinterpret_cast<AnyFunction>(::dlsym(handle_, function));
  if (found != nullptr) return {};
  return {Error::NotFound, ENOSYS, "looking up a function"};
}

}  // namespace kinetrel
