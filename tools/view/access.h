// Who may have an answer. Pure functions over the texts of a request, which a stranger chose.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kinetrel::view {

// Of one request; empty: it has no such field.
struct Visit {
  std::string_view target;         // with the query
  std::string_view host;           // field Host
  std::string_view origin;         // field Origin
  std::string_view fetchSite;      // field Sec-Fetch-Site
  std::string_view fetchMode;      // field Sec-Fetch-Mode
  std::string_view cookie;         // field Cookie
  std::string_view authorization;  // field Authorization
};

enum class Access {
  Granted,
  NoHost,         // the request does not name the server
  ForeignHost,    // a name that may have been turned to this machine: DNS rebinding
  ForeignOrigin,  // a web page of another server asks
  NoToken,        // the token is missing or wrong
};

class AccessRules {
 public:
  // token           empty: none is asked for, and only this machine's own names are a host.
  // allowedOrigins  of foreign pages that may read.
  // cookieName      of the cookie that holds the token.
  AccessRules(std::string token, std::vector<std::string> allowedOrigins, std::string cookieName);

  Access Check(const Visit& visit) const;

  bool IsAllowedOrigin(std::string_view origin) const;

  // The value of the field Set-Cookie for a visitor whose query has the token; else empty.
  std::string CookieFor(const Visit& visit) const;

 private:
  bool IsToken(std::string_view text) const;

  const std::string token_;
  const std::vector<std::string> allowedOrigins_;
  const std::string cookieName_;
};

std::string_view PathOf(std::string_view target);  // without the query

// 128 random bits as 32 hexadecimal digits.
std::string MakeToken();

}  // namespace kinetrel::view
