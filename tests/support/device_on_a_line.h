// A serial driver on a line whose far end a test plays.
#pragma once

#include <gtest/gtest.h>

#include "devices/device_names.h"
#include "tests/support/scripted_peer.h"

namespace kinetrel::test {

template <typename Device>
class DeviceOnALine : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(device_.OpenPort(line_.path().c_str(), 115200), 1); }

  BootResult Boot(const Script& script) {
    ScriptedPeer peer(line_, script);
    const BootResult result = device_.Boot(0);
    EXPECT_EQ(peer.Verdict(), "");
    return result;
  }

  PseudoTerminal line_;
  Device device_;
};

struct BootStory {
  const char* name;
  Script script;
  BootResult result;
};

}  // namespace kinetrel::test
