// kinetrel-scan --check of trackers on USB, with the real libusb.
#include "tests/support/child_process.h"
#include "tests/support/free_slot.h"
#include "tests/usb/usb_bench.h"

namespace kinetrel::test {
namespace {

struct CheckRow {
  const char* name;
  const char* device;
  const char* port;
  const char* told;  // one of the lines, without the name of the link's padding
  int code;
};

class UsbCheck : public OnUsb, public testing::WithParamInterface<CheckRow> {};

TEST_P(UsbCheck, WalksTheChain) {
  const Unit liberty(bus(), 1, Liberty(3));
  const Unit fastrak(bus(), 2, Fastrak(2), kFastrak);
  const FreeSlot slot;
  const CheckRow& row = GetParam();
  ChildProcess check("kinetrel-scan", {"--check", "-d", row.device, "-p", row.port, "-w",
                                       std::to_string(slot.slot())});
  EXPECT_EQ(check.Wait(std::chrono::seconds(60)), row.code);
  EXPECT_NE(check.output().find(row.told), std::string::npos) << check.output() << check.error();
  EXPECT_EQ(check.output().find("ok      clients") != std::string::npos, row.code == 0);
}

INSTANTIATE_TEST_SUITE_P(
    Of, UsbCheck,
    testing::Values(CheckRow{"TheOnlyLiberty", "liberty", "usb", "ok      stations       3\n", 0},
                    CheckRow{"ANamedFastrak", "2", "usb:1-2", "ok      stations       2\n", 0},
                    CheckRow{"AnEmptyPort", "liberty", "usb:1-9", "BROKEN  port           ", 1},
                    CheckRow{"AnotherFamily", "liberty", "usb:1-2", "BROKEN  port           ", 1},
                    CheckRow{"ADeviceWithoutUsb", "flock", "U",
                             "this device type is not used on USB", 1}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace kinetrel::test
