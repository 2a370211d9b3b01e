// How to start Kinetrel on the trackers that were found: a command line, and a configuration file.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "scan/machine.h"
#include "scan/port_scan.h"

namespace kinetrel::scan {

struct Start {
  std::string where;    // the port as the report names it: "/dev/ttyUSB0", "usb:1-2"
  std::string name;     // of a file for it, without ending: "fastrak", "fastrak-2"
  std::string command;  // for a shell
  std::string config;   // for kinetrel --config
};

// One for each tracker that Kinetrel has a driver for. The files have slots of their own, which no
// other tracker of this machine uses, so that all of them can be started.
std::vector<Start> PlanStarts(const std::vector<PortResult>& ports, const Machine& machine);

// That of `where`; null: none.
const Start* FindStart(const std::vector<Start>& starts, const std::string& where);

// Writes the files of `starts`: into a folder if `target` is one, else the only one to that path.
//
// force    replaces files that exist.
// Returns  empty, or why not. Either all files are free to be written, or none is touched.
std::string WriteConfigs(const std::vector<Start>& starts, const std::string& target, bool force);

}  // namespace kinetrel::scan
