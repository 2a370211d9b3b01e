#include "certify/certify_options.h"

#include <kinetrel/stream.h>

#include "program/command_line.h"

namespace kinetrel::certify {
namespace {

constexpr const char* kAbout =
    "Watches a running tracker and writes what it delivered: rate, jitter, gaps, age of the "
    "poses,\n"
    "clock, noise and losses, as one HTML page and as JSON. Ctrl-C ends it early, with a report.";
constexpr const char* kFooter =
    "Leave the sensors still if their noise is wanted.\n"
    "Exit codes: 0 report written; 1 no pose came, or a file could not be written; 2 bad "
    "arguments.\n";

}  // namespace

CertifyCommand ParseCertifyCommand(int count, const char* const* arguments) {
  CertifyCommand command;
  CertifyOptions& options = command.options;
  ToolCommandLine app("kinetrel-certify", kAbout, kFooter);
  app.add_option("--minutes", options.minutes, "how long, from the first pose on (5)")
      ->type_name("MINUTES")
      ->check(NumberFrom(0.01, 100'000.0));
  app.add_option("--slot", options.slot, "slot of the tracker (1)")
      ->type_name("NUMBER")
      ->check(NumberFrom(1, int{kinetrel_stream_slots}));
  app.add_option("--wait", options.wait, "end if no pose has come by then (60)")
      ->type_name("SECONDS")
      ->check(NumberFrom(0.1, 1e6));
  app.add_option("--out", options.folder, "folder of the two files (the current one)")
      ->type_name("FOLDER");
  app.add_option("--html", options.html, "write the page there")->type_name("FILE");
  app.add_option("--json", options.json, "write the figures there")->type_name("FILE");
  app.add_flag("--force", options.force, "replace files that exist");
  command.ending = app.Read(count, arguments);
  return command;
}

}  // namespace kinetrel::certify
