#include "view/view_options.h"

#include <boost/asio/ip/address.hpp>

#include "program/command_line.h"

namespace kinetrel::view {
namespace {

constexpr const char* kAbout =
    "Shows trackers in a browser: serves a page, a JSON interface and figures for Prometheus.\n"
    "Ctrl-C ends it.";
constexpr const char* kExitCodes =
    "Exit codes: 0 ended by a signal; 1 the system refused something; 2 bad arguments, or the\n"
    "address cannot be served.\n";

std::string AddressComplaint(const std::string& text) {
  boost::system::error_code bad;
  boost::asio::ip::make_address(text, bad);
  return bad ? "wants an address as a number, such as 192.168.1.5" : "";
}

// "https://lab.example" or "http://10.0.0.7:3000": as a browser names it.
std::string OriginComplaint(const std::string& text) {
  const std::size_t end = text.find("://");
  const bool origin = end != std::string::npos && end > 0 && end + 3 < text.size() &&
                      text.find_first_of("/ ,\r\n", end + 3) == std::string::npos;
  return origin ? "" : "wants an origin such as https://lab.example, without a path";
}

}  // namespace

ViewCommand ParseViewCommand(int count, const char* const* arguments) {
  ViewCommand command;
  ViewOptions& options = command.options;
  ToolCommandLine app("kinetrel-view", kAbout, kExitCodes);
  app.add_option("--port", options.port, "port to serve (8047); 0: a free one, which is printed")
      ->type_name("NUMBER")
      ->check(NumberFrom(0, 65535));
  app.add_option("--listen", options.listen,
                 "serve this address of the machine too, and ask for the printed token")
      ->type_name("ADDRESS")
      ->check(CLI::Validator(AddressComplaint, ""));
  app.add_option("--allow-origin", options.allowedOrigins,
                 "let pages of this origin read the interface; may be repeated")
      ->type_name("ORIGIN")
      ->check(CLI::Validator(OriginComplaint, ""))
      ->allow_extra_args(false);
  app.add_option("--patience", options.patience,
                 "drop a client that is silent for so long, in seconds (20)")
      ->type_name("SECONDS")
      ->check(NumberFrom(1, 3600));
  app.add_flag("--open", options.open, "open the address in the browser");
  command.ending = app.Read(count, arguments);
  return command;
}

}  // namespace kinetrel::view
