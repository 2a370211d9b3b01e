#include "app/listen_address.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace kinetrel {
namespace {

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

std::optional<ListenAddress> ChosenListenAddress(const std::string& option) {
  const char* const variable = std::getenv(kVariable);
  const std::string wanted = !option.empty() || variable == nullptr ? option : variable;
  if (wanted.empty()) return ListenAddress{};
  auto listen = ParseListenAddress(wanted);
  if (!listen) {
    std::fprintf(stderr, "\nCannot listen on \"%s\": give ADDRESS, ADDRESS:PORT or :PORT.\n",
                 wanted.c_str());
  }
  return listen;
}

}  // namespace kinetrel
