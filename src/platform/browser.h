// The user's web browser.
#pragma once

#include <string>

#include "platform/status.h"

namespace kinetrel {

// Asks the desktop to open an address, and does not wait until it is shown. No shell sees the
// address. NotFound: the program that opens addresses is missing (on Linux xdg-open).
Status OpenInBrowser(const std::string& address);

}  // namespace kinetrel
