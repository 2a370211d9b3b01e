// Names of hosts and their addresses.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/stream_socket.h"

namespace kinetrel {

// The address that `host` spells out, without a look-up; never empty. NotFound: it is a name.
Result<std::vector<StreamAddress>> NumericAddresses(const std::string& host, std::uint16_t port);

}  // namespace kinetrel
