// Variables of this process's environment, and of the programs that it starts.
#pragma once

#include <string>

namespace kinetrel::test {

void SetVariable(const std::string& name, const std::string& value);
void UnsetVariable(const std::string& name);

}  // namespace kinetrel::test
