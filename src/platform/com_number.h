// The serial ports that go by a number.
#pragma once

#include <optional>
#include <string>

namespace kinetrel {

// n of a name that is exactly "COM<n>".
std::optional<unsigned> ComNumber(const std::string& name);

}  // namespace kinetrel
