#include "platform/open_files.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "platform/posix/folders.h"

namespace kinetrel {

OpenFiles::OpenFiles() {
  ForEntries("/proc", [&](const std::filesystem::path& process) {
    int number = 0;
    const std::string name = process.filename().string();
    const auto read = std::from_chars(name.data(), name.data() + name.size(), number);
    if (read.ec != std::errc() || number == ::getpid()) return;
    ForEntries(process / "fd", [&](const std::filesystem::path& file) {
      const std::string target = TargetOf(file);
      if (!target.starts_with("/dev/")) return;
      entries_.push_back({target, {number, FirstLineOf(process / "comm")}});
    });
  });
}

std::vector<FileUser> OpenFiles::UsersOf(const std::string& device) const {
  std::error_code error;
  const std::filesystem::path real = std::filesystem::canonical(device, error);
  const std::string path = error ? device : real.string();
  std::vector<FileUser> users;
  for (const Entry& entry : entries_) {
    const auto same = [&](const FileUser& user) { return user.process == entry.user.process; };
    if (entry.path == path && !std::ranges::any_of(users, same)) users.push_back(entry.user);
  }
  return users;
}

std::vector<FileUser> OpenFiles::UsersOfStreamMemory(const std::string& name) const {
  return UsersOf("/dev/shm/" + name);
}

}  // namespace kinetrel
