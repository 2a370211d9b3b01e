#include "platform/version.h"

#include <kinetrel/stream.h>

#include <cstdio>

#include "platform/kinetrel_build.h"  // made by build_version.cmake

namespace kinetrel {

std::string VersionText(const char* program) {
  char text[256];
  std::snprintf(text, sizeof text,
                "%s " KINETREL_VERSION "\nlayouts: block %.2f, stream %d\nbuild: " KINETREL_BUILD
                "\n",
                program, double{kBlockVersion}, static_cast<int>(kinetrel_stream_version));
  return text;
}

}  // namespace kinetrel
