// From the name of a serial line to the path that the system opens.
#pragma once

#include <optional>
#include <string>

namespace kinetrel {

// n of a name that is exactly "COM<n>".
std::optional<unsigned> ComNumber(const std::string& name);

// The device's path: "\\.\" and the name, which also reaches the ports above COM9. For "COM<n>" the
// environment variable KINETREL_COM<n> may name another port.
std::string SerialDevicePath(const std::string& name);

}  // namespace kinetrel
