#include "view/access.h"

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <cstdint>
#include <random>
#include <utility>

namespace kinetrel::view {
namespace {

namespace asio = boost::asio;

char Lower(char letter) {
  return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

// Not by boost::beast::iequals, which may read a byte past the end.
bool EqualNames(std::string_view one, std::string_view other) {
  return std::ranges::equal(one, other, {}, Lower, Lower);
}

// "name", "name:port", "[address]:port" without the port; empty: none of these.
std::string_view NameOf(std::string_view host) {
  std::size_t end = host.find(':');
  std::string_view name = host.substr(0, end);
  if (host.starts_with('[')) {
    end = host.find(']');
    if (end == std::string_view::npos) return {};
    name = host.substr(1, end - 1);
    end = end + 1 == host.size() ? std::string_view::npos : end + 1;
  }
  if (end == std::string_view::npos) return name;
  const std::string_view port = host.substr(end);
  const bool number = port.size() > 1 && port.size() <= 6 && port.front() == ':' &&
                      port.find_first_not_of("0123456789", 1) == std::string_view::npos;
  return number ? name : std::string_view();
}

bool IsThisMachine(std::string_view name) {
  if (EqualNames(name, "localhost")) return true;
  if (name.find('\0') != name.npos) return false;  // only the part before it would be read
  boost::system::error_code bad;
  const auto address = asio::ip::make_address(std::string(name), bad);
  return !bad && address.is_loopback();
}

bool IsOwnOrigin(std::string_view origin, std::string_view host) {
  for (const std::string_view scheme : {"http://", "https://"}) {
    if (origin.starts_with(scheme) && EqualNames(origin.substr(scheme.size()), host)) return true;
  }
  return false;
}

// The value of `name` among "name=value" parts; empty: none.
std::string_view ValueOf(std::string_view text, std::string_view name, char separator) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find(separator), text.size());
    std::string_view part = text.substr(0, end);
    part.remove_prefix(std::min(part.find_first_not_of(' '), part.size()));
    if (part.starts_with(name) && part.substr(name.size()).starts_with('=')) {
      return part.substr(name.size() + 1);
    }
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return {};
}

std::string_view TokenOfQuery(std::string_view target) {
  const std::size_t query = target.find('?');
  if (query == std::string_view::npos) return {};
  return ValueOf(target.substr(query + 1), "token", '&');
}

std::string_view TokenOfField(std::string_view authorization) {
  constexpr std::string_view kScheme = "Bearer ";
  if (!EqualNames(authorization.substr(0, kScheme.size()), kScheme)) return {};
  return authorization.substr(kScheme.size());
}

}  // namespace

AccessRules::AccessRules(std::string token, std::vector<std::string> allowedOrigins,
                         std::string cookieName)
    : token_(std::move(token)),
      allowedOrigins_(std::move(allowedOrigins)),
      cookieName_(std::move(cookieName)) {}

Access AccessRules::Check(const Visit& visit) const {
  const std::string_view name = NameOf(visit.host);
  if (name.empty()) return Access::NoHost;
  // A page of a rebound name does not have the token, so any name will do where one is asked for.
  if (token_.empty() && !IsThisMachine(name)) return Access::ForeignHost;
  const bool allowed = IsAllowedOrigin(visit.origin);
  if (!visit.origin.empty() && !allowed && !IsOwnOrigin(visit.origin, visit.host)) {
    return Access::ForeignOrigin;
  }
  // A link to the page may stand anywhere; an image or a script of ours may not.
  if (visit.fetchSite == "cross-site" && visit.fetchMode != "navigate" && !allowed) {
    return Access::ForeignOrigin;
  }
  if (token_.empty() || IsToken(TokenOfQuery(visit.target)) ||
      IsToken(TokenOfField(visit.authorization)) ||
      IsToken(ValueOf(visit.cookie, cookieName_, ';'))) {
    return Access::Granted;
  }
  return Access::NoToken;
}

bool AccessRules::IsAllowedOrigin(std::string_view origin) const {
  return !origin.empty() && std::ranges::find(allowedOrigins_, origin) != allowedOrigins_.end();
}

std::string AccessRules::CookieFor(const Visit& visit) const {
  if (token_.empty() || !IsToken(TokenOfQuery(visit.target))) return {};
  return cookieName_ + "=" + token_ + "; HttpOnly; SameSite=Strict; Path=/";
}

// Takes the same time wherever the first wrong character is.
bool AccessRules::IsToken(std::string_view text) const {
  if (text.size() != token_.size()) return false;
  unsigned different = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    different |= static_cast<unsigned char>(text[i]) ^ static_cast<unsigned char>(token_[i]);
  }
  return different == 0;
}

std::string_view PathOf(std::string_view target) { return target.substr(0, target.find('?')); }

std::string MakeToken() {
  std::random_device random;
  std::string token;
  for (int i = 0; i < 32; ++i) token += "0123456789abcdef"[random() & 0xFU];
  return token;
}

}  // namespace kinetrel::view
