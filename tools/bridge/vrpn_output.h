// A VRPN server: each tracker is a device of trackers and buttons for any number of clients.
//
// A client connects by TCP, or sends a datagram and is called back by TCP; then its poses go by
// UDP. Devices are named after their slot: slot 1 is Tracker0, and its buttons are Button0 too.
// Options of an output: name=NAME of the device; bodies=yes gives every sensor a device of its own
// (NAME1, NAME2, ...; or name=head,hand with sensors=1,2), with the number 0 on it.
#pragma once

#include <memory>
#include <vector>

#include "bridge/output.h"

namespace kinetrel::bridge {

std::unique_ptr<Output> MakeVrpnOutput(const OutputContext& context,
                                       const std::vector<Feed*>& feeds);

}  // namespace kinetrel::bridge
