// Values as a configuration file (TOML) writes them.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kinetrel {

std::string TomlText(std::string_view text);  // in quotes
std::string TomlTexts(const std::vector<std::string>& texts);
std::string TomlBool(bool value);

// As short as it can be and still be read as the same float.
std::string TomlNumber(float value);
std::string TomlNumbers(std::span<const float> values);

// An angle in degrees that is read as the same float in radians.
std::string TomlDegrees(float radians);

}  // namespace kinetrel
