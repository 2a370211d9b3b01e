#include "report/output_file.h"

#include <utility>

namespace kinetrel::report {
namespace {

namespace fs = std::filesystem;

// Far more than a page of a tool has.
constexpr std::size_t kTrialBytes = std::size_t{1} << 18;

bool IsDevice(const fs::path& path) {
  std::error_code ignored;
  return fs::exists(path, ignored) && !fs::is_regular_file(path, ignored) &&
         !fs::is_directory(path, ignored);
}

fs::path PartOf(fs::path path) { return path += ".part"; }

void Remove(const fs::path& path) {
  std::error_code ignored;
  fs::remove(path, ignored);
}

}  // namespace

std::string WhyNotReplaced(const fs::path& path, bool force) {
  std::error_code ignored;
  if (force || !fs::is_regular_file(path, ignored)) return "";
  return path.string() + " exists; --force replaces it";
}

std::string WhyNotWritable(const std::string& path) {
  std::error_code ignored;
  if (fs::is_directory(path, ignored)) return path + " is a folder";
  if (IsDevice(path)) return "";
  std::ofstream trial(PartOf(path), std::ios::binary);
  if (!trial.is_open()) {
    return path + " cannot be written: its folder is missing or refuses new files";
  }
  trial << std::string(kTrialBytes, ' ');
  trial.close();
  Remove(PartOf(path));
  return trial.good() ? "" : path + " cannot be written: the disk has no 256 KB left";
}

WholeFile::WholeFile(fs::path path)
    : path_(std::move(path)),
      written_(IsDevice(path_) ? path_ : PartOf(path_)),
      file_(written_, std::ios::binary) {}

WholeFile::~WholeFile() {
  if (!file_.is_open()) return;
  file_.close();
  if (written_ != path_) Remove(written_);
}

std::string WholeFile::End() {
  const bool opened = file_.is_open();
  file_.close();
  std::error_code failure;
  if (file_.good() && written_ != path_) fs::rename(written_, path_, failure);
  if (file_.good() && !failure) return "";
  if (opened && written_ != path_) Remove(written_);
  return path_.string() + " cannot be written" +
         (failure  ? ": " + failure.message()
          : opened ? "; is the disk full?"
                   : ": its folder is missing or refuses new files");
}

std::string WriteFile(const std::string& path, const std::string& content) {
  WholeFile file(path);
  file.out() << content;
  return file.End();
}

}  // namespace kinetrel::report
