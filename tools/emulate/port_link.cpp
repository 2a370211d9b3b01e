#include "emulate/port_link.h"

#include <filesystem>
#include <random>
#include <system_error>
#include <utility>

namespace kinetrel {
namespace {

namespace fs = std::filesystem;

Status Failure(const std::error_code& error, const char* what) {
  const bool denied = error == std::errc::permission_denied;
  const bool missing = error == std::errc::no_such_file_or_directory;
  return {denied ? Error::Denied : missing ? Error::NotFound : Error::Failed, error.value(), what};
}

}  // namespace

PortLink::PortLink(PortLink&& other) noexcept
    : path_(std::exchange(other.path_, {})), target_(std::exchange(other.target_, {})) {}

Status PortLink::Point(const std::string& target) {
  if (path_.empty() || target == target_) return {};
  if (target.empty()) {
    Remove();
    return {};
  }
  std::error_code error;
  const fs::file_status found = fs::symlink_status(path_, error);
  if (fs::exists(found) && !fs::is_symlink(found)) {
    return {Error::Invalid, 0, "link to the port: that name is taken by something else"};
  }
  const std::string fresh = path_ + ".new-" + std::to_string(std::random_device{}());
  fs::create_symlink(target, fresh, error);
  if (error) return Failure(error, "link to the port");
  fs::rename(fresh, path_, error);
  if (error) {
    std::error_code ignored;
    fs::remove(fresh, ignored);
    return Failure(error, "name the link to the port");
  }
  target_ = target;
  return {};
}

void PortLink::Remove() {
  if (target_.empty()) return;
  std::error_code error;
  if (fs::read_symlink(path_, error) == target_) fs::remove(path_, error);
  target_.clear();
}

}  // namespace kinetrel
