#include "platform/browser.h"

#include <windows.h>

#include <shellapi.h>

#include <cstdint>

#include "platform/win32/os.h"

namespace kinetrel {

Status OpenInBrowser(const std::string& address) {
  const HINSTANCE result =
      ::ShellExecuteA(nullptr, "open", address.c_str(), nullptr, nullptr, SW_SHOWNORMAL);
  const auto code = reinterpret_cast<std::intptr_t>(result);  // above 32: done
  if (code > 32) return {};
  return StatusFromSystem(static_cast<unsigned long>(code), "the browser cannot be started");
}

}  // namespace kinetrel
