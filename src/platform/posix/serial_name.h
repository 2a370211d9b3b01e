// From the name of a serial line to the device that the system knows.
#pragma once

#include <string>

namespace kinetrel {

// "COM<n>": what the environment variable KINETREL_COM<n> names, else the n-th line of the
// machine's own, /dev/ttyS<n-1>. Any other name is a path already. Empty for COM0 without the
// variable: there is no such line.
std::string SerialDevicePath(const std::string& name);

// The group whose members may use the device; empty when there is none, or it is root's own.
std::string GroupThatMayUse(const std::string& path);

}  // namespace kinetrel
