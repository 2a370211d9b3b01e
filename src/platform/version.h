// The version of all programs, from one place.
#pragma once

#include <string>

namespace kinetrel {

// Of the layout of a block, as the console's first lines name it.
inline constexpr float kBlockVersion = 1.42F;

// The lines of --version: the version, those of the layouts, and what was built, how.
std::string VersionText(const char* program);

}  // namespace kinetrel
