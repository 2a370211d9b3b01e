// Any bytes as the fields of a request to kinetrel-view: a stranger without the token gets nothing,
// and without a token only this machine and its own pages read.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "view/access.h"
#include "view/site.h"

namespace {

using namespace kinetrel::view;

constexpr std::string_view kToken = "0123456789abcdef0123456789abcdef";

constexpr std::string_view kAllowed = "https://lab.example";

void Require(bool holds) {
  if (!holds) std::abort();
}

std::string Lower(std::string_view text) {
  std::string lower(text);
  for (char& letter : lower)
    letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
  return lower;
}

// A Host that cannot be a foreign name: localhost, 127.x.x.x or [an address], and perhaps a port.
bool IsLoopback(std::string_view host) {
  if (host.starts_with("127.")) return host.find_first_not_of("0123456789.:") == host.npos;
  if (host.starts_with('[')) {
    const std::string_view address = host.substr(1, host.find_first_of("%]") - 1);
    return address.ends_with('1') && address.find_first_not_of("01:.") == address.npos;
  }
  return Lower(host.substr(0, host.find(':'))) == "localhost";
}

}  // namespace

// The input's lines are the fields in the order of Visit.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto line = [&] {
    const std::string_view taken = text.substr(0, text.find('\n'));
    text.remove_prefix(taken.size() == text.size() ? text.size() : taken.size() + 1);
    return taken;
  };
  Visit visit;
  for (std::string_view* const field : {&visit.target, &visit.host, &visit.origin, &visit.fetchSite,
                                        &visit.fetchMode, &visit.cookie, &visit.authorization}) {
    *field = line();
  }
  const bool hasToken = std::string_view(reinterpret_cast<const char*>(data), size).find(kToken) !=
                        std::string_view::npos;
  static const AccessRules kOpen("", {std::string(kAllowed)}, "view");
  static const AccessRules kClosed(std::string(kToken), {}, "view");
  Require(kClosed.Check(visit) != Access::Granted || hasToken);
  Require(kClosed.CookieFor(visit).empty() || hasToken);
  if (kOpen.Check(visit) == Access::Granted) {
    Require(IsLoopback(visit.host));
    Require(visit.origin.empty() || visit.origin == kAllowed ||
            Lower(visit.origin).ends_with("://" + Lower(visit.host)));
    Require(visit.fetchSite != "cross-site" || visit.fetchMode == "navigate" ||
            visit.origin == kAllowed);
  }
  Require(kOpen.CookieFor(visit).empty());
  const auto slot = SlotOfStream(PathOf(visit.target));
  Require(!slot || (*slot >= 0 && *slot <= 1000));
  return 0;
}
