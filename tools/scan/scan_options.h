// The command line of kinetrel-scan.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "program/program.h"

namespace kinetrel::scan {

// The chain that --check walks.
struct CheckOptions {
  int deviceType = 2;
  std::string port = "COM1";  // a path, or COM<n>
  int slot = 1;
};

enum class Effort {
  List,    // opens no port
  Listen,  // opens free ports and writes nothing
  Ask      // and asks what is there
};

struct ScanOptions {
  std::vector<std::string> ports;  // empty: all of the machine's
  Effort effort = Effort::List;
  bool json = false;
  std::string configTarget;  // file or folder for configuration files; empty: none
  bool force = false;        // replaces files
  std::optional<CheckOptions> check;
};

struct ScanCommand {
  ScanOptions options;
  std::optional<Ending> ending;  // set: look for nothing
};

ScanCommand ParseScanCommand(int count, const char* const* arguments);

}  // namespace kinetrel::scan
