// The loading of the InterSense library, with real shared libraries.
#include "drivers/isense_library.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "drivers/isense_device.h"
#include "tests/support/substitute_settings.h"

namespace kinetrel::test {
namespace {

constexpr const char* kNames[] = {
    "OpenTracker",       "OpenAllTrackers",  "CloseTracker",        "GetCommInfo",
    "GetTrackerConfig",  "SetTrackerConfig", "GetStationConfig",    "SetStationConfig",
    "GetData",           "GetCameraData",    "SendScript",          "NumOpenTrackers",
    "ResetHeading",      "Boresight",        "BoresightReferenced", "GetTime",
    "ConfigureFromFile", "AuxOutput",        "UdpBroadcastData",    "GetSystemHardwareInfo"};

bool IsMapped(const std::string& file) {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find(file) != std::string::npos) return true;
  }
  return false;
}

void ExpectAllButOpeningToFail() {
  IsenseTrackerInfo tracker;
  IsenseStationInfo station;
  IsenseTrackerData data;
  std::uint16_t count = 0;
  std::uint8_t byte = 0;
  EXPECT_EQ(ISD_CloseTracker(1), 0);
  EXPECT_EQ(ISD_GetCommInfo(1, &tracker), 0);
  EXPECT_EQ(ISD_GetTrackerConfig(1, &tracker, 0), 0);
  EXPECT_EQ(ISD_SetTrackerConfig(1, &tracker, 0), 0);
  EXPECT_EQ(ISD_GetStationConfig(1, &station, 1, 0), 0);
  EXPECT_EQ(ISD_SetStationConfig(1, &station, 1, 0), 0);
  EXPECT_EQ(ISD_GetCameraData(1, nullptr), 0);
  EXPECT_EQ(ISD_SendScript(1, ""), 0);
  EXPECT_EQ(ISD_NumOpenTrackers(&count), 0);
  EXPECT_EQ(ISD_ResetHeading(1, 1), 0);
  EXPECT_EQ(ISD_Boresight(1, 1, 1), 0);
  EXPECT_EQ(ISD_BoresightReferenced(1, 1, 0, 0, 0), 0);
  EXPECT_EQ(ISD_GetTime(), 0.0F);
  EXPECT_EQ(ISD_ConfigureFromFile(1, "", 0), 0);
  EXPECT_EQ(ISD_AuxOutput(1, 1, &byte, 1), 0);
  EXPECT_EQ(ISD_UdpBroadcastData(1, 5000, &data, nullptr), 0);
  EXPECT_EQ(ISD_GetSystemHardwareInfo(1, nullptr), 0);
}

TEST(IsenseLibrary, ReportsAMissingLibraryAtEachOpenAndFailsEveryCall) {
  const IsenseSettings settings("/nowhere/libisense.so");
  testing::internal::CaptureStderr();
  EXPECT_EQ(ISD_OpenTracker(nullptr, 1, 1, 0), 0);
  int handle = 0;
  EXPECT_EQ(ISD_OpenAllTrackers(nullptr, &handle, 0, 0), 0U);
  const std::string said = testing::internal::GetCapturedStderr();
  const std::size_t first = said.find("Could not load isense.dll\n");
  EXPECT_NE(first, std::string::npos);
  EXPECT_NE(said.find("Could not load isense.dll\n", first + 1), std::string::npos);
  EXPECT_NE(said.find("/nowhere/libisense.so"), std::string::npos);
  IsenseTrackerData data;
  EXPECT_EQ(ISD_GetData(1, &data), 0);
  ExpectAllButOpeningToFail();
}

TEST(IsenseLibrary, IsUnloadedWithTheLastTrackerAndLoadedAgain) {
  IsenseSettings settings;
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(ISD_OpenTracker(nullptr, 1, 1, 0), 1);
    int second = 0;
    EXPECT_EQ(ISD_OpenAllTrackers(nullptr, &second, 0, 0), 1U);
    EXPECT_EQ(second, 2);
    EXPECT_GT(ISD_GetTime(), 0.0F);
    EXPECT_EQ(ISD_CloseTracker(1), 1);
    EXPECT_TRUE(IsenseLibrary::OfProcess().IsLoaded());
    EXPECT_EQ(ISD_CloseTracker(2), 1);
    EXPECT_FALSE(IsenseLibrary::OfProcess().IsLoaded());
    EXPECT_FALSE(IsMapped("libisense.so"));
    EXPECT_EQ(ISD_CloseTracker(2), 0);
  }
}

