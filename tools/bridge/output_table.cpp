#include "bridge/output.h"
#include "bridge/vrpn_output.h"

namespace kinetrel::bridge {
namespace {

constexpr Protocol kProtocols[] = {
    {.scheme = "vrpn",
     .port = 3883,
     .host = "",
     .axes = "tracker",
     .angles = "quaternion",
     .name = "Tracker",
     .server = true,
     .help = "server of trackers and buttons for VRPN clients",
     .make = MakeVrpnOutput},
};

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
