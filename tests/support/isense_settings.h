// What a test tells the InterSense substitute, and what the substitute says that it was asked.
#pragma once

#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/peer.h"

namespace kinetrel::test {

class IsenseSettings {
 public:
  explicit IsenseSettings(const std::string& library = KINETREL_ISENSE_SUBSTITUTE)
      : callsFile_((std::filesystem::temp_directory_path() / UniqueName("isense-calls")).string()) {
    Put("KINETREL_ISENSE", library);
    Put("KINETREL_ISENSE_CALLS", callsFile_);
  }
  ~IsenseSettings() {
    for (const std::string& name : names_) UnsetVariable(name);
    std::filesystem::remove(callsFile_);
  }
  IsenseSettings(const IsenseSettings&) = delete;
  IsenseSettings& operator=(const IsenseSettings&) = delete;

  // name  without its beginning: "MODEL".
  void Set(const std::string& name, const std::string& value) {
    Put("KINETREL_ISENSE_" + name, value);
  }

  // Since the last time: one line for each call.
  std::vector<std::string> TakeCalls() {
    std::vector<std::string> calls;
    std::ifstream file(callsFile_);
    for (std::string line; std::getline(file, line);) calls.push_back(line);
    std::filesystem::remove(callsFile_);
    return calls;
  }

 private:
  void Put(const std::string& variable, const std::string& value) {
    SetVariable(variable, value);
    names_.insert(variable);
  }

  std::string callsFile_;
  std::set<std::string> names_;
};

}  // namespace kinetrel::test
