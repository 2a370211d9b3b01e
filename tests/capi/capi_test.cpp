#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>

#include <kinetrel/kinetrel.h>
#include "tests/support/child_process.h"
#include "tests/support/free_slot.h"

namespace kinetrel::test {
namespace {

TEST(CInterface, EveryFunctionRefusesANullHandle) {
  int number = 7;
  float floats[6] = {};
  char text[8] = "as was";
  const int key[3] = {0, 0, 0};
  EXPECT_EQ(kinetrel_open(nullptr, 8, 1, 0), kinetrel_no_engine);
  EXPECT_EQ(kinetrel_open_configured(nullptr), kinetrel_no_engine);
  EXPECT_EQ(kinetrel_close(nullptr), 0);
  EXPECT_EQ(kinetrel_is_open(nullptr), 0);
  EXPECT_EQ(kinetrel_start_sampling(nullptr), 0);
  EXPECT_EQ(kinetrel_get_attribute_int(nullptr, 2, &number), 0);
  EXPECT_EQ(kinetrel_get_attribute_floats(nullptr, 7, 6, floats), 0);
  EXPECT_EQ(kinetrel_status_text(nullptr, &number, sizeof text, text), 0);
  EXPECT_EQ(kinetrel_add_filter(nullptr, key, 3), -1);
  EXPECT_EQ(number, 7);
  EXPECT_STREQ(text, "as was");
  kinetrel_destroy(nullptr);
}

TEST(CInterface, NeverWritesBeyondTheCallersBuffer) {
  kinetrel_engine* const engine = kinetrel_create();
  EXPECT_EQ(kinetrel_set_options(engine, 2, nullptr), 0);
  EXPECT_EQ(kinetrel_get_available_attributes(engine, 3, nullptr), 0);
  kinetrel_attribute rows[3] = {};
  rows[2].id = 77;
  EXPECT_EQ(kinetrel_get_available_attributes(engine, 2, rows), 1);
  EXPECT_STREQ(rows[1].name, "Current Status");
  EXPECT_EQ(rows[2].id, 77);
  EXPECT_EQ(kinetrel_get_available_attributes(engine, -1, rows), 1);

  EXPECT_EQ(kinetrel_set_attribute_int(engine, kinetrel_units, 1), 0);
  int code = 0;
  char text[12] = {};
  EXPECT_EQ(kinetrel_status_text(engine, &code, 11, text), 1);
  EXPECT_EQ(code, -1);
  EXPECT_STREQ(text, "SetAttribu");
  kinetrel_destroy(engine);
}

TEST(CInterface, AnOpenEngineRefusesOptionsAndAClosedOneFilters) {
  FreeSlot slot;
  const std::string where = "-w" + std::to_string(slot.slot());
  const std::string elsewhere = "-w" + std::to_string(slot.slot() % 16 + 1);
  const char* const options[] = {"host", "-d8", where.c_str()};
  const char* const others[] = {"host", "-u0", elsewhere.c_str()};
  kinetrel_engine* const engine = kinetrel_create();
  const int key[3] = {0, 0, 0};
  char text[64] = {};
  int code = 0;
  EXPECT_EQ(kinetrel_add_filter(engine, key, 3), -1);
  EXPECT_EQ(kinetrel_status_text(engine, &code, sizeof text, text), 1);
  EXPECT_STREQ(text, "AddFilter: MTS Not Open");

  ASSERT_EQ(kinetrel_set_options(engine, 3, options), 1);
  ASSERT_EQ(kinetrel_open_configured(engine), kinetrel_opened);
  EXPECT_EQ(kinetrel_set_options(engine, 3, others), 0);
  EXPECT_EQ(kinetrel_status_text(engine, &code, sizeof text, text), 1);
  EXPECT_STREQ(text, "Configure: MTS already open");
  EXPECT_EQ(code, -2);
  int id = -1;
  EXPECT_EQ(kinetrel_get_attribute_int(engine, kinetrel_shared_memory_id, &id), 1);
  EXPECT_EQ(id, slot.device());
  kinetrel_destroy(engine);
}

// Opens, samples and closes the simulated tracker; the number of frames that were published.
int SampleSimulated(const FreeSlot& slot) {
  const std::string where = "-w" + std::to_string(slot.slot());
  const char* const options[] = {"host", "-d8", "-z-", where.c_str()};
  kinetrel_engine* const engine = kinetrel_create();
  EXPECT_EQ(kinetrel_set_options(engine, 4, options), 1);
  EXPECT_EQ(kinetrel_open_configured(engine), kinetrel_opened);
  EXPECT_EQ(kinetrel_open(engine, 8, 1, 0), kinetrel_already_open);
  EXPECT_EQ(kinetrel_start_sampling(engine), 1);
  const int key[3] = {slot.device(), 0, 0};
  int frames = 0;
  WaitUntil([&] {
    return kinetrel_get_filter_attribute_int(engine, key, -1, kinetrel_mapping_frame_count,
                                             &frames) == 1 &&
           frames > 70;  // past a blink of the cursor
  });
  float position[3] = {};
  EXPECT_EQ(
      kinetrel_get_filter_attribute_floats(engine, key, -1, kinetrel_mapping_position, 3, position),
      1);
  EXPECT_NEAR(std::hypot(position[0], position[1]), 80.0, 1e-3);  // cm: it moves on a circle
  EXPECT_EQ(kinetrel_stop_sampling(engine, 1), 1);
  EXPECT_EQ(kinetrel_wait_sampling(engine, 0), 1);
  EXPECT_EQ(kinetrel_close(engine), 1);
  kinetrel_destroy(engine);
  return frames;
}

TEST(CInterface, RunsATrackerAndPrintsNothingWhilePrintingIsSwitchedOff) {
  FreeSlot slot;
  testing::internal::CaptureStderr();
  testing::internal::CaptureStdout();
  kinetrel_set_printing(0);
  const int frames = SampleSimulated(slot);
  kinetrel_set_printing(1);
  EXPECT_GT(frames, 70);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(CInterface, AHostWithClosedOutputLivesOn) {
  FreeSlot slot;
  const auto host = [&] {
    int ends[2];
    if (::pipe(ends) != 0 || ::dup2(ends[1], 1) < 0 || ::dup2(ends[1], 2) < 0) ::_exit(2);
    ::close(ends[0]);
    ::close(ends[1]);
    ::_exit(SampleSimulated(slot) > 70 ? 0 : 1);
  };
  EXPECT_EXIT(host(), testing::ExitedWithCode(0), "");
}

#ifdef KINETREL_INSTALL_TEST
TEST(Installation, HostsBuildAndRunAgainstIt) {
  FreeSlot slot;
  ChildProcess script(
      "/bin/bash", {std::string(KINETREL_SOURCE_DIR) + "/tests/capi/install.sh", KINETREL_BUILD_DIR,
                    KINETREL_SOURCE_DIR, std::to_string(slot.slot())});
  EXPECT_EQ(script.Wait(std::chrono::minutes(2)), 0) << script.error();
  EXPECT_NE(script.output().find("Hz"), std::string::npos);
}
#endif

}  // namespace
}  // namespace kinetrel::test
