// The kernel's folders of small files, which may change while they are read.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace kinetrel {

// Calls `visit` with each entry; an entry that disappears meanwhile is left out.
template <typename Visit>
void ForEntries(const std::filesystem::path& folder, Visit visit) {
  std::error_code error;
  std::filesystem::directory_iterator at(folder, error);
  for (; !error && at != std::filesystem::directory_iterator(); at.increment(error)) {
    visit(at->path());
  }
}

// Empty when it cannot be read, as the next.
inline std::string FirstLineOf(const std::filesystem::path& file) {
  std::ifstream in(file);
  std::string line;
  std::getline(in, line);
  return line;
}

inline std::string TargetOf(const std::filesystem::path& link) {
  std::error_code error;
  const std::filesystem::path target = std::filesystem::read_symlink(link, error);
  return error ? std::string() : target.string();
}

}  // namespace kinetrel
