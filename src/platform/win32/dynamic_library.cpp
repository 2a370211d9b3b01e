#include "platform/dynamic_library.h"

#include <windows.h>

#include <array>

#include "platform/win32/os.h"

namespace kinetrel {
namespace {

bool IsPath(const std::string& name) { return name.find_first_of("/\\") != std::string::npos; }

// The system takes a path only with its own slashes. It looks beside the library for what that
// needs only when told to.
HMODULE LoadFile(std::string path) {
  for (char& letter : path) letter = letter == '/' ? '\\' : letter;
  std::array<char, 32768> full{};
  const DWORD length = ::GetFullPathNameA(path.c_str(), full.size(), full.data(), nullptr);
  if (length == 0 || length >= full.size()) return nullptr;
  return ::LoadLibraryExA(full.data(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
}

HMODULE LoadByName(const std::string& name, const char* chosen) {
  if (IsPath(name)) return LoadFile(name);
  if (chosen == nullptr) return ::LoadLibraryA(name.c_str());
  return IsPath(chosen) ? LoadFile(chosen) : ::LoadLibraryA(chosen);
}

// Without the full stop and line end of the system's texts.
std::string SystemText(DWORD code) {
  std::array<char, 512> text{};
  const DWORD length = ::FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                        nullptr, code, 0, text.data(), text.size(), nullptr);
  std::string words(text.data(), length);
  words.erase(words.find_last_not_of(" .\r\n") + 1);
  return words.empty() ? "error " + std::to_string(code) : words;
}

}  // namespace

Result<DynamicLibrary> DynamicLibrary::Load(const std::string& name, std::string* why) {
  if (why != nullptr) why->clear();
  // The caller reports a library that cannot be loaded; the system must not open a window for it.
  DWORD before = 0;
  ::SetThreadErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX, &before);
  const HMODULE module = LoadByName(name, ChosenFile(name));
  const DWORD code = ::GetLastError();
  ::SetThreadErrorMode(before, nullptr);
  if (module != nullptr) return DynamicLibrary(module);
  if (why != nullptr) *why = SystemText(code);
  return Status{Error::NotFound, static_cast<int>(code), "loading a library"};
}

DynamicLibrary::~DynamicLibrary() {
  if (handle_ != nullptr) ::FreeLibrary(static_cast<HMODULE>(handle_));
}

Status DynamicLibrary::Find(const char* function, AnyFunction& found) const {
  found = reinterpret_cast<AnyFunction>(::GetProcAddress(static_cast<HMODULE>(handle_), function));
  if (found != nullptr) return {};
  return {Error::NotFound, static_cast<int>(::GetLastError()), "looking up a function"};
}

}  // namespace kinetrel
