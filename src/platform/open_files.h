// Which programs of the machine have a file open.
#pragma once

#include <string>
#include <vector>

namespace kinetrel {

struct FileUser {
  int process = 0;
  std::string program = {};
};

// The files that were open at one moment, without those of this process: of the programs of this
// account, or of all programs for the system's administrator. On Windows always empty: the system
// does not tell.
class OpenFiles {
 public:
  OpenFiles();

  std::vector<FileUser> UsersOf(const std::string& device) const;  // a path
  std::vector<FileUser> UsersOfStreamMemory(const std::string& name) const;

 private:
  struct Entry {
    std::string path;
    FileUser user;
  };
  std::vector<Entry> entries_;
};

}  // namespace kinetrel
