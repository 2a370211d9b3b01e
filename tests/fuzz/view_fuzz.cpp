// Any bytes as the fields of a request to kinetrel-view: a stranger without the token gets nothing.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "view/access.h"
#include "view/site.h"

namespace {

using namespace kinetrel::view;

constexpr std::string_view kToken = "0123456789abcdef0123456789abcdef";

void Require(bool holds) {
  if (!holds) std::abort();
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
  static const AccessRules kOpen("", {"https://lab.example"}, "view");
  static const AccessRules kClosed(std::string(kToken), {}, "view");
  Require(kClosed.Check(visit) != Access::Granted || hasToken);
  Require(kClosed.CookieFor(visit).empty() || hasToken);
  if (kOpen.Check(visit) == Access::Granted) Require(!visit.host.empty());
  const auto slot = SlotOfStream(PathOf(visit.target));
  Require(!slot || (*slot >= 0 && *slot <= 1000));
  return 0;
}
