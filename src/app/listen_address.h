// The address on which the service listens.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

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

// The address of the option --listen, if it is given; else that of the environment variable
// KINETREL_LISTEN; else the default. Nothing if it is malformed: standard error then says so.
std::optional<ListenAddress> ChosenListenAddress(const std::string& option);

}  // namespace kinetrel
