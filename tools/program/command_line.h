// The command line of a tool: CLI11 with what makes all tools read alike.
//
// --help and --version, the layout of the help, the last of several values counts, and the line
// that names a mistake: "kinetrel-NAME: what is wrong (see kinetrel-NAME --help)".
#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>

#include "program/program.h"

namespace kinetrel {

class ToolCommandLine : public CLI::App {
 public:
  // about   what the program does, at the head of its help
  // footer  at the end of its help, with the exit codes
  ToolCommandLine(const std::string& program, const std::string& about, const std::string& footer);

  // Reads `arguments`, as main has them. Returns how the program ends if it is not to do its work:
  // with help, version, or a mistake (exit code 2).
  std::optional<Ending> Read(int count, const char* const* arguments);

  // The ending for a mistake that the caller found.
  Ending Mistake(const std::string& complaint) const;
};

// Accepts the numbers from `least` to `most`.
CLI::Validator NumberFrom(int least, int most);
CLI::Validator NumberFrom(double least, double most);

}  // namespace kinetrel
