// kinetrel-scan: which trackers this machine has, and how to start them.
#include <cstdio>

#include "program/program.h"
#include "scan/check.h"
#include "scan/machine.h"
#include "scan/port_scan.h"
#include "scan/scan_options.h"
#include "scan/scan_report.h"
#include "scan/start.h"

namespace kinetrel::scan {
namespace {

constexpr int kFailed = 1;

int Scan(const ScanOptions& options) {
  if (options.check) return CheckChain(*options.check) ? 0 : 1;
  const auto ports = ScanPorts(options);
  const Machine machine = LookAtMachine();
  const auto starts = PlanStarts(ports, machine);
  const std::string report =
      options.json ? ReportJson(ports, machine, starts) : ReportText(ports, machine, starts);
  const int printed = Print({0, report}, "kinetrel-scan");
  if (options.configTarget.empty()) return printed;
  const std::string why = WriteConfigs(starts, options.configTarget, options.force);
  if (why.empty()) return printed;
  std::fprintf(stderr, "kinetrel-scan: %s\n", why.c_str());
  return kFailed;
}

}  // namespace
}  // namespace kinetrel::scan

int main(int count, char** arguments) {
  return kinetrel::RunProgram("kinetrel-scan", [&] {
    const auto command = kinetrel::scan::ParseScanCommand(count, arguments);
    return command.ending ? Print(*command.ending, "kinetrel-scan")
                          : kinetrel::scan::Scan(command.options);
  });
}
