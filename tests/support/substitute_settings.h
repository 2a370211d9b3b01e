// What a test tells a substitute library, and the calls that the library received.
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

class SubstituteSettings {
 public:
  // `variable` selects the library. All others begin with it.
  SubstituteSettings(const std::string& variable, const std::string& library)
      : variable_(variable),
        callsFile_((std::filesystem::temp_directory_path() / UniqueName(variable)).string()) {
    Put(variable, library);
    Set("CALLS", callsFile_);
  }
  ~SubstituteSettings() {
    for (const std::string& name : names_) UnsetVariable(name);
    std::filesystem::remove(callsFile_);
  }
  SubstituteSettings(const SubstituteSettings&) = delete;
  SubstituteSettings& operator=(const SubstituteSettings&) = delete;

  // name  without its beginning: "MODEL".
  void Set(const std::string& name, const std::string& value) {
    Put(variable_ + "_" + name, value);
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

  const std::string variable_;
  const std::string callsFile_;
  std::set<std::string> names_;
};

class IsenseSettings : public SubstituteSettings {
 public:
  explicit IsenseSettings(const std::string& library = KINETREL_ISENSE_SUBSTITUTE)
      : SubstituteSettings("KINETREL_ISENSE", library) {}
};

}  // namespace kinetrel::test
