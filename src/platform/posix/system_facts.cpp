#include "platform/system_facts.h"

#include <sys/utsname.h>

#include <fstream>
#include <string_view>
#include <thread>

namespace kinetrel {
namespace {

// The value of the first line that begins with `key`, without quotation marks.
std::string ValueIn(const char* path, std::string_view key, char separator) {
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    if (!line.starts_with(key)) continue;
    std::size_t begin = line.find(separator);
    if (begin == std::string::npos) return {};
    begin = line.find_first_not_of(" \t\"", begin + 1);
    if (begin == std::string::npos) return {};
    return line.substr(begin, line.find_last_not_of(" \t\"") + 1 - begin);
  }
  return {};
}

}  // namespace

SystemFacts ReadSystemFacts() {
  SystemFacts facts;
  facts.system = ValueIn("/etc/os-release", "PRETTY_NAME", '=');
  facts.processor = ValueIn("/proc/cpuinfo", "model name", ':');
  facts.processors = std::thread::hardware_concurrency();
  utsname names{};
  if (::uname(&names) == 0) {
    facts.kernel = std::string(names.sysname) + " " + names.release + " " + names.version + " " +
                   names.machine;
  }
  return facts;
}

}  // namespace kinetrel
