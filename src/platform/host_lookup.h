// Looks up the addresses of hosts.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/stream_socket.h"

namespace kinetrel {

// The address that `host` itself is, without a look-up; never empty. NotFound: it is a name.
Result<std::vector<StreamAddress>> NumericAddresses(const std::string& host, std::uint16_t port);

// The addresses that the system finds for the name; never empty. May take many seconds.
Result<std::vector<StreamAddress>> LookUpAddresses(const std::string& host, std::uint16_t port);

}  // namespace kinetrel
