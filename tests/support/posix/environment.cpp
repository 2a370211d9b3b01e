#include "tests/support/environment.h"

#include <cstdlib>

namespace kinetrel::test {

void SetVariable(const std::string& name, const std::string& value) {
  ::setenv(name.c_str(), value.c_str(), 1);
}

void UnsetVariable(const std::string& name) { ::unsetenv(name.c_str()); }

}  // namespace kinetrel::test
