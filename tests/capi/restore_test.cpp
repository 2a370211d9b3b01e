// Every tracker on a serial line, emulated: a host changes its settings, the cable is pulled and
// plugged in again, and all settings read as before. The held pose shows that they are in force.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>

#include <kinetrel/kinetrel.h>
#include "tests/support/child_process.h"
#include "tests/support/free_slot.h"

namespace kinetrel::test {
namespace {

struct Tracker {
  const char* name;
  int type;
  std::vector<std::string> emulator;
  const char* protocol = nullptr;  // null: it has one only
  const char* control = nullptr;
};

class RestoredSettings : public testing::TestWithParam<Tracker> {
 protected:
  RestoredSettings() {
    ::setenv("KINETREL_COM1", link_.c_str(), 1);
    ::setenv("KINETREL_PDI", KINETREL_PDI_SUBSTITUTE, 1);
    ::setenv("KINETREL_PDI_SERIAL", "1", 1);
  }
  ~RestoredSettings() override {
    kinetrel_destroy(engine_);
    ::unlink(link_.c_str());
  }

  void Open() {
    const std::string type = "-d" + std::to_string(GetParam().type);
    const std::string slot = "-w" + std::to_string(slot_.slot());
    const char* const options[] = {"host", type.c_str(), slot.c_str(), "-s1"};
    ASSERT_EQ(kinetrel_set_options(engine_, 4, options), 1);
    ASSERT_EQ(kinetrel_open_configured(engine_), kinetrel_opened);
    ASSERT_EQ(kinetrel_start_sampling(engine_), 1);
    ASSERT_TRUE(FramesPass());
  }

  void ChangeSettings() {
    const float offset[] = {1, 2, 3, 0.1F, 0.2F, 0.5F};
    const float zenith[] = {0, 0, -1};
    const float axes[2][3] = {{0, 1, 0}, {-1, 0, 0}};
    EXPECT_EQ(kinetrel_set_attribute_int(engine_, kinetrel_units, 0), 1);
    EXPECT_EQ(kinetrel_set_attribute_int(engine_, kinetrel_component_mask, 7), 1);
    EXPECT_EQ(kinetrel_set_attribute_int(engine_, kinetrel_synchronization, 0), 1);
    EXPECT_EQ(kinetrel_set_attribute_int(engine_, kinetrel_roll_all_sensors, 1), 1);
    EXPECT_EQ(kinetrel_set_attribute_floats(engine_, kinetrel_offset, 6, offset), 1);
    EXPECT_EQ(kinetrel_set_attribute_floats(engine_, kinetrel_hemisphere, 3, zenith), 1);
    EXPECT_EQ(kinetrel_set_attribute_floats(engine_, kinetrel_align_x, 3, axes[0]), 1);
    EXPECT_EQ(kinetrel_set_attribute_floats(engine_, kinetrel_align_y, 3, axes[1]), 1);
    if (const char* const text = GetParam().protocol) {
      EXPECT_EQ(kinetrel_set_attribute_string(engine_, kinetrel_protocol, text), 1);
    }
    if (const char* const text = GetParam().control) {
      EXPECT_EQ(kinetrel_set_attribute_string(engine_, kinetrel_control_string, text), 1);
    }
  }

  // Every attribute but those that tell of the run.
  std::string Settings() {
    std::string all;
    kinetrel_attribute rows[19];
    EXPECT_EQ(kinetrel_get_available_attributes(engine_, 19, rows), 1);
    for (const kinetrel_attribute& row : rows) {
      if (row.id == kinetrel_current_status) continue;
      int number = -99;
      float floats[6] = {};
      char text[64] = {};
      kinetrel_get_attribute_int(engine_, row.id, &number);
      kinetrel_get_attribute_floats(engine_, row.id, row.count, floats);
      kinetrel_get_attribute_string(engine_, row.id, sizeof text - 1, text);
      all += std::string(row.name) + ' ' + std::to_string(number) + ' ' + text;
      for (const float value : floats) all += ' ' + std::to_string(value);
      all += '\n';
    }
    return all;
  }

  int Frames() {
    int frames = 0;
    kinetrel_get_filter_attribute_int(engine_, key_, -1, kinetrel_mapping_frame_count, &frames);
    return frames;
  }
  bool FramesPass() {
    int first = 0;
    const auto begun = [&] { return (first = Frames()) > 0; };
    return WaitUntil(begun, 3 * kPatience) && WaitUntil([&] { return Frames() >= first + 20; });
  }
  std::string Pose() {
    std::string all;
    for (const int id : {kinetrel_mapping_position, kinetrel_mapping_euler}) {
      float values[3] = {};
      kinetrel_get_filter_attribute_floats(engine_, key_, -1, id, 3, values);
      for (const float value : values) all += std::to_string(value) + ' ';
    }
    return all;
  }
  bool FramesStop() {
    return WaitUntil([&] {
      const int before = Frames();
      usleep(300000);
      return before > 0 && Frames() == before;
    });
  }

  const std::string link_ = testing::TempDir() + "kinetrel-restore-" + std::to_string(::getpid());
  FreeSlot slot_;
  const int key_[3] = {slot_.device(), 0, 0};
  kinetrel_engine* const engine_ = kinetrel_create();
};

TEST_P(RestoredSettings, ReadAsBeforeTheCableWasPulled) {
  std::vector<std::string> arguments = GetParam().emulator;
  for (const char* const more : {"--motion=hold:30,20,10,40,15,5", "--fault=unplug:1@usr1"}) {
    arguments.emplace_back(more);
  }
  arguments.insert(arguments.end(), {"--link", link_});
  ChildProcess emulator("kinetrel-emulate", arguments);
  ASSERT_TRUE(WaitUntil([&] { return std::filesystem::is_symlink(link_); }));
  Open();
  const std::string unchanged = Settings();
  ChangeSettings();
  ASSERT_TRUE(FramesPass());
  const std::string pose = Pose();
  const std::string settings = Settings();
  EXPECT_NE(settings, unchanged);

  emulator.Signal(SIGUSR1);
  ASSERT_TRUE(FramesStop());
  ASSERT_TRUE(FramesPass());
  EXPECT_EQ(Settings(), settings);
  EXPECT_EQ(Pose(), pose);
}

INSTANTIATE_TEST_SUITE_P(
    Of, RestoredSettings,
    testing::Values(Tracker{"Fastrak", 2, {"fastrak"}, "1: 14 bit", "A1,0,0,0,0,0,200,0,200,0"},
                    Tracker{"Isotrak2", 2, {"fastrak", "--model=isotrak2"}, "2"},
                    Tracker{"Flock", 3, {"flock"}}, Tracker{"Logitech", 4, {"logitech"}},
                    Tracker{"Intertrax", 9, {"intertrax"}},
                    Tracker{"Liberty", 10, {"liberty"}, "4"}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace kinetrel::test
