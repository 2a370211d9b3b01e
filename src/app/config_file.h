// The configuration file: TOML whose keys are the long options, and two lists of tables for what
// belongs to one sensor.
//
//   [[sensor]]   number = 1, name = "...", hemisphere = [x, y, z], align = [[x...], [y...]]
//   [[mapping]]  sensor = 1, bin = 0, pose-slot = 0
#pragma once

#include <string>
#include <string_view>

#include "app/settings.h"

namespace kinetrel {

// Applies the file to `settings` and prints each value in words, as the command line does.
//
// complaints  receives what is wrong: "FILE:LINE: ...", one line for each mistake, if the result is
//             false. Some settings are changed then.
bool ReadConfigFile(Settings& settings, Audience audience, const std::string& path,
                    std::string& complaints);

// As above, of a text. `name` stands in the complaints.
bool ReadConfigText(Settings& settings, Audience audience, std::string_view text,
                    const std::string& name, std::string& complaints);

// The file that makes the same settings of a new Settings.
std::string ConfigText(const Settings& settings, Audience audience);

}  // namespace kinetrel
