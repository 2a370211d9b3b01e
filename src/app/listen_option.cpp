#include "app/listen_option.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace kinetrel {
namespace {

constexpr std::string_view kOption = "--listen";
constexpr const char* kVariable = "KINETREL_LISTEN";

std::optional<std::uint16_t> ParsePort(std::string_view text) {
  std::uint16_t port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  const bool whole = error == std::errc{} && end == text.data() + text.size();
  return whole ? std::optional(port) : std::nullopt;
}

// The index of the ':' before the port; npos without a port.
std::size_t PortColon(std::string_view text) {
  const std::size_t last = text.rfind(':');
  if (last == std::string_view::npos) return last;
  const bool bracketed = last > 0 && text[last - 1] == ']';
  return bracketed || text.find(':') == last ? last : std::string_view::npos;
}

std::string WithoutBrackets(std::string_view text) {
  const bool bracketed = text.size() > 2 && text.front() == '[' && text.back() == ']';
  return std::string(bracketed ? text.substr(1, text.size() - 2) : text);
}

// The value of the option if `arguments[at]` is the option; moves `at` to the last argument used.
std::optional<std::string> TakeValue(int count, const char* const* arguments, int& at) {
  const std::string_view argument = arguments[at];
  if (argument == kOption) return ++at < count ? arguments[at] : std::string();
  if (argument.substr(0, kOption.size() + 1) == "--listen=") {
    return std::string(argument.substr(kOption.size() + 1));
  }
  return std::nullopt;
}

}  // namespace

std::optional<ListenAddress> ParseListenAddress(const std::string& text) {
  if (text.empty()) return std::nullopt;
  ListenAddress listen;
  const std::size_t colon = PortColon(text);
  const std::string address = WithoutBrackets(std::string_view(text).substr(0, colon));
  if (!address.empty()) listen.address = address;
  if (colon == std::string::npos) return listen;
  const auto port = ParsePort(std::string_view(text).substr(colon + 1));
  if (!port) return std::nullopt;
  listen.port = *port;
  return listen;
}

std::optional<ServiceArguments> TakeListenOption(int count, const char* const* arguments) {
  ServiceArguments taken;
  const char* const variable = std::getenv(kVariable);
  std::optional<std::string> wanted;
  if (variable != nullptr && *variable != '\0') wanted = variable;
  for (int at = 0; at < count; ++at) {
    const auto value = at > 0 ? TakeValue(count, arguments, at) : std::nullopt;
    if (value) wanted = value;
    if (!value) taken.rest.push_back(arguments[at]);
  }
  if (!wanted) return taken;
  const auto listen = ParseListenAddress(*wanted);
  if (!listen) {
    std::fprintf(stderr, "Cannot listen on \"%s\": give ADDRESS, ADDRESS:PORT or :PORT.\n",
                 wanted->c_str());
    return std::nullopt;
  }
  taken.listen = *listen;
  return taken;
}

}  // namespace kinetrel
