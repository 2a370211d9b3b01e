// The files of the page, which the build puts into the program from tools/view/page/.
#pragma once

#include <span>

namespace kinetrel::view {

struct PageFile {
  const char* path;  // "/view.js"; the page itself is "/index.html"
  const char* type;  // media type
  std::span<const unsigned char> content;
};

std::span<const PageFile> PageFiles();

}  // namespace kinetrel::view
