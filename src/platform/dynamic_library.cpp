// Where a vendor's library is looked for, the same on every system.
#include "platform/dynamic_library.h"

#include <cctype>
#include <cstdlib>

namespace kinetrel {

std::string DynamicLibrary::Stem(const std::string& name) { return name.substr(0, name.find('.')); }

const char* DynamicLibrary::ChosenFile(const std::string& name) {
  std::string variable = "KINETREL_";
  for (const char letter : Stem(name)) {
    variable += static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
  }
  const char* const file = std::getenv(variable.c_str());
  return file != nullptr && *file != '\0' ? file : nullptr;
}

}  // namespace kinetrel
