// From the name of a serial line to the path that the system opens.
#pragma once

#include <string>

namespace kinetrel {

// The device's path: "\\.\" and the name, which also reaches the ports above COM9. For "COM<n>" the
// environment variable KINETREL_COM<n> may name another port.
std::string SerialDevicePath(const std::string& name);

}  // namespace kinetrel
