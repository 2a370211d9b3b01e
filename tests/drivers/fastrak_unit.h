// A scripted unit of the FASTRAK family, and the driver on its line.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "drivers/driver_table.h"
#include "tests/support/scripted_peer.h"

namespace kinetrel::test {

inline constexpr int kBaud = 115200;

// ---- The unit's records ---------------------------------------------------------------------

struct Field {
  std::size_t offset;
  const char* text;
};

inline std::string Status(const std::vector<Field>& fields) {
  std::string record(55, ' ');
  record.replace(0, 3, "21S");
  record.replace(53, 2, "\r\n");
  for (const Field& field : fields) {
    record.replace(field.offset, std::string(field.text).size(), field.text);
  }
  return record;
}

inline const std::string kFastrakStatus = Status({{15, "3.02"}});
inline const std::string kInsidetrakStatus = Status({{16, "53.02"}, {18, "."}});
inline const std::string kIsotrak2Status = Status({{17, "3"}, {20, "3"}});
inline const std::string kIs600Status = Status({{17, "3.02"}, {21, "IS600"}});
inline const std::string kTextRecord = "01   1.00  2.00  3.00\r\n";

inline const Script kWakes = Expect("c\rP") + Send(kTextRecord);

// The boot dialogue of a FasTRAK with four stations, from its first record on.
inline Script FastrakBootsAfterWaking(const std::string& stations) {
  return Expect("S") + Send(kFastrakStatus) +
         Expect(
             "O1,2,4\rO2,2,4\rO3,2,4\rO4,2,4\rR1\rR2\rR3\rR4\r"
             "N1,0,0,0\rN2,0,0,0\rN3,0,0,0\rN4,0,0,0\r"
             "l1,1\rl2,0\rl3,0\rl4,0\rl1\r") +
         Send("21l" + stations + "\r\n") + Expect("ufcS") + Send(kFastrakStatus);
}

inline Script FastrakBoots(const std::string& stations) {
  return kWakes + FastrakBootsAfterWaking(stations);
}

inline Script IsotrakBoots(const std::string& status, const std::string& list) {
  return kWakes + Expect("S") + Send(status) + Expect("KR1\rO2,4\rl\r") + Send(list) +
         Expect("ufcS") + Send(status);
}

class FastrakTest : public testing::Test {
 protected:
  FastrakTest() : device_(MakeDevice(2)) {
    device_->SetStatusLog(&log_);
    EXPECT_EQ(device_->OpenPort(line_.path().c_str(), kBaud), 1);
  }

  BootResult Boot(const Script& script, int reset = 0) {
    ScriptedPeer unit(line_, script);
    const BootResult result = device_->Boot(reset);
    EXPECT_EQ(unit.Verdict(), "");
    return result;
  }

  // The bytes that the unit receives from `action`.
  template <typename Action>
  std::string Heard(Action action) {
    const std::size_t before = line_.Received().size();
    action();
    return line_.Received().substr(before);
  }

  std::vector<std::string> Logged() const {
    std::vector<std::string> texts;
    for (const StatusEntry& entry : log_.Entries()) {
      texts.push_back(std::to_string(entry.code) + " " + entry.text);
    }
    return texts;
  }

  PseudoTerminal line_;
  StatusLog log_;
  std::unique_ptr<TrackerDevice> device_;
};

class BootedFastrak : public FastrakTest {
 protected:
  void SetUp() override { ASSERT_EQ(Boot(FastrakBoots("1000")), kBooted); }

  std::string Query(const Script& script, int result) {
    ScriptedPeer unit(line_, script);
    char text[80] = {};
    EXPECT_EQ(device_->QueryStatus(text, sizeof text), result);
    EXPECT_EQ(unit.Verdict(), "");
    return text;
  }
};

}  // namespace kinetrel::test
