// The option of the service that names the address to listen on.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "rpc/track_procedures.h"

namespace kinetrel {

// The default is this machine only, because the service does not ask clients who they are.
struct ListenAddress {
  std::string address = "127.0.0.1";  // numeric
  std::uint16_t port = rpc::kTrackPort;
};

// Reads "address", "address:port" or ":port". An IPv6 address with a port needs brackets. Nothing
// if the text is empty or the port is not a number from 0 to 65535.
std::optional<ListenAddress> ParseListenAddress(const std::string& text);

struct ServiceArguments {
  ListenAddress listen;
  std::vector<const char*> rest;  // the other arguments, the name of the program first
};

// Takes "--listen ADDRESS" or "--listen=ADDRESS" out of the arguments. Without it, the environment
// variable KINETREL_LISTEN gives the address. A malformed address is reported on standard error;
// the result is then empty.
std::optional<ServiceArguments> TakeListenOption(int count, const char* const* arguments);

}  // namespace kinetrel
