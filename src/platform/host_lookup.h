// Names of hosts and their addresses, as the system finds them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/stream_socket.h"

namespace kinetrel {

// The address that `host` spells out, without a look-up; never empty. NotFound: it is a name.
Result<std::vector<StreamAddress>> NumericAddresses(const std::string& host, std::uint16_t port);

// Those that the system finds for the name; never empty. May take its time.
Result<std::vector<StreamAddress>> LookUpAddresses(const std::string& host, std::uint16_t port);

}  // namespace kinetrel
