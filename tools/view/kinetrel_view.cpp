// kinetrel-view: shows trackers in a browser.
#include <cstdio>

#include "platform/browser.h"
#include "program/program.h"
#include "view/server.h"
#include "view/view_options.h"

namespace kinetrel::view {
namespace {

int Serve(const ViewOptions& options) {
  Server server(options);
  const std::string complaint = server.Open();
  if (!complaint.empty()) {
    std::fprintf(stderr, "kinetrel-view: %s\n", complaint.c_str());
    return 2;
  }
  for (const std::string& address : server.Addresses()) std::printf("%s\n", address.c_str());
  std::fflush(stdout);
  if (options.open) {
    const Status opened = OpenInBrowser(server.Addresses().front());
    if (!opened.Ok()) std::fprintf(stderr, "kinetrel-view: %s\n", Describe(opened).c_str());
  }
  server.Run();
  return 0;
}

}  // namespace
}  // namespace kinetrel::view

int main(int count, char** arguments) {
  return kinetrel::RunProgram("kinetrel-view", [&] {
    const auto command = kinetrel::view::ParseViewCommand(count, arguments);
    return command.ending ? Print(*command.ending, "kinetrel-view")
                          : kinetrel::view::Serve(command.options);
  });
}
