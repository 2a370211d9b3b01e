// kinetrel-view: shows trackers in a browser.
#include <cstdio>
#include <exception>

#include "platform/browser.h"
#include "platform/console.h"
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
  kinetrel::HoldStandardStreams();
  std::setvbuf(stderr, nullptr, _IONBF, 0);  // some systems buffer it when it leads to a pipe
  try {
    const auto command = kinetrel::view::ParseViewCommand(count, arguments);
    if (!command.exitCode) return kinetrel::view::Serve(command.options);
    std::fputs(command.text.c_str(), *command.exitCode == 0 ? stdout : stderr);
    return *command.exitCode;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kinetrel-view: %s\n", error.what());
    return 1;
  }
}
