#include <vector>

#include "bridge/output.h"

namespace kinetrel::bridge {
namespace {

const std::vector<Protocol> kProtocols = {};

constexpr Program kProgram = {
    .name = "kinetrel-bridge",
    .example = "vrpn 'osc://192.168.1.20:9000/vmc?sensors=1,3&name=head,hand'",
    .output = "",
    .listens = true,
};

}  // namespace

std::span<const Protocol> Protocols() { return kProtocols; }

const Program& ThisProgram() { return kProgram; }

}  // namespace kinetrel::bridge
