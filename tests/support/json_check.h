// Whether a text is one JSON value and nothing else, strictly: no trailing comma, no NaN, no raw
// control byte, no byte that is not ASCII.
#pragma once

#include <string_view>

namespace kinetrel::test {

bool IsJson(std::string_view text);

}  // namespace kinetrel::test
