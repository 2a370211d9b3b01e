#include "tests/support/environment.h"

#include <cstdlib>

namespace kinetrel::test {

void SetVariable(const std::string& name, const std::string& value) {
  ::_putenv_s(name.c_str(), value.c_str());
}

void UnsetVariable(const std::string& name) { ::_putenv_s(name.c_str(), ""); }

}  // namespace kinetrel::test