TEST(IsenseLibrary, StaysLoadedWhenItDoesNotCountTrackers) {
  IsenseSettings settings;
  settings.Set("FAIL", "NumOpenTrackers");
  EXPECT_EQ(ISD_OpenTracker(nullptr, 1, 1, 0), 1);
  EXPECT_EQ(ISD_CloseTracker(1), 1);
  EXPECT_TRUE(IsenseLibrary::OfProcess().IsLoaded());
  settings.Set("FAIL", "");
  EXPECT_EQ(ISD_CloseTracker(1), 0);
  EXPECT_FALSE(IsenseLibrary::OfProcess().IsLoaded());
}

// Such a call could unload the library whose code is still running.
TEST(IsenseLibrary, StaysLoadedDuringItsCallsOfItself) {
  const IsenseSettings settings(KINETREL_ISENSE_NESTING);
  testing::internal::CaptureStderr();
  ASSERT_EQ(ISD_OpenTracker(nullptr, 1, 1, 0), 1);
  EXPECT_EQ(ISD_GetCommInfo(1, nullptr), 2);
  EXPECT_TRUE(IsenseLibrary::OfProcess().IsLoaded());
  ASSERT_EQ(ISD_OpenTracker(nullptr, 1, 1, 0), 1);
  EXPECT_EQ(ISD_GetData(1, nullptr), 1);
  EXPECT_TRUE(IsenseLibrary::OfProcess().IsLoaded());
  EXPECT_EQ(ISD_CloseTracker(1), 0);
  EXPECT_FALSE(IsenseLibrary::OfProcess().IsLoaded());
  testing::internal::GetCapturedStderr();
}

// An engine in each of several threads opens and closes a tracker.
TEST(IsenseLibrary, StaysLoadedUnderTheOpensOfOtherThreads) {
  const IsenseSettings settings;
  SetVariable("KINETREL_ISENSE_CALLS", "");
  std::vector<std::thread> engines;
  for (int i = 0; i < 4; ++i) {
    engines.emplace_back([] {
      for (int round = 0; round < 200; ++round) {
        const int handle = ISD_OpenTracker(nullptr, 1, 1, 0);
        IsenseTrackerData data;
        EXPECT_GE(handle, 1);
        EXPECT_EQ(ISD_GetData(handle, &data), 1);
        EXPECT_EQ(ISD_CloseTracker(handle), 1);
      }
    });
  }
  for (std::thread& engine : engines) engine.join();
  EXPECT_FALSE(IsenseLibrary::OfProcess().IsLoaded());
}

TEST(IsenseLibrary, ReportsEachMissingFunctionOnceInOrder) {
  const IsenseSettings settings(KINETREL_ISENSE_BARE);
  testing::internal::CaptureStderr();
  EXPECT_EQ(ISD_OpenTracker(nullptr, 1, 1, 0), 5);
  EXPECT_EQ(ISD_OpenTracker(nullptr, 7, 1, 0), -3);
  std::string wanted;
  for (const std::string name : kNames) {
    const bool there = name == "OpenTracker" || name == "GetData" || name == "NumOpenTrackers";
    if (!there) wanted += "Failed to load ISD_" + name + ". Error code 38\n";
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), wanted);
  IsenseTrackerData data;
  EXPECT_EQ(ISD_GetData(1, &data), 1);
  EXPECT_EQ(ISD_CloseTracker(1), 0);
  EXPECT_FALSE(IsenseLibrary::OfProcess().IsLoaded());
  ExpectAllButOpeningToFail();

  testing::internal::CaptureStderr();
  IsenseDevice device;  // without ISD_GetCommInfo it must not lose its tracker at each look
  EXPECT_EQ(device.OpenPortNumber(1, 0), 1);
  device.Boot(0);
  device.ClosePort();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
}  // namespace kinetrel::test
