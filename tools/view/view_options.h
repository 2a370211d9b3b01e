// The command line of kinetrel-view.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "program/program.h"

namespace kinetrel::view {

struct ViewOptions {
  std::uint16_t port = 8047;                // 0: any free one
  std::string listen;                       // an address as a number; empty: this machine only
  std::vector<std::string> allowedOrigins;  // of foreign pages: "https://lab.example"
  int patience = 20;                        // s that a client may stay silent
  bool open = false;
};

struct ViewCommand {
  std::optional<Ending> ending;  // set: do not serve
  ViewOptions options;
};

ViewCommand ParseViewCommand(int count, const char* const* arguments);

}  // namespace kinetrel::view
