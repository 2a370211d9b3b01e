// What every driver of the table says of itself before its tracker is booted.
#include "drivers/driver_table.h"

#include <gtest/gtest.h>

namespace kinetrel::test {
namespace {

struct Driver {
  int type;
  const char* name;  // as published to clients
  int product;
  int statusCode;
  int frameRate;
};

TEST(DriverTable, DriversDescribeThemselves) {
  for (const Driver& row :
       {Driver{1, "Fakespace PanTiltHead", 20, 0, 30}, Driver{3, "Ascension Flock", 6, 0, 144},
        Driver{4, "Logitech", 0x401, 0x400, 50}, Driver{6, "InterSense DLL", 18, 0x600, 120},
        Driver{8, "OrvixTraject", 8, 8, 60}, Driver{9, "InterSense InterTrax", 15, 0, 548},
        Driver{12, "GPS TSIP", 24, 0xC00, 5}}) {
    const std::unique_ptr<TrackerDevice> device = MakeDevice(row.type);
    ASSERT_NE(device, nullptr) << row.name;
    EXPECT_STREQ(device->GetDeviceName(), row.name);
    EXPECT_EQ(device->GetDeviceType(nullptr, 0), row.product) << row.name;
    EXPECT_EQ(device->GetStatusCode(), row.statusCode) << row.name;
    EXPECT_EQ(device->GetFrameRate(), row.frameRate) << row.name;
  }
}

}  // namespace
}  // namespace kinetrel::test
