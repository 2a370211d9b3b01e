// The command line of kinetrel-certify.
#pragma once

#include <optional>
#include <string>

#include "program/program.h"

namespace kinetrel::certify {

struct CertifyOptions {
  int slot = 1;
  double minutes = 5;  // from the first pose
  double wait = 60;    // s, for the first pose
  std::string folder = ".";
  std::string html;  // path; empty: a name of its own in the folder
  std::string json;
  bool force = false;  // replaces files
};

struct CertifyCommand {
  CertifyOptions options;
  std::optional<Ending> ending;  // set: measure nothing
};

CertifyCommand ParseCertifyCommand(int count, const char* const* arguments);

}  // namespace kinetrel::certify
