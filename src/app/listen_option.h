// Where the service listens.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "rpc/track_procedures.h"

namespace kinetrel {

// This machine only: nobody who connects is asked who they are.
struct ListenAddress {
  std::string address = "127.0.0.1";  // numeric
  std::uint16_t port = rpc::kTrackPort;
};

// Reads "address", "address:port" or ":port"; an IPv6 address with a port stands in brackets.
std::optional<ListenAddress> ParseListenAddress(const std::string& text);

struct ServiceArguments {
  ListenAddress listen;
  std::vector<const char*> rest;  // the console program's own, the program's name first
};

// Takes "--listen ADDRESS" out of the arguments, wherever it stands; without it, the environment
// variable KINETREL_LISTEN counts. Nothing, and said on standard error, when what is given is no
// address.
std::optional<ServiceArguments> TakeListenOption(int count, const char* const* arguments);

}  // namespace kinetrel
