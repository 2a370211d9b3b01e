// Files that are written whole, or stay as they were.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>

namespace kinetrel::report {

// Empty, or a sentence: a file of this name exists, and the user did not allow to replace it.
std::string WhyNotReplaced(const std::filesystem::path& path, bool force);

// Before anything is measured: empty, or why the file could not be written. It makes `path`.part
// and removes it.
std::string WhyNotWritable(const std::string& path);

// A file that gets its name when it is whole. Until then it is `path`.part. A device such as
// /dev/stdout is written at once.
class WholeFile {
 public:
  explicit WholeFile(std::filesystem::path path);
  ~WholeFile();  // removes what was not ended
  WholeFile(const WholeFile&) = delete;
  WholeFile& operator=(const WholeFile&) = delete;

  std::ofstream& out() { return file_; }

  // Returns  empty, or a sentence: the file is then as it was before.
  std::string End();

 private:
  std::filesystem::path path_;
  std::filesystem::path written_;
  std::ofstream file_;
};

// As WholeFile::End.
std::string WriteFile(const std::string& path, const std::string& content);

}  // namespace kinetrel::report
